// VideoTunnelWraper on the simulated TV: device, id, connection, buffers and their fences, and what
// it says of each.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/LogCapture.h"
#include "tests/support/ManualClock.h"
#include "tests/support/Swapped.h"
#include "tv/Tv.h"
#include "videotunnel/VideoTunnelOps.h"
#include "videotunnel/VideoTunnelWraper.h"

struct VideoTunnelWraperPeer {
    static int queuedCount(const VideoTunnelWraper& wrapper) { return wrapper.mQueuedCount; }
    static int tunnelId(const VideoTunnelWraper& wrapper) { return wrapper.mTunnelId; }
    static bool connected(const VideoTunnelWraper& wrapper) { return wrapper.mConnected; }
    static void setFenceTimeoutMs(VideoTunnelWraper* wrapper, int timeoutMs) {
        EXPECT_EQ(wrapper->mFenceTimeoutMs, 1000);
        wrapper->mFenceTimeoutMs = timeoutMs;
    }
    static_assert(offsetof(VideoTunnelWraper, mQueuedCount) == 0);
    static_assert(offsetof(VideoTunnelWraper, mTunnelId) == 4);
    static_assert(offsetof(VideoTunnelWraper, mVideoTunnelFd) == 8);
    static_assert(offsetof(VideoTunnelWraper, mConnected) == 12);
    static_assert(offsetof(VideoTunnelWraper, mFenceTimeoutMs) == 16);
    static_assert(sizeof(VideoTunnelWraper) == 20);
};

static_assert(offsetof(videotunnel_ops, mOpen) == 0);
static_assert(offsetof(videotunnel_ops, mDisconnect) == 5 * 8);
static_assert(offsetof(videotunnel_ops, mQueueBuffer) == 6 * 8);
static_assert(offsetof(videotunnel_ops, mDequeueBuffer) == 7 * 8);
static_assert(offsetof(videotunnel_ops, mSendCmd) == 8 * 8);
static_assert(offsetof(videotunnel_ops, mGetDisplayVsyncAndPeroid) == 9 * 8);
static_assert(offsetof(videotunnel_ops, mInited) == 10 * 8);
static_assert(offsetof(videotunnel_ops, mLibHandle) == 11 * 8);

namespace {

using korvane::test::LogCapture;
using korvane::test::setLogMaskProperty;
using korvane::test::Swapped;
using korvane::tv::TunnelFaults;
using korvane::tv::Tv;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using Peer = VideoTunnelWraperPeer;

const std::string kProperty = "vendor.korvane.loglevels";

long openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class VideoTunnel : public testing::Test {
protected:
    VideoTunnel() {
        korvane::tv::TvConfig config;
        config.displayThread = false;
        mTv = Tv::powerOn(config);
        setLogMaskProperty(1);
    }
    ~VideoTunnel() override {
        mTv->powerOff();
        korvane::tv::observeTrace(nullptr);
        korvane::tv::setTraceTagEnabled(false);
        korvane::tv::clearProperties();
    }

    void SetUp() override { ASSERT_TRUE(gVideoTunnelOps.mInited); }

    void setFault(bool TunnelFaults::*fault, bool on = true) {
        TunnelFaults faults = mTv->tunnel().faults();
        faults.*fault = on;
        mTv->tunnel().setFaults(faults);
    }

    /// A wrapper with an id and a connection, under a log mask; the log begins after that.
    std::unique_ptr<VideoTunnelWraper> connected(int mask) {
        setLogMaskProperty(mask);
        auto wrapper = std::make_unique<VideoTunnelWraper>();
        EXPECT_GE(wrapper->allocTunnelId(), 0);
        EXPECT_TRUE(wrapper->connect());
        mLog.take();
        return wrapper;
    }

    /// Lets the display run for some vsyncs.
    void runVsyncs(int count) {
        mClock.advanceUs(count * 16'667);
        mTv->runVsyncs(mClock.nowNs());
    }

    /// Three buffers, 100 to 102, of which the first has been replaced on screen by the second: it
    /// can be taken back, with a fence that signals one vsync later.
    std::unique_ptr<VideoTunnelWraper> withReleasedBuffer(int mask) {
        auto wrapper = connected(mask);
        EXPECT_TRUE(wrapper->queueBuffer(100, 0));
        EXPECT_TRUE(wrapper->queueBuffer(101, mClock.nowUs() + 25'000));
        EXPECT_TRUE(wrapper->queueBuffer(102, mClock.nowUs() + 1'000'000));
        runVsyncs(1);
        runVsyncs(1);
        mLog.take();
        return wrapper;
    }

    korvane::test::ManualClock mClock;
    LogCapture mLog{"VideoTunnelWraper"};
    std::shared_ptr<Tv> mTv;
};

TEST_F(VideoTunnel, constructorOpensAndRefreshesTheMaskAtDebugPriority) {
    { const VideoTunnelWraper wrapper; }
    EXPECT_THAT(mLog.take(),
                ElementsAre("I ctor VideoTunnelWraper mVideoTunnelFd 0",
                            "I ~VideoTunnelWraper, mConnected = 0", "I tovak_vt_close done!"));
    setLogMaskProperty(2);
    { const VideoTunnelWraper wrapper; }
    EXPECT_THAT(mLog.take(), ElementsAre("D " + kProperty + " set = 2\n"));
    korvane::tv::clearProperties();
    { const VideoTunnelWraper wrapper; }
    EXPECT_THAT(mLog.take(), ElementsAre("D " + kProperty + " is not set used def = 2\n"));
    setLogMaskProperty(0);
    { const VideoTunnelWraper wrapper; }
    EXPECT_THAT(mLog.take(), IsEmpty());
    EXPECT_EQ(mTv->tunnel().openDevices(), 0);
}

TEST_F(VideoTunnel, withoutDeviceEveryOperationSaysSoInItsWay) {
    mTv->powerOff();
    auto wrapper = std::make_unique<VideoTunnelWraper>();
    EXPECT_THAT(mLog.take(), ElementsAre("E tovak_vt_open failed! No such device",
                                         "I ctor VideoTunnelWraper mVideoTunnelFd -19"));
    EXPECT_EQ(wrapper->allocTunnelId(), -1);
    EXPECT_TRUE(wrapper->connect());
    EXPECT_FALSE(wrapper->queueBuffer(1, 2));
    int fd = -1;
    EXPECT_FALSE(wrapper->dequeueBuffer(&fd));
    EXPECT_FALSE(wrapper->freeTunnelId());
    EXPECT_THAT(
        mLog.take(),
        ElementsAre("E tovak_vt_alloc_id failed, mVideoTunnelFd:-19, mTunnelId:-1",
                    "E tovak_vt_connect failed, mVideoTunnelFd:-19, mTunnelId:-1",
                    "E queueBuffer video tunnel queueBuffer failed, mVideoTunnelFd:-19, "
                    "mTunnelId:-1",
                    "E dequeueBuffer video tunnel dequeueBuffer failed, mVideoTunnelFd:-19, "
                    "mTunnelId:-1",
                    "E tovak_vt_free_id failed, mVideoTunnelFd:-19, mTunnelId:-1"));
    long timestamp = -7;
    int period = -7;
    EXPECT_FALSE(wrapper->getDisplayVsyncAndPeriod(&timestamp, &period));
    EXPECT_TRUE(wrapper->disconnect());
    wrapper.reset();
    EXPECT_THAT(mLog.take(), ElementsAre("I disconnect:331, mQueuedCount:0",
                                         "I ~VideoTunnelWraper, mConnected = 0"));
}

TEST_F(VideoTunnel, missingEntryPointsAreTestedBeforeUse) {
    auto wrapper = connected(1);
    int fd = -1;
    long timestamp = -7;
    int period = -7;
    {
        const Swapped connect(gVideoTunnelOps.mConnect, nullptr);
        const Swapped alloc(gVideoTunnelOps.mAllocId, nullptr);
        const Swapped release(gVideoTunnelOps.mFreeId, nullptr);
        const Swapped queue(gVideoTunnelOps.mQueueBuffer, nullptr);
        const Swapped dequeue(gVideoTunnelOps.mDequeueBuffer, nullptr);
        const Swapped vsync(gVideoTunnelOps.mGetDisplayVsyncAndPeroid, nullptr);
        EXPECT_TRUE(wrapper->connect());
        EXPECT_FALSE(wrapper->queueBuffer(1, 2));
        EXPECT_FALSE(wrapper->dequeueBuffer(&fd));
        EXPECT_FALSE(wrapper->freeTunnelId());
        VideoTunnelWraper other;
        EXPECT_EQ(other.allocTunnelId(), -1);
        EXPECT_FALSE(wrapper->getDisplayVsyncAndPeriod(&timestamp, &period));
    }
    EXPECT_THAT(mLog.take(), testing::Contains(testing::StartsWith("E ")).Times(5));
    {
        const Swapped disconnect(gVideoTunnelOps.mDisconnect, nullptr);
        EXPECT_TRUE(wrapper->disconnect());
        EXPECT_THAT(mLog.take(), ElementsAre("I disconnect:331, mQueuedCount:0"));
    }
    const Swapped open(gVideoTunnelOps.mOpen, nullptr);
    const Swapped close(gVideoTunnelOps.mClose, nullptr);
    { const VideoTunnelWraper unopened; }
    EXPECT_THAT(mLog.take(), ElementsAre("I ctor VideoTunnelWraper mVideoTunnelFd -1",
                                         "I ~VideoTunnelWraper, mConnected = 0"));
    wrapper.reset();
    const auto log = mLog.take();
    ASSERT_GE(log.size(), 2U);
    EXPECT_EQ(log[log.size() - 2], "E tovak_vt_close nullptr!");
    EXPECT_EQ(log.back(), "I tovak_vt_close done!");
}

TEST_F(VideoTunnel, holdsOneIdAtATime) {
    VideoTunnelWraper wrapper;
    setFault(&TunnelFaults::allocFails);
    mLog.take();
    EXPECT_EQ(wrapper.allocTunnelId(), -EINVAL);
    setFault(&TunnelFaults::allocFails, false);
    EXPECT_EQ(wrapper.allocTunnelId(), 0);
    EXPECT_EQ(wrapper.allocTunnelId(), -1);
    setFault(&TunnelFaults::freeFails);
    EXPECT_FALSE(wrapper.freeTunnelId());
    EXPECT_EQ(Peer::tunnelId(wrapper), 0);
    setFault(&TunnelFaults::freeFails, false);
    EXPECT_TRUE(wrapper.freeTunnelId());
    EXPECT_EQ(Peer::tunnelId(wrapper), -1);
    EXPECT_FALSE(wrapper.freeTunnelId());
    EXPECT_THAT(mLog.take(),
                ElementsAre("E tovak_vt_alloc_id failed! Invalid argument",
                            "I tovak_vt_alloc_id success. mTunnelId:0",
                            "E tovak_vt_alloc_id failed, mVideoTunnelFd:0, mTunnelId:0",
                            "E tovak_vt_free_id failed! Invalid argument",
                            "I tovak_vt_free_id success. mTunnelId:0",
                            "E tovak_vt_free_id failed, mVideoTunnelFd:0, mTunnelId:-1"));
}

TEST_F(VideoTunnel, connectsAndDisconnects) {
    VideoTunnelWraper wrapper;
    wrapper.allocTunnelId();
    setFault(&TunnelFaults::connectFails);
    mLog.take();
    EXPECT_FALSE(wrapper.connect());
    EXPECT_FALSE(Peer::connected(wrapper));
    setFault(&TunnelFaults::connectFails, false);
    EXPECT_TRUE(wrapper.connect());
    EXPECT_TRUE(Peer::connected(wrapper));
    setFault(&TunnelFaults::disconnectFails);
    EXPECT_TRUE(wrapper.disconnect());
    EXPECT_TRUE(Peer::connected(wrapper));
    setFault(&TunnelFaults::disconnectFails, false);
    {
        const Swapped absent(gVideoTunnelOps.mSendCmd, nullptr);
        EXPECT_TRUE(wrapper.disconnect());
    }
    EXPECT_FALSE(Peer::connected(wrapper));
    EXPECT_THAT(mLog.take(),
                ElementsAre("E tovak_vt_connect failed with 0", "I tovak_vt_connect success!",
                            "I disconnect:331, mQueuedCount:0",
                            "I tovak_vt_send_cmd with ret:0 mVideoTunnelFd:0 mTunnelId:0",
                            "E tovak_vt_disconnect failed with 1",
                            "I disconnect:331, mQueuedCount:0", "I tovak_vt_disconnect success!"));
}

TEST_F(VideoTunnel, destructorDisconnectsFreesAndCloses) {
    auto wrapper = connected(1);
    wrapper.reset();
    EXPECT_THAT(
        mLog.take(),
        ElementsAre("I ~VideoTunnelWraper, mConnected = 1", "I disconnect:331, mQueuedCount:0",
                    "I tovak_vt_send_cmd with ret:0 mVideoTunnelFd:0 mTunnelId:0",
                    "I tovak_vt_disconnect success!", "I tovak_vt_free_id success. mTunnelId:0",
                    "I tovak_vt_close done!"));
    EXPECT_EQ(mTv->tunnel().allocatedIds(), 0);
    EXPECT_EQ(mTv->tunnel().openDevices(), 0);
}

// The constants that go with each call, seen by entry points in the library's place.
TEST_F(VideoTunnel, passesItsConstantsToTheTunnel) {
    static std::vector<std::vector<long>> calls;
    auto wrapper = connected(0);
    const Swapped connect(
        gVideoTunnelOps.mConnect, +[](int fd, int id, int role) {
            return calls.push_back({fd, id, role}), 0;
        });
    const Swapped command(
        gVideoTunnelOps.mSendCmd, +[](int fd, int id, int cmd, int argument) {
            return calls.push_back({fd, id, cmd, argument}), -1;
        });
    const Swapped disconnect(
        gVideoTunnelOps.mDisconnect, +[](int fd, int id, int role) {
            return calls.push_back({fd, id, role}), 0;
        });
    const Swapped queue(
        gVideoTunnelOps.mQueueBuffer, +[](int fd, int id, int buffer, int fence, int64_t time) {
            return calls.push_back({fd, id, buffer, fence, time}), 0;
        });
    wrapper->connect();
    wrapper->queueBuffer(77, 1L << 40);
    wrapper->disconnect();
    EXPECT_THAT(calls, ElementsAre(ElementsAre(0, 0, 0), ElementsAre(0, 0, 77, -1, 1L << 40),
                                   ElementsAre(0, 0, 0, 1), ElementsAre(0, 0, 0)));
}

TEST_F(VideoTunnel, queueCountsWhatTheTunnelTook) {
    auto wrapper = connected(0x12);
    std::vector<std::string> counters;
    korvane::tv::setTraceTagEnabled(true);
    korvane::tv::observeTrace([&](char kind, const std::string& name, int64_t value) {
        counters.push_back(kind + (" " + name) + " " + std::to_string(value));
    });
    EXPECT_TRUE(wrapper->queueBuffer(100, 5));
    EXPECT_THAT(mLog.take(), ElementsAre("D queueBuffer 100 5", "D queueBuffer 100 5, count:1"));
    EXPECT_THAT(counters, ElementsAre("C vtQueueCntTunnel 1"));

    setFault(&TunnelFaults::queueFails);
    EXPECT_TRUE(wrapper->queueBuffer(101, 6)) << "a refusal looks like success";
    EXPECT_EQ(Peer::queuedCount(*wrapper), 1);
    EXPECT_THAT(mLog.take(), ElementsAre("E tovak_vt_queue_buffer failed with 1"));
    EXPECT_EQ(counters.size(), 1U);
}

TEST_F(VideoTunnel, traceCounterNeedsItsBitAndTheTag) {
    int points = 0;
    korvane::tv::observeTrace([&](char, const std::string&, int64_t) { ++points; });
    korvane::tv::setTraceTagEnabled(true);
    connected(0x07)->queueBuffer(1, 2);
    korvane::tv::setTraceTagEnabled(false);
    connected(0x10)->queueBuffer(1, 2);
    EXPECT_EQ(points, 0);
}

TEST_F(VideoTunnel, takesNothingBackBelowThree) {
    auto wrapper = connected(4);
    int fd = -1;
    for (const int count : {0, 1, 2}) {
        EXPECT_FALSE(wrapper->dequeueBuffer(&fd));
        EXPECT_THAT(mLog.take(),
                    ElementsAre("D dequeueBuffer:373, mQueuedCount:" + std::to_string(count)));
        wrapper->queueBuffer(100 + count, 0);
    }
    EXPECT_FALSE(wrapper->dequeueBuffer(&fd));
    EXPECT_THAT(mLog.take(),
                ElementsAre("D dequeueBuffer:373, mQueuedCount:3",
                            "D tovak_vt_dequeue_buffer failed with -11, need deq again"));
    EXPECT_EQ(fd, -1);
}

TEST_F(VideoTunnel, takesAReleasedBufferBackOnceItsFenceHasSignalled) {
    auto wrapper = withReleasedBuffer(0x02);
    runVsyncs(1);
    const long before = openDescriptors();
    int fd = -1;
    EXPECT_TRUE(wrapper->dequeueBuffer(&fd));
    EXPECT_EQ(fd, 100);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(Peer::queuedCount(*wrapper), 2);
    EXPECT_THAT(mLog.take(),
                ElementsAre(MatchesRegex("D dequeueBuffer 100 [0-9]+"), "D dequeueBuffer count:2"));
}

TEST_F(VideoTunnel, takesABufferWithoutFenceAtOnce) {
    setFault(&TunnelFaults::noFences);
    auto wrapper = withReleasedBuffer(0x02);
    int fd = -1;
    EXPECT_TRUE(wrapper->dequeueBuffer(&fd));
    EXPECT_THAT(mLog.take(), ElementsAre("D dequeueBuffer 100 -1", "D dequeueBuffer count:2"));
}

TEST_F(VideoTunnel, fenceThatDoesNotSignalInTimeIsClosedAndTheBufferStaysCounted) {
    setFault(&TunnelFaults::fenceNeverSignals);
    auto wrapper = withReleasedBuffer(0x01);
    Peer::setFenceTimeoutMs(wrapper.get(), 5);
    const long before = openDescriptors();
    int fd = -1;
    EXPECT_FALSE(wrapper->dequeueBuffer(&fd));
    EXPECT_EQ(fd, 100);
    EXPECT_EQ(Peer::queuedCount(*wrapper), 3);
    // The TV still holds the end that would signal.
    EXPECT_EQ(openDescriptors(), before + 1);
    EXPECT_THAT(mLog.take(),
                ElementsAre(MatchesRegex("I Failed to wait for fence: fd: 100 fence_fd [0-9]+ err "
                                         ": Timer expired \\(-62\\)")));
}

int gFence = -1;

/// A tunnel that hands out buffer 100 with the fence that the test chose.
int dequeueWithFence(int /*device*/, int /*tunnelId*/, int* bufferFd, int* fenceFd) {
    *bufferFd = 100;
    *fenceFd = gFence;
    return 0;
}

/// A descriptor open for reading, without flags, of a file that is deleted: a message queue, as
/// files proper carry a flag for large files.
int deletedFile() {
    const std::string name = "/korvane-fence-" + std::to_string(getpid());
    const int fd = mq_open(name.c_str(), O_RDONLY | O_CREAT | O_EXCL, 0600, nullptr);
    mq_unlink(name.c_str());
    return fd;
}

TEST_F(VideoTunnel, descriptorThatIsNoFenceLosesTheBufferAndStaysOpen) {
    struct Case {
        int fence;
        std::string log;
        bool staysOpen;
    };
    auto wrapper = withReleasedBuffer(0x02);
    const Swapped handingOut(gVideoTunnelOps.mDequeueBuffer, dequeueWithFence);
    for (const Case& each : {Case{9999, "D fcntl error : Unknown error -9 (9)!\n", false},
                             Case{deletedFile(), "D File was deleted!\n", true}}) {
        gFence = each.fence;
        int fd = -1;
        EXPECT_FALSE(wrapper->dequeueBuffer(&fd));
        EXPECT_EQ(fd, 100);
        EXPECT_EQ(Peer::queuedCount(*wrapper), 3);
        EXPECT_EQ(fcntl(each.fence, F_GETFD) != -1, each.staysOpen);
        close(each.fence);
        EXPECT_THAT(mLog.take(),
                    ElementsAre("D dequeueBuffer 100 " + std::to_string(each.fence), each.log));
    }
}

TEST_F(VideoTunnel, fenceOfTheWrongModeStaysOpen) {
    setFault(&TunnelFaults::fenceWrongMode);
    auto wrapper = withReleasedBuffer(0x02);
    runVsyncs(1);
    const long before = openDescriptors();
    int fd = -1;
    EXPECT_FALSE(wrapper->dequeueBuffer(&fd));
    EXPECT_EQ(fd, 100);
    EXPECT_EQ(openDescriptors(), before + 1);
    EXPECT_EQ(Peer::queuedCount(*wrapper), 3);
    const auto log = mLog.take();
    ASSERT_EQ(log.size(), 2U);
    EXPECT_THAT(log[1], MatchesRegex("D fcntl error : .* \\([0-9]+\\)!\n"));
    close(std::stoi(log[0].substr(log[0].rfind(' '))));
}

TEST_F(VideoTunnel, vsyncQuery) {
    auto wrapper = connected(4);
    mClock.advanceUs(100'000);
    long timestamp = -7;
    int period = -8;
    EXPECT_TRUE(wrapper->getDisplayVsyncAndPeriod(&timestamp, &period));
    EXPECT_EQ(timestamp, mTv->display().lastVsyncAt(mClock.nowNs()).timeNs);
    EXPECT_EQ(period, 16'666'666);
    EXPECT_THAT(mLog.take(), ElementsAre("D getDisplayVsyncAndPeroid vsyncTimestamp:" +
                                         std::to_string(timestamp) + ", vsyncTimestamp:16666666"));
    setFault(&TunnelFaults::vsyncQueryFails);
    timestamp = -7;
    EXPECT_FALSE(wrapper->getDisplayVsyncAndPeriod(&timestamp, &period));
    EXPECT_EQ(timestamp, -7);
    EXPECT_THAT(mLog.take(), ElementsAre("E tovak_vt_getDisplayVsyncAndPeroid failed with 1"));
}

TEST_F(VideoTunnel, drainFillAndPlayerThreadsMayMeet) {
    constexpr int kBuffers = 500;
    auto wrapper = connected(0);
    gFence = -1;
    const Swapped queue(
        gVideoTunnelOps.mQueueBuffer, +[](int, int, int, int, int64_t) { return 0; });
    const Swapped dequeue(gVideoTunnelOps.mDequeueBuffer, dequeueWithFence);
    std::thread drain([&] {
        for (int i = 0; i < kBuffers; ++i) {
            EXPECT_TRUE(wrapper->queueBuffer(i, i));
        }
    });
    std::thread player([&] {
        for (int i = 0; i < kBuffers; ++i) {
            EXPECT_EQ(wrapper->allocTunnelId(), -1);
            EXPECT_TRUE(wrapper->connect() || Peer::connected(*wrapper));
        }
    });
    int taken = 0;
    EXPECT_TRUE(korvane::test::eventually([&] {
        for (int fd = -1; wrapper->dequeueBuffer(&fd);) {
            ++taken;
        }
        return taken == kBuffers - 2;
    }));
    drain.join();
    player.join();
    EXPECT_EQ(Peer::queuedCount(*wrapper), 2);
}

}  // namespace
