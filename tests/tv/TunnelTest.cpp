// SPDX-License-Identifier: Apache-2.0
// The tunnel's scan-out rules, read from its record. The test sets the time; vsync k is at k * 20
// ms.
#include "tv/Tunnel.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <map>

#include "tests/support/TvFixture.h"

namespace korvane::tv {
namespace {

using test::openDescriptors;
using testing::HasSubstr;
using Frames = std::vector<int64_t>;

constexpr int64_t kPeriodNs = 20'000'000;
constexpr int64_t kPeriodUs = kPeriodNs / 1000;
constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

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
    int picture(int64_t frameNo) {
        if (pictures.count(frameNo) == 0) {
            pictures[frameNo] = memfd_create("picture", MFD_CLOEXEC | MFD_ALLOW_SEALING);
            EXPECT_EQ(fcntl(pictures[frameNo], F_ADD_SEALS, seals), 0);
        }
        return pictures[frameNo];
    }
    void write(int fd, int64_t frameNo) {
        PictureHeader header;
        header.frameNo = frameNo;
        header.mediaTimeUs = frameNo * 40'000;
        ASSERT_EQ(pwrite(fd, &header, sizeof(header), 0), ssize_t{sizeof(header)});
    }
    /// Queues a picture that is due at vsync `dueVsync`, at vsync `atVsync`; fractions allowed.
    int queue(int64_t frameNo, double dueVsync, double atVsync = -0.5) {
        write(picture(frameNo), frameNo);
        return tunnel.queueBuffer(device, id, picture(frameNo), -1,
                                  static_cast<int64_t>(dueVsync * static_cast<double>(kPeriodUs)),
                                  static_cast<int64_t>(atVsync * static_cast<double>(kPeriodNs)));
    }
    void vsyncs(int64_t from, int64_t to) {
        for (int64_t k = from; k <= to; ++k) {
            tunnel.scanOut({k, k * kPeriodNs}, {k + 1, (k + 1) * kPeriodNs});
            tunnel.signalFences(k * kPeriodNs);
        }
    }
    void vsync(int64_t k) { vsyncs(k, k); }
    struct Taken {
        int result = 0;
        int64_t frameNo = -1;
        int fence = -1;
    };
    Taken take() {
        Taken taken;
        int fd = -1;
        taken.result = tunnel.dequeueBuffer(device, id, &fd, &taken.fence, 0);
        for (const auto& [frame, each] : pictures) {
            taken.frameNo = taken.result == 0 && each == fd ? frame : taken.frameNo;
        }
        return taken;
    }
    void takeBack() { close(take().fence); }
    /// Frame, fate and dwell in vsyncs of each buffer in the record: "0 shown 3".
    std::string record() {
        std::string text;
        for (const BufferRecord& buffer : tunnel.record(id)) {
            text += (text.empty() ? "" : ", ") + std::to_string(buffer.frameNo) + " " +
                    toString(buffer.fate) + " " + std::to_string(buffer.dwellVsyncs);
        }
        return text;
    }
    BufferRecord frame(size_t serial) { return tunnel.record().at(serial); }

    Display display{DisplayConfig{50.0, 0, 0, 0, 1}};
    Tunnel tunnel{TunnelConfig{4, 2}, display};
    int device = tunnel.open();
    int id = -1;
    int seals = 0;
    std::map<int64_t, int> pictures;
};

TEST_F(TunnelTest, NewestDueIsShownTheOthersAreSupersededAndAFrontNotDueHoldsTheRest) {
    queue(0, 0);
    queue(1, 1);
    queue(2, 2);
    queue(3, 2.01);
    vsync(2);
    EXPECT_EQ(record(), "0 superseded 0, 1 superseded 0, 2 on screen 1, 3 waiting 0");
    EXPECT_EQ(frame(2).firstVsync.index, 2);
    for (const int64_t expected : {0, 1}) {
        const Taken taken = take();
        EXPECT_EQ(taken.frameNo, expected);
        EXPECT_EQ(taken.fence, -1) << "nothing ever read a superseded buffer";
    }
    EXPECT_EQ(take().result, -EAGAIN);
    queue(4, 9, 2.5);
    queue(5, 4, 2.5);
    vsyncs(3, 8);
    EXPECT_THAT(record(), HasSubstr("3 on screen 6, 4 waiting 0, 5 waiting 0"));
    EXPECT_THAT(tunnel.dump(), HasSubstr("on screen: frame 3 since vsync 3"));
    EXPECT_THAT(tunnel.dump(), HasSubstr("waiting: frame 4, due at 180000 us"));
    vsync(9);
    EXPECT_THAT(record(), HasSubstr("3 shown 6, 4 superseded 0, 5 on screen 1"));
}

TEST_F(TunnelTest, ReplacedBufferIsReleasedWithAFenceForTheNextVsync) {
    queue(0, 0);
    queue(1, 3);
    queue(2, 4);
    vsyncs(0, 3);
    EXPECT_EQ(record(), "0 shown 3, 1 on screen 1, 2 waiting 0");
    EXPECT_EQ(frame(0).releasedNs, 3 * kPeriodNs);
    EXPECT_EQ(frame(0).fenceSignalNs, 4 * kPeriodNs);
    const Taken taken = take();
    ASSERT_EQ(taken.frameNo, 0);
    EXPECT_EQ(fcntl(taken.fence, F_GETFL), 0);
    EXPECT_EQ(tunnel.signalFences(4 * kPeriodNs - 1), 4 * kPeriodNs);
    EXPECT_FALSE(signalled(taken.fence));
    vsyncs(4, 5);
    EXPECT_TRUE(signalled(taken.fence));
    EXPECT_EQ(tunnel.signalFences(5 * kPeriodNs), kNever);
    close(taken.fence);
    TunnelFaults faults;
    faults.fenceDelayNs = 1;
    tunnel.setFaults(faults);
    queue(3, 6);
    vsync(6);
    takeBack();
    const Taken late = take();
    vsync(7);
    EXPECT_FALSE(signalled(late.fence));
    tunnel.disconnect(device, id, 7 * kPeriodNs);
    EXPECT_TRUE(signalled(late.fence));
    close(late.fence);
}

TEST_F(TunnelTest, WhatCountsAsDue) {
    const int64_t nowNs = 1'000 * kPeriodNs + 1;
    const int64_t nowUs = nowNs / 1000;
    const struct {
        const char* what;
        int64_t presentationUs;
        bool shownAtNextVsync;
    } kCases[] = {{"in nanoseconds: at once", nowNs, true},
                  {"at the vsync exactly", 1001 * kPeriodUs, true},
                  {"a microsecond after it", 1001 * kPeriodUs + 1, false},
                  {"before time began", -1, true},
                  {"ten seconds ahead", nowUs + kNoScheduleAheadUs, false},
                  {"more than that", nowUs + kNoScheduleAheadUs + 1, true},
                  {"the end of time", kNever, true}};
    for (const auto& due : kCases) {
        SCOPED_TRACE(due.what);
        const size_t serial = tunnel.record().size();
        ASSERT_EQ(tunnel.queueBuffer(device, id, -1, -1, due.presentationUs, nowNs), 0);
        vsync(1001);
        EXPECT_EQ(frame(serial).fate == BufferFate::OnScreen, due.shownAtNextVsync);
        EXPECT_EQ(frame(serial).frameNo, -1) << "the descriptor has no picture";
        tunnel.disconnect(device, id, nowNs);
        tunnel.connect(device, id);
    }
}

TEST_F(TunnelTest, LateDisplayThreadChangesNothing) {
    queue(0, 0);
    queue(1, 1, 0.9);
    queue(2, 1, 1.1);  // due at vsync 1, but came after it
    vsyncs(0, 2);      // all of them run now, after everything was queued
    EXPECT_EQ(record(), "0 shown 1, 1 shown 1, 2 on screen 1");
    EXPECT_EQ(frame(1).firstVsync.index, 1);
}

/// Parameter: the seals of the memory files.
class TunnelMemoryTest : public TunnelTest, public testing::WithParamInterface<int> {
protected:
    TunnelMemoryTest() { seals = GetParam(); }
};
INSTANTIATE_TEST_SUITE_P(Memory, TunnelMemoryTest, testing::Values(0, F_SEAL_SHRINK));

TEST_P(TunnelMemoryTest, OverwrittenWhileThePanelReadsIsCaught) {
    const auto overwritten = [&] {
        Frames frames;
        for (const BufferRecord& buffer : tunnel.record()) {
            if (buffer.overwrittenOnScreen) {
                frames.push_back(buffer.frameNo);  // as it was when queued
            }
        }
        return frames;
    };
    queue(0, 0);
    queue(1, 2);
    queue(2, 3);
    vsyncs(0, 2);  // frame 0 is replaced and still read until vsync 3
    EXPECT_EQ(overwritten(), Frames{});
    if (ftruncate(pictures[0], 0) != 0) {
        write(pictures[0], 77);  // it cannot shrink
    }
    vsync(3);
    EXPECT_EQ(overwritten(), Frames{0});
    write(pictures[2], 78);  // on screen until vsync 5, read until vsync 6
    vsync(4);
    write(pictures[1], 79);  // its fence has signalled
    queue(3, 5, 4.5);
    vsync(5);
    ASSERT_EQ(dup2(STDERR_FILENO, pictures[3]), pictures[3]);  // the number is another file now
    vsync(6);
    EXPECT_EQ(overwritten(), (Frames{0, 2}));
}

TEST_F(TunnelTest, DisconnectGivesUpEverythingAndLeaksNothing) {
    for (int64_t i = 0; i < 4; ++i) {
        picture(i);
    }
    const int64_t before = openDescriptors();
    for (int64_t i = 0; i < 4; ++i) {
        EXPECT_EQ(queue(i, static_cast<double>(i)), 0);
    }
    vsyncs(0, 2);
    EXPECT_EQ(queue(0, 4), -ENOBUFS) << "released, but not taken back";
    takeBack();
    const Taken second = take();
    EXPECT_EQ(tunnel.heldBuffers(id), 2);
    EXPECT_FALSE(signalled(second.fence));
    EXPECT_EQ(tunnel.disconnect(device, id, 2 * kPeriodNs + 5), 0);
    EXPECT_TRUE(signalled(second.fence));
    EXPECT_EQ(frame(1).fenceSignalNs, 2 * kPeriodNs + 5);
    close(second.fence);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(record(), "0 shown 1, 1 shown 1, 2 shown 1, 3 discarded by disconnect 0");
    EXPECT_EQ(frame(2).releasedNs, 2 * kPeriodNs + 5);
    EXPECT_EQ(tunnel.heldBuffers(id), 0);
    EXPECT_EQ(queue(5, 5), -ENOTCONN);
    EXPECT_EQ(tunnel.disconnect(device, id, 0), -ENOTCONN);
}

TEST_F(TunnelTest, IdsBelongToTheirDeviceAreLimitedAndNeverComeAgain) {
    const int otherDevice = tunnel.open();
    int second = -1;
    int third = -1;
    EXPECT_EQ(tunnel.allocId(otherDevice, &second), 0);
    EXPECT_EQ(tunnel.allocId(otherDevice, &third), -ENOSPC);
    EXPECT_EQ(tunnel.connect(device, second), -EINVAL);
    EXPECT_EQ(tunnel.connect(device, id), -EBUSY);
    EXPECT_EQ(tunnel.freeId(otherDevice, second), 0);
    EXPECT_EQ(tunnel.allocId(otherDevice, &third), 0);
    EXPECT_TRUE(third != second && second != id);
    queue(0, 0);
    EXPECT_EQ(tunnel.close(device), 0);
    EXPECT_EQ(tunnel.allocatedIds(), 1);
    EXPECT_EQ(record(), "0 discarded by disconnect 0");
    EXPECT_EQ(tunnel.close(device), -EBADF);
    EXPECT_EQ(tunnel.allocId(device, &third), -EBADF);
}

TEST_F(TunnelTest, FinishedRecordsAreTakenFromTheFront) {
    const auto taken = [&] {
        Frames frames;
        for (const BufferRecord& buffer : tunnel.takeFinished(id)) {
            EXPECT_NE(buffer.releasedNs, 0);
            frames.push_back(buffer.frameNo);
        }
        return frames;
    };
    queue(0, 0);
    queue(1, 1);
    queue(2, 2);
    queue(3, 2);
    vsync(1);
    takeBack();
    EXPECT_EQ(taken(), Frames{0});
    vsync(2);
    EXPECT_EQ(taken(), Frames{}) << "frame 1 is not taken back";
    takeBack();
    EXPECT_EQ(taken(), Frames{}) << "the panel reads it, its fence is pending";
    takeBack();
    EXPECT_EQ(taken(), Frames{}) << "frame 2, superseded and back, waits behind frame 1";
    vsync(3);
    EXPECT_EQ(taken(), (Frames{1, 2}));
    TunnelFaults faults;
    faults.fenceNeverSignals = true;
    tunnel.setFaults(faults);
    queue(4, 5);
    vsync(5);
    takeBack();
    vsync(6);
    EXPECT_EQ(taken(), Frames{}) << "its fence never signals";
    EXPECT_EQ(record(), "3 shown 2, 4 on screen 2");
    EXPECT_EQ(tunnel.freeId(device, id), 0);
    EXPECT_EQ(taken(), (Frames{3, 4})) << "the record outlives its id";
}

}  // namespace
}  // namespace korvane::tv
