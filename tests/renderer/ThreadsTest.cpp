// SPDX-License-Identifier: Apache-2.0
// The renderer's threads beside the TV's. No test depends on how long a step takes, only on its
// result.
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "VideoTunnelRenderer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TvFixture.h"

namespace {

bool gRealTimeRefused = false;
int gAskedPriority = 0;

}  // namespace

/// The system's, which grants real-time scheduling only to some processes.
extern "C" __attribute__((visibility("default"))) int sched_setscheduler(
    pid_t /*thread*/, int policy, const sched_param* parameters) {
    gAskedPriority = policy == SCHED_FIFO ? parameters->sched_priority : 0;
    errno = EPERM;
    return gRealTimeRefused ? -1 : 0;
}

namespace korvane::test {
namespace {

constexpr int kFirstFd = 10'000;

class ThreadsTest : public testing::Test {
protected:
    explicit ThreadsTest(std::unique_ptr<tv::VirtualTime> virtualTime = virtualTimeIfAvailable())
        : time(std::move(virtualTime)) {
        setLogMask(0);
    }
    ~ThreadsTest() override {
        renderer.reset();
        EXPECT_EQ(0, mTv->tunnel().openDevices());
        tv::clearProperties();
    }
    void make(int hwSyncId) {
        renderer.reset(VideoTunnelRenderer_create());
        renderer->init(hwSyncId);
        renderer->regCallBack(2, &ThreadsTest::onStatus, this);
        renderer->getTunnelId();
    }
    void send(int count, long firstUs, long gapUs) {
        for (int i = 0; i < count; ++i) {
            renderer->sendVideoFrame(kFirstFd + i, firstUs + i * gapUs, false);
        }
    }
    static int onStatus(void* self, void* info) {
        auto* test = static_cast<ThreadsTest*>(self);
        const std::lock_guard<std::mutex> guard(test->lock);
        ++test->timesReturned[static_cast<framestatus*>(info)->fd];
        return 0;
    }
    size_t returnedBuffers() {
        const std::lock_guard<std::mutex> guard(lock);
        return timesReturned.size();
    }

public:
    const std::unique_ptr<tv::VirtualTime> time;  ///< null: real time
    LogCapture log;
    std::shared_ptr<tv::Tv> mTv = tv::Tv::powerOn({});
    std::unique_ptr<VideoTunnelRenderer> renderer;
    std::mutex lock;
    std::map<int, int> timesReturned;
    std::atomic<int> olderCalls{0};
    std::atomic<int> newerCalls{0};
};

TEST_F(ThreadsTest, StartAndStopDoNothingTheSecondTimeAndTheIdIsKept) {
    for (const int logMask : {0, 1}) {
        setLogMask(logMask);
        make(0);
        log.take();
        const int id = renderer->getTunnelId();
        EXPECT_GE(id, 0);
        EXPECT_EQ(1, mTv->tunnel().allocatedIds());
        EXPECT_EQ(1, renderer->stop());
        EXPECT_EQ(1, renderer->start());
        EXPECT_EQ(1, renderer->start());
        EXPECT_EQ(1, mTv->tunnel().connectedTunnels());
        EXPECT_EQ(1, renderer->stop());
        EXPECT_EQ(1, renderer->stop());
        EXPECT_EQ(logMask, log.count("[start]have started\n"));
        EXPECT_EQ(logMask, log.count("[stop:261]\n"));
        EXPECT_EQ(id, renderer->getTunnelId());
        EXPECT_EQ(0, mTv->tunnel().allocatedIds() + mTv->tunnel().connectedTunnels());
    }
}

TEST_F(ThreadsTest, DrainThreadAsksForRealTimeAndPlaysWithoutIt) {
    for (const bool refused : {false, true}) {
        gRealTimeRefused = refused;
        make(0);
        renderer->start();
        renderer->sendVideoFrame(kFirstFd + refused, -1'000'000'000, false);
        EXPECT_TRUE(eventually([&] { return returnedBuffers() == 1u + refused; }));
        renderer->stop();
        EXPECT_EQ(50, gAskedPriority);
        EXPECT_EQ(refused ? 1 : 0, log.count("Couldn't set SCHED_FIFO for drainVideoFrameThread"));
    }
    gRealTimeRefused = false;
}

TEST_F(ThreadsTest, StopHandsBackAFrameThatPassthroughHolds) {
    const auto clock = mTv->mediaSync().create();
    make(0x10000 | clock->id());
    renderer->start();
    renderer->updateVideoTime(1);
    renderer->sendVideoFrame(kFirstFd, 3'600'000'000, false);
    EXPECT_TRUE(eventually([&] { return clock->counters().holds > 1; }));
    renderer->stop();
    EXPECT_EQ(1u, returnedBuffers());
}

TEST_F(ThreadsTest, ReleasedBuffersAndRenderTimesReachThePlayer) {
    make(0);
    std::atomic<int> renderTimes{0};
    renderer->regCallBack(
        1,
        [](void* data, void*) {
            ++*static_cast<std::atomic<int>*>(data);
            return 0;
        },
        &renderTimes);
    renderer->start();
    renderer->updateVideoTime(0);
    constexpr int kFrames = 20;
    send(kFrames, 0, 40'000);
    // The last two stay in the tunnel, which is dequeued only while it has three or more.
    EXPECT_TRUE(eventually([&] { return returnedBuffers() >= kFrames - 2; }));
    EXPECT_TRUE(eventually(
        [&] { return renderTimes + static_cast<int>(returnedBuffers()) >= 2 * kFrames - 2; }));
    renderer->stop();
    EXPECT_EQ(static_cast<size_t>(kFrames - 2), returnedBuffers());
}

TEST_F(ThreadsTest, StopEndsEveryWaitEachOfManyTimes) {
    const struct {
        const char* what;
        bool audio;
        int frames;
        long gapUs;
    } kCases[] = {{"no frame was ever sent", false, 0, 0},
                  {"one frame, audio expected", true, 1, 0},
                  {"audio never starts", true, 3, 40'000},
                  {"a frame is due in an hour", false, 2, 3'600'000'000}};
    for (int i = 0; i < 52; ++i) {
        const auto& c = kCases[i % 4];
        SCOPED_TRACE(c.what);
        make(c.audio ? mTv->mediaSync().create()->id() : 0);
        renderer->updateVideoTime(1);
        renderer->start();
        send(c.frames, 1, c.gapUs);
        std::this_thread::yield();
        renderer->stop();  // joins both threads: a wait that went on would hang here
        EXPECT_EQ(0, mTv->tunnel().allocatedIds());
    }
}

TEST_F(ThreadsTest, FlushWhileDrainingReturnsEachFrameOnce) {
    make(0);
    renderer->updateVideoTime(0);
    renderer->start();
    constexpr int kFrames = 400;
    std::thread flusher([&] {
        for (int i = 0; i < 200; ++i) {
            renderer->flush();
            renderer->peekFirstFrame();
        }
    });
    for (int i = 0; i < kFrames; ++i) {
        // Very late: dropped by the drain thread unless a flush takes it first.
        renderer->sendVideoFrame(kFirstFd + i, -1'000'000'000L - i, (i % 2) != 0);
    }
    flusher.join();
    EXPECT_TRUE(eventually([&] {
        renderer->flush();
        return returnedBuffers() + mTv->tunnel().record().size() >= kFrames;
    }));
    renderer->stop();
    for (const auto& [fd, times] : timesReturned) {
        EXPECT_EQ(1, times) << fd;
    }
}

TEST_F(ThreadsTest, PeekCallAndPeekCheckFindTheFrameGoneThatAFlushTookMeanwhile) {
    setLogMask(2);
    make(mTv->mediaSync().create()->id());
    renderer->start();
    std::thread peeker;
    // Logged under the input lock, for which the peek call and the drain thread wait once they have
    // seen the frame.
    tv::observeLog([&](const tv::LogLine& line) {
        if (line.text == "VideoFrameInputQueue.size():1\n") {
            peeker = std::thread([&] { renderer->peekFirstFrame(); });
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            renderer->flush();
        }
    });
    renderer->sendVideoFrame(kFirstFd, 40'000, false);
    peeker.join();
    tv::observeLog(nullptr);
    renderer->stop();
    EXPECT_EQ(1u, returnedBuffers());
}

TEST_F(ThreadsTest, ThreadThatWaitsToReportARenderTimeCallsTheCallbackRegisteredMeanwhile) {
    make(0);
    renderer->updateVideoTime(0);
    static constexpr auto replacement = [](void* self, void*) {
        return ++static_cast<ThreadsTest*>(self)->newerCalls;
    };
    // Sleeps under the render-time lock; the other thread waits for the lock meanwhile.
    const auto replacesItself = [](void* self, void*) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        auto* test = static_cast<ThreadsTest*>(self);
        ++test->olderCalls;
        return test->renderer->regCallBack(1, replacement, self);
    };
    renderer->regCallBack(1, replacesItself, this);
    renderer->start();
    std::thread second([&] {
        EXPECT_TRUE(eventually([&] {
            renderer->nodifyRenderTime();
            return newerCalls > 0;
        }));
    });
    send(2, 1, 0);
    second.join();
    renderer->stop();
    EXPECT_EQ(1, olderCalls);
    EXPECT_EQ(1, newerCalls);
}

/// Now and then a thread loses the processor for 20 ms at most: the fill thread polls meanwhile.
class LongPreemptionTest : public ThreadsTest {
protected:
    LongPreemptionTest() : ThreadsTest(virtualTimeIfAvailable(4096, 20'000'000)) {}
};

TEST_F(LongPreemptionTest, FlushFromARenderTimeCallbackAllowsAnotherPeek) {
    const int audio = mTv->mediaSync().create()->id();
    const auto flushes = [](void* self, void*) {
        auto* test = static_cast<ThreadsTest*>(self);
        test->renderer->flush();
        return ++test->olderCalls;
    };
    for (int i = 0; i < 100; ++i) {
        make(audio);
        olderCalls = 0;
        renderer->regCallBack(1, flushes, this);
        renderer->start();
        for (int peek = 1; peek <= 3; ++peek) {
            renderer->sendVideoFrame(kFirstFd + peek, 40'000, true);
            ASSERT_TRUE(eventually([&] { return olderCalls == peek; })) << "round " << i;
        }
        renderer->stop();
    }
}

TEST_F(ThreadsTest, WrongCallingOrderCostsNoCrash) {
    renderer.reset(VideoTunnelRenderer_create());
    renderer->regCallBack(2, &ThreadsTest::onStatus, this);
    renderer->start();
    renderer->sendVideoFrame(kFirstFd, 0, false);
    EXPECT_TRUE(eventually([&] { return returnedBuffers() == 1; }));
    renderer->flush();
    renderer->init(mTv->mediaSync().create()->id());  // late, while the threads run
    renderer->sendVideoFrame(kFirstFd + 1, 40'000, false);
    renderer->sendVideoFrame(kFirstFd + 2, 80'000, false);
    renderer->flush();
    renderer->stop();
}

TEST_F(ThreadsTest, DeletingARunningRendererStopsItWithAnError) {
    make(0);
    renderer->start();
    renderer.reset();
    EXPECT_EQ(1, log.count("[~VideoTunnelRenderer] deleted while running, stopping first\n"));
}

/// In real time, where a thread's stack comes from the system.
class RealThreadsTest : public ThreadsTest {
protected:
    RealThreadsTest() : ThreadsTest(nullptr) {}
};

TEST_F(RealThreadsTest, RendererRunsWithoutThreadsThatCannotBeCreated) {
    // A stack that does not fit into the address space: creating a thread with the defaults fails.
    pthread_attr_t usual;
    pthread_attr_t enormous;
    ASSERT_EQ(0, pthread_getattr_default_np(&usual));
    ASSERT_EQ(0, pthread_getattr_default_np(&enormous));
    ASSERT_EQ(0, pthread_attr_setstacksize(&enormous, size_t{1} << 50));
    make(0);
    ASSERT_EQ(0, pthread_setattr_default_np(&enormous));
    renderer->start();
    ASSERT_EQ(0, pthread_setattr_default_np(&usual));
    pthread_attr_destroy(&usual);
    pthread_attr_destroy(&enormous);
    renderer->sendVideoFrame(kFirstFd, 0, false);
    renderer->flush();
    EXPECT_EQ(1u, returnedBuffers());
    EXPECT_EQ(1, renderer->stop());
}

TEST_F(ThreadsTest, NoTvAtAllIsLoggedNotFatal) {
    mTv->powerOff();
    make(5);
    EXPECT_LT(renderer->getTunnelId(), 0);
    renderer->start();
    send(2, 1, 40'000);
    renderer->flush();
    renderer->stop();
}

}  // namespace
}  // namespace korvane::test
