// The switch, the display thread, and the display driven by hand.
#include "tv/Tv.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "tests/support/ManualClock.h"

namespace korvane::tv {
namespace {

TvConfig byHand() {
    TvConfig config;
    config.displayThread = false;
    return config;
}

struct Producer {
    explicit Producer(Tv& tv) : tunnel(tv.tunnel()), device(tunnel.open()) {
        EXPECT_EQ(tunnel.allocId(device, &id), 0);
        EXPECT_EQ(tunnel.connect(device, id), 0);
    }
    int queue(int64_t presentationUs) {
        return tunnel.queueBuffer(device, id, -1, -1, presentationUs, nowNs());
    }
    Tunnel& tunnel;
    int device;
    int id = -1;
};

TEST(Tv, OneIsCurrentAtATimeUntilItIsOff) {
    EXPECT_EQ(Tv::current(), nullptr);
    const auto first = Tv::powerOn(byHand());
    EXPECT_EQ(Tv::current(), first);
    auto second = Tv::powerOn(byHand());
    first->powerOff();
    EXPECT_EQ(Tv::current(), second) << "an earlier one's end changes nothing";
    second->powerOff();
    EXPECT_EQ(Tv::current(), nullptr);
    second = Tv::powerOn(byHand());
    second.reset();
    EXPECT_EQ(Tv::current(), nullptr);
}

TEST(Tv, ScansOutEveryVsyncOnceFromTheMomentItWasSwitchedOn) {
    test::ManualClock clock;
    const auto tv = Tv::powerOn(byHand());
    EXPECT_EQ(tv->display().vsync(0).timeNs, clock.nowNs());
    Producer producer(*tv);
    producer.queue(0);
    clock.advanceUs(1'000'000);
    tv->runVsyncs(clock.nowNs());
    tv->runVsyncs(clock.nowNs());
    EXPECT_EQ(tv->tunnel().record()[0].dwellVsyncs, 61);
    producer.queue(clock.nowUs());
    clock.advanceUs(1'000'000);
    tv->runVsyncs(clock.nowNs());
    EXPECT_EQ(tv->tunnel().record()[0].dwellVsyncs, 61);
    EXPECT_EQ(tv->tunnel().record()[1].firstVsync.index, 61);
}

TEST(Tv, ModeChangeAppliesToTheScanOut) {
    test::ManualClock clock;
    const auto tv = Tv::powerOn(byHand());
    Producer producer(*tv);
    producer.queue(0);
    tv->display().changeMode(clock.nowNs() + 1'000'000'000, 50);
    clock.advanceUs(2'000'000);
    tv->runVsyncs(clock.nowNs());
    EXPECT_EQ(tv->tunnel().record()[0].dwellVsyncs, 60 + 51);
}

TEST(Tv, ThreadShowsReleasesAndSignals) {
    const auto tv = Tv::powerOn();
    Producer producer(*tv);
    TunnelFaults faults;
    faults.fenceDelayNs = 1'000'000;  // between two vsyncs: the thread wakes for it, too
    tv->tunnel().setFaults(faults);
    EXPECT_EQ(producer.queue(0), 0);
    EXPECT_TRUE(
        test::eventually([&] { return tv->tunnel().record()[0].fate == BufferFate::OnScreen; }));
    EXPECT_EQ(producer.queue(nowNs()), 0) << "a time in nanoseconds";
    int buffer = 0;
    int fence = -1;
    EXPECT_TRUE(test::eventually([&] {
        return producer.tunnel.dequeueBuffer(producer.device, producer.id, &buffer, &fence,
                                             nowNs()) == 0;
    }));
    pollfd poller{fence, POLLIN, 0};
    EXPECT_EQ(poll(&poller, 1, 30'000), 1);
    EXPECT_GE(nowNs(), tv->tunnel().record()[0].fenceSignalNs);
    close(fence);
    EXPECT_TRUE(tv->tunnel().record()[1].atOnce);
}

TEST(Tv, SwitchedOffItSignalsWhatIsPendingAndStaysReadable) {
    const auto tv = Tv::powerOn();
    Producer producer(*tv);
    TunnelFaults faults;
    faults.fenceDelayNs = 3'600'000'000'000;
    tv->tunnel().setFaults(faults);
    producer.queue(0);
    EXPECT_TRUE(
        test::eventually([&] { return tv->tunnel().record()[0].fate == BufferFate::OnScreen; }));
    producer.queue(0);
    EXPECT_TRUE(test::eventually([&] { return tv->tunnel().record()[0].releasedNs != 0; }));
    int buffer = 0;
    int fence = -1;
    ASSERT_EQ(producer.tunnel.dequeueBuffer(producer.device, producer.id, &buffer, &fence, 0), 0);
    pollfd poller{fence, POLLIN, 0};
    EXPECT_EQ(poll(&poller, 1, 0), 0);
    tv->powerOff();
    tv->powerOff();
    EXPECT_EQ(poll(&poller, 1, 0), 1);
    close(fence);
    EXPECT_EQ(tv->tunnel().record().size(), 2U);
}

}  // namespace
}  // namespace korvane::tv
