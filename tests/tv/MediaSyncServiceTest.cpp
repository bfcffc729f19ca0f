// SPDX-License-Identifier: Apache-2.0
// The sync clock: who may anchor, and what it answers running, paused and without an anchor.
#include "tv/MediaSyncService.h"

#include <gtest/gtest.h>

#include <thread>

namespace korvane::tv {
namespace {

constexpr int64_t kNow = 1'000'000'000;

TEST(SyncInstance, WhoMayMoveTheAnchor) {
    const struct {
        sync_mode mode;
        char first;   // who anchors first: 'v', 'a' or nobody
        char second;  // who tries then
        bool taken;
    } kCases[] = {{MEDIA_SYNC_VMASTER, '-', 'v', true},    {MEDIA_SYNC_VMASTER, 'v', 'v', true},
                  {MEDIA_SYNC_VMASTER, 'v', 'a', true},    {MEDIA_SYNC_AMASTER, '-', 'v', false},
                  {MEDIA_SYNC_AMASTER, 'a', 'v', false},   {MEDIA_SYNC_AMASTER, 'a', 'a', true},
                  {MEDIA_SYNC_PCRMASTER, '-', 'v', true},  {MEDIA_SYNC_PCRMASTER, '-', 'a', true},
                  {MEDIA_SYNC_PCRMASTER, 'v', 'a', false}, {MEDIA_SYNC_PCRMASTER, 'a', 'v', false},
                  {MEDIA_SYNC_PCRMASTER, 'v', 'v', true}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::Message() << c.mode << c.first << c.second);
        SyncInstance clock(1);
        clock.setMode(c.mode);
        const auto anchor = [&](char who, int64_t mediaUs) {
            if (who == 'v') {
                clock.updateAnchorFromVideo(mediaUs, 0, kNow);
            } else if (who == 'a') {
                clock.anchorFromAudio(mediaUs, kNow);
            }
        };
        anchor(c.first, 100);
        const SyncCounters before = clock.counters();
        anchor(c.second, 5000);
        EXPECT_EQ(clock.mediaTimeAt(kNow) == 5000, c.taken);
        EXPECT_EQ(clock.counters().anchorsTaken - before.anchorsTaken, c.taken ? 1 : 0);
        EXPECT_EQ(clock.counters().anchorsIgnored - before.anchorsIgnored, c.taken ? 0 : 1);
        const bool audioTook = c.second == 'a' && c.taken;
        EXPECT_EQ(clock.mode(),
                  audioTook && c.mode == MEDIA_SYNC_VMASTER ? MEDIA_SYNC_AMASTER : c.mode);
    }
}

TEST(SyncInstance, RunsFromItsAnchorAndStandsWhilePaused) {
    SyncInstance clock(1);
    EXPECT_EQ(clock.realTimeFor(0, kNow), -1);
    EXPECT_EQ(clock.mediaTimeAt(kNow), -1);
    EXPECT_EQ(clock.trackMediaTime(), -1);
    clock.updateAnchorFromVideo(500, 0, kNow);
    EXPECT_EQ(clock.realTimeFor(40'500, kNow + 7), kNow + 40'000);
    EXPECT_EQ(clock.mediaTimeAt(kNow + 1'000), 1'500);
    EXPECT_EQ(clock.trackMediaTime(), 500);
    clock.setPause(true, kNow + 1'000);
    clock.setPause(true, kNow + 2'000);
    EXPECT_EQ(clock.mediaTimeAt(kNow + 9'000), 1'500);
    EXPECT_EQ(clock.realTimeFor(41'500, kNow + 9'000), kNow + 49'000) << "the earliest possible";
    clock.setPause(false, kNow + 10'000);
    EXPECT_EQ(clock.realTimeFor(41'500, kNow + 11'000), kNow + 50'000);
    EXPECT_EQ(clock.trackMediaTime(), 500 + 1'000) << "anchored again where it was paused";
    clock.updateAnchorFromVideo(0, kNow - 50'000, kNow);
    EXPECT_EQ(clock.mediaTimeAt(kNow), 50'000) << "anchored at a given real time";
    EXPECT_EQ(clock.realTimeFor(INT64_MAX, kNow), INT64_MAX);
    clock.setPause(true, kNow);
    EXPECT_EQ(clock.realTimeFor(INT64_MIN, kNow), INT64_MIN + kNow);
    clock.reset();
    EXPECT_EQ(clock.realTimeFor(0, kNow), -1);
}

TEST(SyncInstance, AudioTakesAllOfTheClockInOneStepAndNoticesThatItIsGone) {
    SyncInstance clock(1);
    std::thread audio([&] {
        for (int round = 0; round < 20'000; ++round) {
            clock.setMode(MEDIA_SYNC_VMASTER);
            clock.setPause(true, kNow);
            clock.takeFromAudio(round, kNow);
        }
    });
    int64_t seen = -1;
    while (seen < 19'999) {
        const int64_t starting = clock.startingTimeMedia();
        EXPECT_GE(clock.trackMediaTime(), starting) << "track is as new as what came after it";
        seen = starting;
    }
    audio.join();
    EXPECT_TRUE(clock.stepFromAudio(20'000));
    clock.setMode(MEDIA_SYNC_VMASTER);
    EXPECT_FALSE(clock.stepFromAudio(30'000));
    EXPECT_EQ(clock.trackMediaTime(), 20'000);
}

TEST(SyncInstance, PassthroughDecisions) {
    SyncInstance clock(1);
    EXPECT_EQ(clock.videoPolicy(0, -1, kNow).videopolicy, MEDIASYNC_VIDEO_HOLD) << "no anchor";
    clock.setMode(MEDIA_SYNC_PCRMASTER);
    // The first in free-running pass-through anchors the clock; it is due at once.
    const std::pair<int64_t, int32_t> kDue[] = {{0, MEDIASYNC_VIDEO_NORMAL_OUTPUT},
                                                {100'001, MEDIASYNC_VIDEO_HOLD},
                                                {100'000, MEDIASYNC_VIDEO_NORMAL_OUTPUT},
                                                {-40'000, MEDIASYNC_VIDEO_NORMAL_OUTPUT},
                                                {-40'001, MEDIASYNC_VIDEO_DROP}};
    for (const auto& [dueInUs, expected] : kDue) {
        const auto policy = clock.videoPolicy(10'000 + dueInUs, 0, kNow);
        EXPECT_EQ(policy.videopolicy, expected) << dueInUs;
        EXPECT_EQ(policy.realtimeUs, kNow + dueInUs);
    }
    clock.setPause(true, kNow);
    EXPECT_EQ(clock.videoPolicy(10'000, 0, kNow).videopolicy, MEDIASYNC_VIDEO_HOLD);
    clock.setVideoPolicy([](int64_t media, int64_t last, int64_t now) {
        return mediasync_video_policy{77, 0, media + last + now, 0};
    });
    EXPECT_EQ(clock.videoPolicy(1, 2, 3).realtimeUs, 6);
    clock.endPassthrough();
    EXPECT_EQ(clock.videoPolicy(1, 2, 3).videopolicy, MEDIASYNC_VIDEO_EXIT);
    EXPECT_NE(clock.dump().find("decisions: 3 render, 3 hold, 1 drop, 1 exit"), std::string::npos)
        << clock.dump();
}

TEST(MediaSyncService, InstancesAreFoundByTheirNumber) {
    MediaSyncService service;
    EXPECT_EQ(service.create()->id(), 1);
    const auto second = service.create();
    EXPECT_EQ(service.find(2), second);
    EXPECT_FALSE(service.find(-1) || service.find(0) || service.find(3));
    service.setCreateFails(true);
    EXPECT_EQ(service.create(), nullptr);
}

}  // namespace
}  // namespace korvane::tv
