// The tunnel's scan-out rules, read from its record. Time is the test's; vsync k is at k * 20 ms.
#include "tv/Tunnel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <limits>
#include <map>

#include "tests/support/ManualClock.h"
#include "tv/Tv.h"

namespace korvane::tv {
namespace {

constexpr int64_t kPeriodNs = 20'000'000;
constexpr int64_t kPeriodUs = kPeriodNs / 1000;

int64_t openDescriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return std::distance(begin(entries), end(entries));
}

bool signalled(int fence) {
    pollfd poller{fence, POLLIN, 0};
    return poll(&poller, 1, 0) == 1;
}

class TunnelTest : public testing::Test {
protected:
    TunnelTest() {
        EXPECT_EQ(tunnel.allocId(device, &id), 0);
        EXPECT_EQ(tunnel.connect(device, id), 0);
    }
    ~TunnelTest() override {
        for (const auto& [frame, fd] : pictures) {
            close(fd);
        }
    }

    void writePicture(int fd, int64_t frameNo) {
        PictureHeader header;
        header.frameNo = frameNo;
        header.mediaTimeUs = frameNo * 40'000;
        ASSERT_EQ(pwrite(fd, &header, sizeof(header), 0), ssize_t{sizeof(header)});
    }
    /// Queues a picture due at a vsync (fractions allowed) at the time of another.
    int queue(int64_t frameNo, double dueVsync, double atVsync = -0.5) {
        if (pictures.count(frameNo) == 0) {
            pictures[frameNo] = memfd_create("picture", MFD_CLOEXEC);
        }
        const int fd = pictures[frameNo];
        writePicture(fd, frameNo);
        return tunnel.queueBuffer(device, id, fd, -1,
                                  static_cast<int64_t>(dueVsync * static_cast<double>(kPeriodUs)),
                                  static_cast<int64_t>(atVsync * static_cast<double>(kPeriodNs)));
    }
    void vsync(int64_t k) {
        tunnel.scanOut({k, k * kPeriodNs}, {k + 1, (k + 1) * kPeriodNs});
        tunnel.signalFences(k * kPeriodNs);
    }
    struct Taken {
        int result = 0;
        int64_t frameNo = -1;
        int fence = -1;
    };
    Taken take() {
        Taken taken;
        int fd = -1;
        taken.result = tunnel.dequeueBuffer(device, id, &fd, &taken.fence, 0);
        for (const auto& [frame, picture] : pictures) {
            taken.frameNo = taken.result == 0 && picture == fd ? frame : taken.frameNo;
        }
        return taken;
    }
    BufferRecord frame(size_t serial) { return tunnel.record().at(serial); }

    Display display{DisplayConfig{50.0, 0, 0, 0, 1}};
    Tunnel tunnel{TunnelConfig{4, 2}, display};
    int device = tunnel.open();
    int id = -1;
    std::map<int64_t, int> pictures;
};

TEST_F(TunnelTest, NewestDueIsShownTheOthersAreSuperseded) {
    queue(0, 0);
    queue(1, 1);
    queue(2, 2);
    queue(3, 2.01);
    vsync(2);
    EXPECT_EQ(frame(0).fate, BufferFate::Superseded);
    EXPECT_EQ(frame(1).fate, BufferFate::Superseded);
    EXPECT_EQ(frame(2).fate, BufferFate::OnScreen);
    EXPECT_EQ(frame(2).firstVsync.index, 2);
    EXPECT_EQ(frame(3).fate, BufferFate::Waiting);
    for (const int64_t expected : {0, 1}) {
        const Taken taken = take();
        EXPECT_EQ(taken.frameNo, expected);
        EXPECT_EQ(taken.fence, -1) << "nothing ever read a superseded buffer";
    }
    EXPECT_EQ(take().result, -EAGAIN);
}

TEST_F(TunnelTest, FrontThatIsNotDueHoldsWhatIsBehindIt) {
    queue(0, 5);
    queue(1, 1);
    vsync(2);
    EXPECT_EQ(frame(1).fate, BufferFate::Waiting);
    vsync(5);
    EXPECT_EQ(frame(0).fate, BufferFate::Superseded);
    EXPECT_EQ(frame(1).fate, BufferFate::OnScreen);
}

TEST_F(TunnelTest, ReplacedBufferIsReleasedWithAFenceForTheNextVsync) {
    queue(0, 0);
    queue(1, 3);
    for (int64_t k = 0; k <= 3; ++k) {
        vsync(k);
    }
    EXPECT_EQ(frame(0).fate, BufferFate::Shown);
    EXPECT_EQ(frame(0).dwellVsyncs, 3);
    EXPECT_EQ(frame(0).releasedNs, 3 * kPeriodNs);
    EXPECT_EQ(frame(0).fenceSignalNs, 4 * kPeriodNs);
    const Taken taken = take();
    ASSERT_EQ(taken.frameNo, 0);
    EXPECT_EQ(fcntl(taken.fence, F_GETFL), 0);
    EXPECT_FALSE(signalled(taken.fence));
    EXPECT_EQ(tunnel.signalFences(4 * kPeriodNs - 1), 4 * kPeriodNs);
    EXPECT_FALSE(signalled(taken.fence));
    vsync(4);
    EXPECT_TRUE(signalled(taken.fence));
    EXPECT_EQ(tunnel.signalFences(4 * kPeriodNs), std::numeric_limits<int64_t>::max());
    close(taken.fence);
    EXPECT_EQ(frame(1).dwellVsyncs, 2) << "counting while on screen";
}

TEST_F(TunnelTest, FenceTakenAfterItsTimeHasSignalledAlready) {
    queue(0, 0);
    queue(1, 1);
    vsync(0);
    vsync(1);
    vsync(2);
    const Taken taken = take();
    EXPECT_TRUE(signalled(taken.fence));
    close(taken.fence);
}

struct DueCase {
    const char* what;
    int64_t presentationUs;
    bool shownAtNextVsync;
};

TEST_F(TunnelTest, WhatCountsAsDue) {
    const int64_t nowNs = 1'000 * kPeriodNs + 1;
    const int64_t nowUs = nowNs / 1000;
    int64_t frameNo = 0;
    for (const DueCase& due : {DueCase{"in nanoseconds: no schedule", nowNs, true},
                               {"at the vsync exactly", 1001 * kPeriodUs, true},
                               {"a microsecond after it", 1001 * kPeriodUs + 1, false},
                               {"long past", 0, true},
                               {"before time began", -1, true},
                               {"ten seconds ahead", nowUs + kNoScheduleAheadUs, false},
                               {"more than that", nowUs + kNoScheduleAheadUs + 1, true},
                               {"the end of time", std::numeric_limits<int64_t>::max(), true}}) {
        SCOPED_TRACE(due.what);
        Tunnel one(TunnelConfig{}, display);
        int oneId = -1;
        const int oneDevice = one.open();
        ASSERT_EQ(one.allocId(oneDevice, &oneId), 0);
        ASSERT_EQ(one.connect(oneDevice, oneId), 0);
        ASSERT_EQ(one.queueBuffer(oneDevice, oneId, -1, -1, due.presentationUs, nowNs), 0);
        one.scanOut({1001, 1001 * kPeriodNs}, {1002, 1002 * kPeriodNs});
        EXPECT_EQ(one.record()[0].fate == BufferFate::OnScreen, due.shownAtNextVsync);
        EXPECT_EQ(one.record()[0].frameNo, -1) << "a descriptor that is no picture";
        ++frameNo;
    }
}

TEST_F(TunnelTest, LateDisplayThreadChangesNothing) {
    queue(0, 0);
    queue(1, 1, 0.9);
    queue(2, 1, 1.1);  // due at vsync 1, but came after it
    for (int64_t k = 0; k <= 2; ++k) {
        vsync(k);  // all of them run now, after everything was queued
    }
    EXPECT_EQ(frame(1).fate, BufferFate::Shown);
    EXPECT_EQ(frame(1).firstVsync.index, 1);
    EXPECT_EQ(frame(1).dwellVsyncs, 1);
    EXPECT_EQ(frame(2).firstVsync.index, 2);
}

TEST_F(TunnelTest, OverwrittenWhileThePanelReadsIsCaught) {
    queue(0, 0);
    queue(1, 2);
    queue(2, 3);
    vsync(0);
    vsync(1);
    EXPECT_FALSE(frame(0).overwrittenOnScreen);
    vsync(2);  // frame 0 is replaced and still read until vsync 3
    writePicture(pictures[0], 77);
    vsync(3);
    EXPECT_TRUE(frame(0).overwrittenOnScreen);
    EXPECT_EQ(frame(0).frameNo, 0) << "the record keeps what was queued";
    EXPECT_FALSE(frame(1).overwrittenOnScreen);
    writePicture(pictures[2], 78);
    vsync(4);
    EXPECT_TRUE(frame(2).overwrittenOnScreen);
    writePicture(pictures[1], 79);  // its fence has signalled
    vsync(5);
    EXPECT_FALSE(frame(1).overwrittenOnScreen);
}

TEST_F(TunnelTest, ClosedAndReusedDescriptorDoesNotMisleadThePanel) {
    queue(0, 0);
    vsync(0);
    ASSERT_EQ(dup2(STDERR_FILENO, pictures[0]), pictures[0]);
    vsync(1);
    EXPECT_FALSE(frame(0).overwrittenOnScreen);
}

TEST_F(TunnelTest, CapacityCountsWhatIsNotTakenBack) {
    for (int64_t i = 0; i < 4; ++i) {
        EXPECT_EQ(queue(i, static_cast<double>(i)), 0);
    }
    EXPECT_EQ(queue(4, 4), -ENOBUFS);
    vsync(0);
    vsync(1);
    EXPECT_EQ(queue(4, 4), -ENOBUFS) << "released, but not taken back";
    close(take().fence);
    EXPECT_EQ(queue(4, 4), 0);
    EXPECT_EQ(tunnel.heldBuffers(id), 4);
}

TEST_F(TunnelTest, DisconnectGivesUpEverythingAndLeaksNothing) {
    for (int64_t i = 0; i < 4; ++i) {
        pictures.emplace(i, memfd_create("picture", MFD_CLOEXEC));
    }
    const int64_t before = openDescriptors();
    for (int64_t i = 0; i < 4; ++i) {
        queue(i, static_cast<double>(i));
    }
    for (int64_t k = 0; k <= 2; ++k) {
        vsync(k);
    }
    const Taken taken = take();  // frame 0; frame 1 stays released, 2 on screen, 3 waiting
    const Taken second = take();
    EXPECT_FALSE(signalled(second.fence));
    EXPECT_EQ(tunnel.disconnect(device, id, 2 * kPeriodNs + 5), 0);
    EXPECT_TRUE(signalled(second.fence));
    EXPECT_EQ(frame(1).fenceSignalNs, 2 * kPeriodNs + 5);
    close(taken.fence);
    close(second.fence);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(frame(2).fate, BufferFate::Shown);
    EXPECT_EQ(frame(2).releasedNs, 2 * kPeriodNs + 5);
    EXPECT_EQ(frame(3).fate, BufferFate::DiscardedByDisconnect);
    EXPECT_EQ(tunnel.heldBuffers(id), 0);
    EXPECT_EQ(queue(5, 5), -ENOTCONN);
    EXPECT_EQ(tunnel.disconnect(device, id, 0), -ENOTCONN);
}

TEST_F(TunnelTest, ClosingADeviceFreesItsIds) {
    queue(0, 0);
    EXPECT_EQ(tunnel.close(device), 0);
    EXPECT_EQ(tunnel.allocatedIds(), 0);
    EXPECT_EQ(tunnel.openDevices(), 0);
    EXPECT_EQ(frame(0).fate, BufferFate::DiscardedByDisconnect);
    EXPECT_EQ(tunnel.close(device), -EBADF);
    int other = -1;
    EXPECT_EQ(tunnel.allocId(device, &other), -EBADF);
}

TEST_F(TunnelTest, IdsBelongToTheirDeviceAreLimitedAndNeverComeAgain) {
    const int otherDevice = tunnel.open();
    int second = -1;
    int third = -1;
    EXPECT_EQ(tunnel.allocId(otherDevice, &second), 0);
    EXPECT_NE(second, id);
    EXPECT_EQ(tunnel.allocId(otherDevice, &third), -ENOSPC);
    EXPECT_EQ(tunnel.connect(device, second), -EINVAL);
    EXPECT_EQ(tunnel.connect(device, id), -EBUSY);
    EXPECT_EQ(tunnel.freeId(otherDevice, second), 0);
    EXPECT_EQ(tunnel.allocId(otherDevice, &third), 0);
    EXPECT_NE(third, second);
    EXPECT_EQ(tunnel.connectedTunnels(), 1);
}

TEST_F(TunnelTest, EachEntryPointCanFail) {
    TunnelFaults faults;
    faults.openFails = faults.allocFails = faults.freeFails = faults.connectFails = true;
    faults.disconnectFails = faults.queueFails = faults.dequeueFails = true;
    faults.vsyncQueryFails = true;
    tunnel.setFaults(faults);
    int other = 99;
    VsyncReport report{7, 7};
    EXPECT_EQ(tunnel.open(), -ENODEV);
    EXPECT_LT(tunnel.allocId(device, &other), 0);
    EXPECT_EQ(other, 99);
    EXPECT_LT(tunnel.freeId(device, id), 0);
    EXPECT_EQ(tunnel.connect(device, id), -EINVAL);
    EXPECT_LT(tunnel.disconnect(device, id, 0), 0);
    EXPECT_LT(queue(0, 0), 0);
    EXPECT_EQ(take().result, -EINVAL);
    EXPECT_LT(tunnel.displayVsync(device, id, kPeriodNs, &report), 0);
    EXPECT_EQ(report.periodNs, 7);
    EXPECT_EQ(tunnel.connectedTunnels(), 1) << "failing, it did nothing";
    tunnel.setFaults({});
    EXPECT_EQ(tunnel.displayVsync(device, id, kPeriodNs + 1, &report), 0);
    EXPECT_EQ(report.timestampNs, kPeriodNs);
}

struct FenceCase {
    const char* what;
    void (*set)(TunnelFaults&);
    bool fence;
    bool signalsAtNextVsync;
    int flags;
};

TEST_F(TunnelTest, FenceFaults) {
    const int64_t before = openDescriptors();
    int64_t k = 0;
    for (const FenceCase& fault :
         {FenceCase{"none", [](TunnelFaults&) {}, true, true, O_RDONLY},
          {"late", [](TunnelFaults& f) { f.fenceDelayNs = 1; }, true, false, O_RDONLY},
          {"never", [](TunnelFaults& f) { f.fenceNeverSignals = true; }, true, false, O_RDONLY},
          {"absent", [](TunnelFaults& f) { f.noFences = true; }, false, false, 0},
          {"mode", [](TunnelFaults& f) { f.fenceWrongMode = true; }, true, true, O_RDWR}}) {
        SCOPED_TRACE(fault.what);
        TunnelFaults faults;
        fault.set(faults);
        tunnel.setFaults(faults);
        for (int i = 0; i < 2; ++i, ++k) {
            queue(0, static_cast<double>(k), static_cast<double>(k) - 0.5);
            vsync(k);
        }
        const Taken taken = take();
        EXPECT_EQ(taken.fence >= 0, fault.fence);
        if (taken.fence >= 0) {
            EXPECT_EQ(fcntl(taken.fence, F_GETFL) & O_ACCMODE, fault.flags);
            EXPECT_FALSE(signalled(taken.fence));
            vsync(k);
            EXPECT_EQ(signalled(taken.fence), fault.signalsAtNextVsync);
        }
        tunnel.disconnect(device, id, k * kPeriodNs);
        EXPECT_EQ(taken.fence < 0 || signalled(taken.fence), true);
        close(taken.fence);
        ASSERT_EQ(tunnel.connect(device, id), 0);
    }
    EXPECT_EQ(openDescriptors(), before + 1) << "the picture alone";
}

TEST_F(TunnelTest, DumpTellsWhereBuffersAre) {
    queue(41, 0);
    queue(42, 3);
    vsync(0);
    const std::string text = tunnel.dump();
    EXPECT_NE(text.find("on screen: frame 41 since vsync 0"), std::string::npos) << text;
    EXPECT_NE(text.find("waiting: frame 42, due at 60000 us"), std::string::npos) << text;
}

}  // namespace
}  // namespace korvane::tv
