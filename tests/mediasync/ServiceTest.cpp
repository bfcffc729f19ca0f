// VideoSyncWraper and the device's media-sync library on the simulated TV: what the renderer
// relies on when it binds, anchors, pauses and asks.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "mediasync/VideoSyncWraper.h"
#include "tests/support/ManualClock.h"
#include "tv/Tv.h"

namespace {

using korvane::test::ManualClock;
using korvane::tv::SyncInstance;
using korvane::tv::Tv;

Tv& powerOn(std::shared_ptr<Tv>* tv) {
    korvane::tv::TvConfig config;
    config.displayThread = false;
    *tv = Tv::powerOn(config);
    return **tv;
}

class MediaSyncLibrary : public testing::Test {
protected:
    MediaSyncLibrary() { powerOn(&mTv); }
    ~MediaSyncLibrary() override { mTv->powerOff(); }

    /// Binds the client to a new instance.
    std::shared_ptr<SyncInstance> bindNew() {
        const auto instance = mTv->mediaSync().create();
        EXPECT_EQ(mSync.bindInstance(static_cast<unsigned>(instance->id()), MEDIA_VIDEO), 0);
        return instance;
    }

    /// Every operation that needs an instance.
    std::vector<std::function<int()>> instanceOperations() {
        return {[&] { return mSync.setSyncMode(MEDIA_SYNC_AMASTER); },
                [&] { return mSync.getSyncMode(&mMode); },
                [&] { return mSync.setPause(true); },
                [&] { return mSync.getPause(&mFlag); },
                [&] { return mSync.updateAnchor(1, 2, 0, true); },
                [&] { return mSync.updateAnchor(1, 2, 0, false); },
                [&] { return mSync.getMediaTime(1, &mTime, true); },
                [&] { return mSync.getRealTimeFor(1, &mTime); },
                [&] { return mSync.getRealTimeForNextVsync(&mTime); },
                [&] { return mSync.reset(); },
                [&] { return mSync.getTrackMediaTime(&mTime); },
                [&] { return mSync.getStartingTimeMedia(&mTime); },
                [&] { return mSync.setUpdateTimeThreshold(3); },
                [&] { return mSync.getUpdateTimeThreshold(&mTime); },
                [&] { return mSync.queueVideoFrame(1, 2, 0, MEDIASYNC_UNIT_PTS); },
                [&] { return mSync.VideoProcess(1, 0, MEDIASYNC_UNIT_US, &mPolicy); }};
    }

    /// Every operation that also a client without an instance has.
    std::vector<std::function<int()>> clientOperations() {
        return {[&] { return mSync.setPlayerInsNumber(1); },
                [&] { return mSync.setParameter(MEDIASYNC_KEY_PARAM9, &mNumber); },
                [&] { return mSync.getParameter(MEDIASYNC_KEY_PARAM9, &mNumber); },
                [&] { return mSync.allocInstance(0, 0, &mNumber); }};
    }

    ManualClock mClock;
    std::shared_ptr<Tv> mTv;
    MediaSync mSync;
    sync_mode mMode = static_cast<sync_mode>(255);
    bool mFlag = false;
    long mTime = -7;
    int mNumber = -7;
    mediasync_video_policy mPolicy{};
};

TEST_F(MediaSyncLibrary, clientWithoutInstanceHasOnlyItsOwnSettings) {
    for (const auto& operation : instanceOperations()) {
        EXPECT_EQ(operation(), -1);
    }
    for (const auto& operation : clientOperations()) {
        EXPECT_EQ(operation(), 0);
    }
    EXPECT_EQ(mSync.bindInstance(4711, MEDIA_VIDEO), -1);
}

TEST_F(MediaSyncLibrary, everyCallFailsWithoutTv) {
    const auto instance = bindNew();
    mTv->powerOff();
    for (const auto& operation : instanceOperations()) {
        EXPECT_EQ(operation(), -1);
    }
    for (const auto& operation : clientOperations()) {
        EXPECT_EQ(operation(), -1);
    }
    EXPECT_EQ(mSync.bindInstance(static_cast<unsigned>(instance->id()), MEDIA_VIDEO), -1);
    EXPECT_EQ(mTime, -7);
    EXPECT_EQ(mNumber, -7);
}

TEST_F(MediaSyncLibrary, instanceThatAnswersWithAStatusIsLeftAlone) {
    const auto instance = bindNew();
    instance->setStatus(-5);
    for (const auto& operation : instanceOperations()) {
        EXPECT_EQ(operation(), -5);
    }
    EXPECT_EQ(mSync.setPlayerInsNumber(1), -5);
    EXPECT_EQ(mSync.setParameter(MEDIASYNC_KEY_PARAM7, &mNumber), -5);
    MediaSync other;
    EXPECT_EQ(other.bindInstance(static_cast<unsigned>(instance->id()), MEDIA_VIDEO), -5);
    EXPECT_EQ(mTime, -7);
    EXPECT_EQ(mMode, 255);

    instance->setStatus(0);
    EXPECT_EQ(instance->mode(), MEDIA_SYNC_VMASTER);
    EXPECT_FALSE(instance->paused());
    EXPECT_EQ(instance->counters().anchorsTaken, 0);
    EXPECT_EQ(instance->counters().queuedVideoFrames, 0);
    EXPECT_EQ(other.getSyncMode(&mMode), -1) << "the refused bind bound nothing";
}

TEST_F(MediaSyncLibrary, videoAnchorsTheClockUntilAudioLeads) {
    const auto instance = bindNew();
    EXPECT_EQ(mSync.getRealTimeFor(5'000, &mTime), 0);
    EXPECT_EQ(mTime, -1);
    EXPECT_EQ(mSync.updateAnchor(1'000'000, 0, 0, true), 0);
    EXPECT_EQ(mSync.getRealTimeFor(1'040'000, &mTime), 0);
    EXPECT_EQ(mTime, mClock.nowUs() + 40'000);
    EXPECT_EQ(mSync.getMediaTime(mClock.nowUs() + 7, &mTime, false), 0);
    EXPECT_EQ(mTime, 1'000'007);

    EXPECT_EQ(mSync.updateAnchor(3'000'000, 0, 0, false), 0);
    EXPECT_EQ(mSync.getSyncMode(&mMode), 0);
    EXPECT_EQ(mMode, MEDIA_SYNC_AMASTER);
    EXPECT_EQ(mSync.updateAnchor(0, 0, 0, true), 0);
    EXPECT_EQ(mSync.getRealTimeFor(3'000'000, &mTime), 0);
    EXPECT_EQ(mTime, mClock.nowUs());
    EXPECT_EQ(instance->counters().anchorsIgnored, 1);
}

TEST_F(MediaSyncLibrary, pauseFreezesTheClock) {
    bindNew();
    EXPECT_EQ(mSync.updateAnchor(1'000'000, 0, 0, true), 0);
    EXPECT_EQ(mSync.setPause(true), 0);
    EXPECT_EQ(mSync.getPause(&mFlag), 0);
    EXPECT_TRUE(mFlag);
    mClock.advanceUs(500'000);
    EXPECT_EQ(mSync.setPause(false), 0);
    EXPECT_EQ(mSync.getRealTimeFor(1'000'000, &mTime), 0);
    EXPECT_EQ(mTime, mClock.nowUs());
}

TEST_F(MediaSyncLibrary, passesOnTimesThresholdAndCounts) {
    const auto instance = bindNew();
    instance->setTrackMediaTime(11);
    instance->setStartingTimeMedia(12);
    EXPECT_EQ(mSync.getTrackMediaTime(&mTime), 0);
    EXPECT_EQ(mTime, 11);
    EXPECT_EQ(mSync.getStartingTimeMedia(&mTime), 0);
    EXPECT_EQ(mTime, 12);
    EXPECT_EQ(mSync.setUpdateTimeThreshold(34'567), 0);
    EXPECT_EQ(mSync.getUpdateTimeThreshold(&mTime), 0);
    EXPECT_EQ(mTime, 34'567);
    EXPECT_EQ(mSync.queueVideoFrame(1, 2, 0, MEDIASYNC_UNIT_PTS), 0);
    EXPECT_EQ(instance->counters().queuedVideoFrames, 1);
    EXPECT_EQ(mSync.getRealTimeForNextVsync(&mTime), 0);
    EXPECT_EQ(mTime, mTv->display().nextVsyncAfter(mClock.nowNs()).timeNs / 1000);
    EXPECT_EQ(mSync.reset(), 0);
    EXPECT_EQ(mSync.getRealTimeFor(0, &mTime), 0);
    EXPECT_EQ(mTime, -1);
}

TEST_F(MediaSyncLibrary, keepsACopyOfEachParameter) {
    int five = 5;
    int nine = 9;
    EXPECT_EQ(mSync.getParameter(MEDIASYNC_KEY_PARAM9, &mNumber), -1);
    EXPECT_EQ(mSync.setParameter(MEDIASYNC_KEY_VIDEOSYNCMODE, &five), 0);
    EXPECT_EQ(mSync.setParameter(MEDIASYNC_KEY_PARAM9, &nine), 0);
    nine = 10;
    EXPECT_EQ(mSync.getParameter(MEDIASYNC_KEY_PARAM9, &mNumber), 0);
    EXPECT_EQ(mNumber, 9);
}

TEST_F(MediaSyncLibrary, videoProcessAsksTheInstanceInMicroseconds) {
    const auto instance = bindNew();
    instance->setVideoPolicy([](int64_t mediaUs, int64_t lastUs, int64_t nowUs) {
        return mediasync_video_policy{MEDIASYNC_VIDEO_DROP, 0, mediaUs - lastUs + nowUs, 0};
    });
    EXPECT_EQ(mSync.VideoProcess(50, 20, MEDIASYNC_UNIT_US, &mPolicy), 0);
    EXPECT_EQ(mPolicy.videopolicy, MEDIASYNC_VIDEO_DROP);
    EXPECT_EQ(mPolicy.realtimeUs, mClock.nowUs() + 30);
    EXPECT_EQ(mSync.VideoProcess(50, 20, MEDIASYNC_UNIT_PTS, &mPolicy), -1);
}

TEST_F(MediaSyncLibrary, threadsMayShareAClient) {
    const auto first = bindNew();
    const auto second = mTv->mediaSync().create();
    std::thread rebinding([&] {
        for (int i = 0; i < 500; ++i) {
            const auto& instance = i % 2 == 0 ? second : first;
            EXPECT_EQ(mSync.bindInstance(static_cast<unsigned>(instance->id()), MEDIA_VIDEO), 0);
        }
    });
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(mSync.updateAnchor(i, i + 1, 0, true), 0);
        EXPECT_EQ(mSync.getRealTimeFor(i, &mTime), 0);
    }
    rebinding.join();
}

// The renderer's own way in: an id that the service does not know, then one of its own.
TEST_F(MediaSyncLibrary, wrapperBindsAnInstanceOfItsOwnWhereNoneIsGiven) {
    VideoSyncWraper sync;
    EXPECT_FALSE(sync.bindInstance(4711, MEDIA_VIDEO));
    int id = -1;
    EXPECT_TRUE(sync.getSyncId(&id));
    EXPECT_TRUE(sync.bindInstance(static_cast<unsigned>(id), MEDIA_VIDEO));
    EXPECT_TRUE(sync.setSyncMode(MEDIA_SYNC_PCRMASTER));
    EXPECT_EQ(mTv->mediaSync().find(id)->mode(), MEDIA_SYNC_PCRMASTER);

    mTv->mediaSync().setCreateFails(true);
    id = -1;
    EXPECT_FALSE(sync.getSyncId(&id));
    EXPECT_EQ(id, -1);
}

}  // namespace
