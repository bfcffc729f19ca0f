// SPDX-License-Identifier: Apache-2.0
// Power, the display thread, and the display advanced by hand.
#include "tv/Tv.h"

#include <poll.h>
#include <unistd.h>

#include "tests/support/TvFixture.h"

namespace korvane::tv {
namespace {

using test::eventually;

struct Producer {
    explicit Producer(Tv& tv) : tunnel(tv.tunnel()), device(tunnel.open()) {
        EXPECT_EQ(tunnel.allocId(device, &id), 0);
        EXPECT_EQ(tunnel.connect(device, id), 0);
    }
    int queue(int64_t presentationUs) {
        return tunnel.queueBuffer(device, id, -1, -1, presentationUs, nowNs());
    }
    int takeBack(int* fence) {
        int buffer = 0;
        return tunnel.dequeueBuffer(device, id, &buffer, fence, nowNs());
    }
    Tunnel& tunnel;
    int device;
    int id = -1;
};

TEST(Tv, OneIsCurrentAtATimeUntilItIsOff) {
    auto first = test::tvByHand();
    auto second = test::tvByHand();
    first->powerOff();
    EXPECT_EQ(Tv::current().get(), second.get()) << "an earlier one's power-off changes nothing";
    const auto kept = Tv::current();
    second->powerOff();
    second.reset();
    EXPECT_FALSE(Tv::current() || Tv::isAnyOn());
    EXPECT_EQ(kept->tunnel().openDevices(), 0) << "kept by the pointer";
    first = test::tvByHand();
    EXPECT_EQ(Tv::current().get(), first.get());
    first.reset();
    EXPECT_FALSE(Tv::isAnyOn());
}

using TvByHand = test::TvFixture;

TEST_F(TvByHand, ScansOutEveryVsyncOnceOfAPanelThatHasBeenRunning) {
    EXPECT_EQ(mTv->display().vsync(0).timeNs, mClock.nowNs() - 5'833'333) << "0.35 periods";
    Producer producer(*mTv);
    producer.queue(0);
    runFor(1'000'000);
    runFor(0);
    EXPECT_EQ(mTv->tunnel().record()[0].dwellVsyncs, 60);
    producer.queue(mClock.nowUs());
    mTv->display().changeMode(mClock.nowNs() + 1'000'000'000, 50);
    runFor(2'000'000);
    EXPECT_EQ(mTv->tunnel().record()[0].dwellVsyncs, 60);
    EXPECT_EQ(mTv->tunnel().record()[1].firstVsync.index, 61);
    EXPECT_EQ(mTv->tunnel().record()[1].dwellVsyncs, 60 + 50);
}

TEST(TvThread, ShowsReleasesAndSignalsAtTheLatestWhenSwitchedOff) {
    const auto time = test::virtualTimeIfAvailable();
    const auto tv = Tv::powerOn();
    Producer producer(*tv);
    TunnelFaults faults;
    const auto replaceOnScreen = [&](int64_t fenceDelayNs, int64_t presentationUs) {
        faults.fenceDelayNs = fenceDelayNs;
        tv->tunnel().setFaults(faults);
        EXPECT_EQ(producer.queue(presentationUs), 0);
        int fence = -1;
        EXPECT_TRUE(eventually([&] { return producer.takeBack(&fence) == 0; }));
        return fence;
    };
    EXPECT_EQ(producer.queue(0), 0);
    EXPECT_TRUE(eventually([&] { return tv->tunnel().record()[0].fate == BufferFate::OnScreen; }));
    // Between two vsyncs: the thread wakes for it, too.
    const int fence = replaceOnScreen(1'000'000, nowNs());
    pollfd poller{fence, POLLIN, 0};
    EXPECT_EQ(poll(&poller, 1, 30'000), 1);
    EXPECT_GE(nowNs(), tv->tunnel().record()[0].fenceSignalNs);
    EXPECT_TRUE(tv->tunnel().record()[1].atOnce) << "a time in nanoseconds";
    const int later = replaceOnScreen(3'600'000'000'000, 0);
    poller.fd = later;
    EXPECT_EQ(poll(&poller, 1, 0), 0);
    tv->powerOff();
    tv->powerOff();
    EXPECT_EQ(poll(&poller, 1, 0), 1);
    EXPECT_EQ(tv->tunnel().record().size(), 3U) << "stays readable";
    close(fence);
    close(later);
}

}  // namespace
}  // namespace korvane::tv
