// SPDX-License-Identifier: Apache-2.0
// VideoTunnelWraper on the simulated TV: device, id, connection, buffers and their fences, with the
// log of each.
#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>

#include "tests/support/LogCapture.h"
#include "tests/support/TvFixture.h"
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
    static_assert(offsetof(VideoTunnelWraper, mTunnelId) == 4 &&
                  offsetof(VideoTunnelWraper, mVideoTunnelFd) == 8 &&
                  offsetof(VideoTunnelWraper, mConnected) == 12 && sizeof(VideoTunnelWraper) == 20);
};
constexpr size_t kPointer = sizeof(void*);
static_assert(offsetof(videotunnel_ops, mDisconnect) == 5 * kPointer &&
              offsetof(videotunnel_ops, mQueueBuffer) == 6 * kPointer &&
              offsetof(videotunnel_ops, mDequeueBuffer) == 7 * kPointer &&
              offsetof(videotunnel_ops, mSendCmd) == 8 * kPointer &&
              offsetof(videotunnel_ops, mGetDisplayVsyncAndPeroid) == 9 * kPointer &&
              offsetof(videotunnel_ops, mInited) == 10 * kPointer &&
              offsetof(videotunnel_ops, mLibHandle) == 11 * kPointer);

namespace {

int gClosedMeanwhile = -1;

}  // namespace

/// The system's, but closes one descriptor first, as another thread may.
extern "C" __attribute__((visibility("default"))) int fstat(int fd, struct stat* status) {
    if (fd == gClosedMeanwhile) {
        close(fd);
    }
    return fstatat(fd, "", status, AT_EMPTY_PATH);
}

namespace korvane::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using tv::TunnelFaults;
using Peer = VideoTunnelWraperPeer;

class VideoTunnel : public TvFixture {
protected:
    VideoTunnel() { setLogMask(1); }

    /// A wrapper with an id and a connection, under a log mask; the log starts after that.
    std::unique_ptr<VideoTunnelWraper> connected(int mask) {
        setLogMask(mask);
        auto wrapper = std::make_unique<VideoTunnelWraper>();
        EXPECT_GE(wrapper->allocTunnelId(), 0);
        EXPECT_TRUE(wrapper->connect());
        mLog.take();
        return wrapper;
    }

    /// Three buffers, 100 to 102. The second has replaced the first on screen: the first can be
    /// dequeued, with a fence that signals one vsync later.
    std::unique_ptr<VideoTunnelWraper> withReleasedBuffer(int mask) {
        auto wrapper = connected(mask);
        EXPECT_TRUE(wrapper->queueBuffer(100, 0));
        EXPECT_TRUE(wrapper->queueBuffer(101, mClock.nowUs() + 25'000));
        EXPECT_TRUE(wrapper->queueBuffer(102, mClock.nowUs() + 1'000'000));
        runFor(16'667);
        runFor(16'667);
        mLog.take();
        return wrapper;
    }

    LogCapture mLog{"VideoTunnelWraper"};
};

TEST_F(VideoTunnel, OpensRefreshesTheMaskAtDebugPriorityAndTakesAllDownAgain) {
    { const VideoTunnelWraper wrapper; }
    EXPECT_THAT(mLog.take(),
                ElementsAre("I ctor VideoTunnelWraper mVideoTunnelFd 0",
                            "I ~VideoTunnelWraper, mConnected = 0", "I tovak_vt_close done!"));
    setLogMask(2);
    { const VideoTunnelWraper wrapper; }
    tv::clearProperties();
    { const VideoTunnelWraper wrapper; }
    setLogMask(0);
    { const VideoTunnelWraper wrapper; }
    const std::string property = "D vendor.korvane.loglevels ";
    EXPECT_THAT(mLog.take(),
                ElementsAre(property + "set = 2\n", property + "is not set used def = 2\n"));
    connected(1).reset();
    EXPECT_THAT(
        mLog.take(),
        ElementsAre("I ~VideoTunnelWraper, mConnected = 1", "I disconnect:331, mQueuedCount:0",
                    "I tovak_vt_send_cmd with ret:0 mVideoTunnelFd:4 mTunnelId:0",
                    "I tovak_vt_disconnect success!", "I tovak_vt_free_id success. mTunnelId:0",
                    "I tovak_vt_close done!"));
    EXPECT_EQ(mTv->tunnel().allocatedIds(), 0);
    EXPECT_EQ(mTv->tunnel().openDevices(), 0);
}

TEST_F(VideoTunnel, LoaderThatIsAskedAgainSaysSoUnderTheMask) {
    for (const int mask : {1, 0}) {
        setLogMask(mask);
        { const VideoTunnelWraper wrapper; }
        for (const bool inited : {true, false}) {
            const Swapped before(gVideoTunnelOps.mInited, inited);
            mLog.take();
            EXPECT_TRUE(gVideoTunnelOps.videoTunnelLibInit() && gVideoTunnelOps.mInited);
            const std::string line =
                inited ? "I videoTunnelLibInit has inited\n" : "I videoTunnelLibInit ok\n";
            EXPECT_EQ(mLog.take(), mask != 0 ? Lines{line} : Lines{});
        }
    }
}

TEST_F(VideoTunnel, WithoutDeviceEveryOperationSaysSoInItsWay) {
    mTv->powerOff();
    auto wrapper = std::make_unique<VideoTunnelWraper>();
    EXPECT_EQ(wrapper->allocTunnelId(), -1);
    EXPECT_TRUE(wrapper->connect());
    EXPECT_FALSE(wrapper->queueBuffer(1, 2));
    int fd = -1;
    EXPECT_FALSE(wrapper->dequeueBuffer(&fd));
    EXPECT_FALSE(wrapper->freeTunnelId());
    long timestamp = -7;
    EXPECT_FALSE(wrapper->getDisplayVsyncAndPeriod(&timestamp, &fd));
    EXPECT_TRUE(wrapper->disconnect());
    wrapper.reset();
    const std::string failed = " failed, mVideoTunnelFd:-19, mTunnelId:-1";
    EXPECT_THAT(mLog.take(),
                ElementsAre("E tovak_vt_open failed! No such device",
                            "I ctor VideoTunnelWraper mVideoTunnelFd -19",
                            "E tovak_vt_alloc_id" + failed, "E tovak_vt_connect" + failed,
                            "E queueBuffer video tunnel queueBuffer" + failed,
                            "E dequeueBuffer video tunnel dequeueBuffer" + failed,
                            "E tovak_vt_free_id" + failed, "I disconnect:331, mQueuedCount:0",
                            "I ~VideoTunnelWraper, mConnected = 0"));
}

TEST_F(VideoTunnel, MissingEntryPointsAreTestedBeforeUse) {
    auto& ops = gVideoTunnelOps;
    ASSERT_TRUE(ops.mInited);
    auto wrapper = connected(1);
    int fd = -1;
    long timestamp = -7;
    {
        const Swapped connect(ops.mConnect, nullptr);
        const Swapped alloc(ops.mAllocId, nullptr);
        const Swapped release(ops.mFreeId, nullptr);
        const Swapped queue(ops.mQueueBuffer, nullptr);
        const Swapped dequeue(ops.mDequeueBuffer, nullptr);
        const Swapped vsync(ops.mGetDisplayVsyncAndPeroid, nullptr);
        EXPECT_TRUE(wrapper->connect());
        EXPECT_FALSE(wrapper->queueBuffer(1, 2));
        EXPECT_FALSE(wrapper->dequeueBuffer(&fd));
        EXPECT_FALSE(wrapper->freeTunnelId());
        EXPECT_EQ(VideoTunnelWraper().allocTunnelId(), -1);
        EXPECT_FALSE(wrapper->getDisplayVsyncAndPeriod(&timestamp, &fd));
    }
    EXPECT_THAT(mLog.take(), testing::Contains(testing::StartsWith("E ")).Times(5));
    {
        const Swapped disconnect(ops.mDisconnect, nullptr);
        EXPECT_TRUE(wrapper->disconnect());
        EXPECT_THAT(mLog.take(), ElementsAre("I disconnect:331, mQueuedCount:0"));
    }
    const Swapped open(ops.mOpen, nullptr);
    const Swapped close(ops.mClose, nullptr);
    { const VideoTunnelWraper unopened; }
    EXPECT_THAT(mLog.take(), ElementsAre("I ctor VideoTunnelWraper mVideoTunnelFd -1",
                                         "I ~VideoTunnelWraper, mConnected = 0"));
    wrapper.reset();
    const Lines log = mLog.take();
    EXPECT_EQ(log.at(log.size() - 2), "E tovak_vt_close nullptr!");
    EXPECT_EQ(log.back(), "I tovak_vt_close done!");
}

TEST_F(VideoTunnel, HoldsOneIdAndOneConnectionWhateverTheTunnelRefuses) {
    VideoTunnelWraper wrapper;
    mLog.take();
    setFault(&TunnelFaults::allocFails);
    EXPECT_EQ(wrapper.allocTunnelId(), -EINVAL);
    setFault(&TunnelFaults::allocFails, false);
    EXPECT_EQ(wrapper.allocTunnelId(), 0);
    EXPECT_EQ(wrapper.allocTunnelId(), -1);
    setFault(&TunnelFaults::connectFails);
    EXPECT_FALSE(wrapper.connect());
    EXPECT_FALSE(Peer::connected(wrapper));
    setFault(&TunnelFaults::connectFails, false);
    EXPECT_TRUE(wrapper.connect());
    EXPECT_TRUE(Peer::connected(wrapper));
    setFault(&TunnelFaults::disconnectFails);
    EXPECT_TRUE(wrapper.disconnect()) << "a refusal is reported as success";
    EXPECT_TRUE(Peer::connected(wrapper));
    setFault(&TunnelFaults::disconnectFails, false);
    {
        const Swapped absent(gVideoTunnelOps.mSendCmd, nullptr);
        EXPECT_TRUE(wrapper.disconnect());
    }
    EXPECT_FALSE(Peer::connected(wrapper));
    setFault(&TunnelFaults::freeFails);
    EXPECT_FALSE(wrapper.freeTunnelId());
    EXPECT_EQ(Peer::tunnelId(wrapper), 0);
    setFault(&TunnelFaults::freeFails, false);
    EXPECT_TRUE(wrapper.freeTunnelId());
    EXPECT_EQ(Peer::tunnelId(wrapper), -1);
    EXPECT_FALSE(wrapper.freeTunnelId());
    EXPECT_THAT(
        mLog.take(),
        ElementsAre("E tovak_vt_alloc_id failed! Invalid argument",
                    "I tovak_vt_alloc_id success. mTunnelId:0",
                    "E tovak_vt_alloc_id failed, mVideoTunnelFd:0, mTunnelId:0",
                    "E tovak_vt_connect failed with 0", "I tovak_vt_connect success!",
                    "I disconnect:331, mQueuedCount:0",
                    "I tovak_vt_send_cmd with ret:0 mVideoTunnelFd:0 mTunnelId:0",
                    "E tovak_vt_disconnect failed with 1", "I disconnect:331, mQueuedCount:0",
                    "I tovak_vt_disconnect success!", "E tovak_vt_free_id failed! Invalid argument",
                    "I tovak_vt_free_id success. mTunnelId:0",
                    "E tovak_vt_free_id failed, mVideoTunnelFd:0, mTunnelId:-1"));
}

// The constant arguments of each call, recorded by entry points that replace the library's.
TEST_F(VideoTunnel, PassesItsConstantsToTheTunnel) {
    static std::vector<std::vector<long>> calls;
    auto wrapper = connected(0);
    constexpr auto record = +[](int fd, int id, int role) {
        return calls.push_back({fd, id, role}), 0;
    };
    const Swapped connect(gVideoTunnelOps.mConnect, record);
    const Swapped disconnect(gVideoTunnelOps.mDisconnect, record);
    const Swapped command(
        gVideoTunnelOps.mSendCmd, +[](int fd, int id, int cmd, int argument) {
            return calls.push_back({fd, id, cmd, argument}), -1;
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

TEST_F(VideoTunnel, QueueCountsWhatTheTunnelTook) {
    Lines counters;
    tv::observeTrace([&](char kind, const std::string& name, int64_t value) {
        counters.push_back(kind + (" " + name) + " " + std::to_string(value));
    });
    connected(0x10)->queueBuffer(1, 2);
    tv::setTraceTagEnabled(true);
    connected(0x07)->queueBuffer(1, 2);
    EXPECT_THAT(counters, IsEmpty()) << "a counter needs the tag and its bit";
    auto wrapper = connected(0x12);
    EXPECT_TRUE(wrapper->queueBuffer(100, 5));
    setFault(&TunnelFaults::queueFails);
    EXPECT_TRUE(wrapper->queueBuffer(101, 6)) << "a refusal is reported as success";
    EXPECT_EQ(Peer::queuedCount(*wrapper), 1);
    EXPECT_THAT(mLog.take(), ElementsAre("D queueBuffer 100 5", "D queueBuffer 100 5, count:1",
                                         "E tovak_vt_queue_buffer failed with 1"));
    EXPECT_THAT(counters, ElementsAre("C vtQueueCntTunnel 1"));
}

TEST_F(VideoTunnel, TakesNothingBackBelowThree) {
    auto wrapper = connected(4);
    int fd = -1;
    for (int count = 0; count <= 3; ++count) {
        EXPECT_FALSE(wrapper->dequeueBuffer(&fd));
        const Lines log = mLog.take();
        EXPECT_EQ(log.at(0), "D dequeueBuffer:373, mQueuedCount:" + std::to_string(count));
        EXPECT_EQ(log.size(), count < 3 ? 1U : 2U);
        EXPECT_EQ(log.back() == "D tovak_vt_dequeue_buffer failed with -11, need deq again",
                  count == 3);
        wrapper->queueBuffer(100 + count, 0);
    }
    EXPECT_EQ(fd, -1);
}

int gFence = -1;

/// A tunnel that returns buffer 100 with the fence that the test chose.
int dequeueWithFence(int /*device*/, int /*tunnelId*/, int* bufferFd, int* fenceFd) {
    *bufferFd = 100;
    *fenceFd = gFence;
    return 0;
}

/// A descriptor of a deleted file, open for reading and without flags: a message queue, because
/// regular files have the large-file flag.
int deletedFile() {
    const std::string name = "/korvane-fence-" + std::to_string(getpid());
    const int fd = mq_open(name.c_str(), O_RDONLY | O_CREAT | O_EXCL, 0600, nullptr);
    mq_unlink(name.c_str());
    return fd;
}

TEST_F(VideoTunnel, TakesAReleasedBufferBackOnceItsFenceHasSignalled) {
    const int closed = deletedFile();
    const int closedToo = deletedFile();
    const struct {
        const char* what;
        bool TunnelFaults::*fault;
        int fence;  ///< replaces the tunnel's; -1: the tunnel's own
        bool taken;
        int leftOpen;  ///< open descriptors: the TV's end of a fence, and one that is no fence
        std::string lastLine;  ///< empty: the log is off
    } kCases[] = {
        {"signalled", nullptr, -1, true, 0, "D dequeueBuffer count:2"},
        {"none", &TunnelFaults::noFences, -1, true, 0, "D dequeueBuffer count:2"},
        {"hangs", &TunnelFaults::fenceNeverSignals, -1, false, 1,
         "I Failed to wait for fence: fd: 100 fence_fd [0-9]+ err : Timer expired \\(-62\\)"},
        {"opened for writing", &TunnelFaults::fenceWrongMode, -1, false, 1,
         "D fcntl error : .* \\([0-9]+\\)!\n"},
        {"not open", nullptr, 9999, false, 0, "D fcntl error : Unknown error -9 \\(9\\)!\n"},
        {"deleted", nullptr, deletedFile(), false, 0, "D File was deleted!\n"},
        {"closed meanwhile", nullptr, closed, false, -1, "D fstat error : .* -9 \\(9\\)!\n"},
        {"hangs, no log", &TunnelFaults::fenceNeverSignals, -1, false, 1, ""},
        {"not open, no log", nullptr, 9999, false, 0, ""},
        {"deleted, no log", nullptr, deletedFile(), false, 0, ""},
        {"closed meanwhile, no log", nullptr, closedToo, false, -1, ""},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        setFaults();
        if (c.fault != nullptr) {
            setFault(c.fault);
        }
        auto wrapper = withReleasedBuffer(c.lastLine.empty() ? 0 : 3);
        Peer::setFenceTimeoutMs(wrapper.get(), 5);
        runFor(16'667);
        const auto own = gVideoTunnelOps.mDequeueBuffer;
        gFence = c.fence;
        gClosedMeanwhile = c.leftOpen < 0 ? c.fence : -1;
        const Swapped handingOut(gVideoTunnelOps.mDequeueBuffer,
                                 c.fence >= 0 ? dequeueWithFence : own);
        const int64_t before = openDescriptors();
        int fd = -1;
        EXPECT_EQ(wrapper->dequeueBuffer(&fd), c.taken);
        EXPECT_EQ(fd, 100);
        EXPECT_EQ(Peer::queuedCount(*wrapper), c.taken ? 2 : 3)
            << "a buffer that is not returned stays counted";
        EXPECT_EQ(openDescriptors(), before + c.leftOpen);
        const Lines log = mLog.take();
        int fence = c.fence;
        if (c.lastLine.empty()) {
            EXPECT_THAT(log, IsEmpty());
        } else {
            EXPECT_THAT(log, ElementsAre(MatchesRegex("D dequeueBuffer 100 -?[0-9]+"),
                                         MatchesRegex(c.lastLine)));
            fence = std::stoi(log.at(0).substr(log[0].rfind(' ')));
            EXPECT_EQ(fence == -1, c.fault == &TunnelFaults::noFences);
        }
        if (c.fault == &TunnelFaults::fenceWrongMode || c.fence >= 0) {
            EXPECT_EQ(close(fence) == 0, c.fence != 9999 && c.leftOpen >= 0)
                << "a descriptor that is no fence stays open";
        }
    }
}

TEST_F(VideoTunnel, VsyncQuery) {
    auto wrapper = connected(4);
    mClock.advanceUs(100'000);
    long timestamp = -7;
    int period = -8;
    EXPECT_TRUE(wrapper->getDisplayVsyncAndPeriod(&timestamp, &period));
    EXPECT_EQ(timestamp, mTv->display().lastVsyncAt(mClock.nowNs()).timeNs);
    EXPECT_EQ(period, 16'666'666);
    setFault(&TunnelFaults::vsyncQueryFails);
    long untouched = -7;
    EXPECT_FALSE(wrapper->getDisplayVsyncAndPeriod(&untouched, &period));
    EXPECT_EQ(untouched, -7);
    EXPECT_THAT(mLog.take(),
                ElementsAre("D getDisplayVsyncAndPeroid vsyncTimestamp:" +
                                std::to_string(timestamp) + ", vsyncTimestamp:16666666",
                            "E tovak_vt_getDisplayVsyncAndPeroid failed with 1"));
}

}  // namespace
}  // namespace korvane::test
