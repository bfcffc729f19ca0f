// SPDX-License-Identifier: Apache-2.0
// The device's media-sync library on the simulated TV, called directly and through VideoSyncWraper:
// binding, failures, and what reaches an instance. The instance itself has its own tests.
#include <functional>
#include <thread>

#include "mediasync/VideoSyncWraper.h"
#include "tests/support/TvFixture.h"

namespace korvane::test {
namespace {

using tv::SyncInstance;

class MediaSyncLibrary : public TvFixture {
protected:
    static unsigned number(const std::shared_ptr<SyncInstance>& instance) {
        return static_cast<unsigned>(instance->id());
    }
    /// Binds the client to a new instance.
    std::shared_ptr<SyncInstance> bindNew() {
        auto instance = mTv->mediaSync().create();
        EXPECT_EQ(mSync.bindInstance(number(instance), MEDIA_VIDEO), 0);
        return instance;
    }
    /// Makes calls of each kind; those of the second group need no instance.
    void expectResults(int onInstance, int onClient) {
        const std::function<int()> kOnInstance[] = {
            [&] { return mSync.setSyncMode(MEDIA_SYNC_AMASTER); },
            [&] { return mSync.getSyncMode(&mMode); },
            [&] { return mSync.setPause(true); },
            [&] { return mSync.updateAnchor(1, 2, 0, true); },
            [&] { return mSync.getRealTimeFor(1, &mTime); },
            [&] { return mSync.getRealTimeForNextVsync(&mTime); },
            [&] { return mSync.reset(); },
            [&] { return mSync.getTrackMediaTime(&mTime); },
            [&] { return mSync.queueVideoFrame(1, 2, 0, MEDIASYNC_UNIT_PTS); },
            [&] { return mSync.VideoProcess(1, 0, MEDIASYNC_UNIT_US, &mPolicy); }};
        const std::function<int()> kOnClient[] = {
            [&] { return mSync.setPlayerInsNumber(1); },
            [&] { return mSync.setParameter(MEDIASYNC_KEY_PARAM9, &mNumber); },
            [&] { return mSync.getParameter(MEDIASYNC_KEY_PARAM9, &mNumber); }};
        for (const auto& call : kOnInstance) {
            EXPECT_EQ(call(), onInstance);
        }
        for (const auto& call : kOnClient) {
            EXPECT_EQ(call(), onClient);
        }
        EXPECT_EQ(mTime, -7) << "an output was written";
        EXPECT_EQ(mMode, 255);
    }

    MediaSync mSync;
    sync_mode mMode = static_cast<sync_mode>(255);
    bool mFlag = false;
    long mTime = -7;
    int mNumber = -7;
    mediasync_video_policy mPolicy{};
};

TEST_F(MediaSyncLibrary, WithoutInstanceWithAFailingOneOrWithoutTvCallsFail) {
    expectResults(-1, 0);
    EXPECT_EQ(mSync.bindInstance(4711, MEDIA_VIDEO), -1);
    const auto instance = bindNew();
    instance->setStatus(-5);
    expectResults(-5, -5);
    MediaSync other;
    EXPECT_EQ(other.bindInstance(number(instance), MEDIA_VIDEO), -5);
    instance->setStatus(0);
    EXPECT_EQ(instance->mode(), MEDIA_SYNC_VMASTER) << "the failed call had an effect";
    EXPECT_FALSE(instance->paused());
    EXPECT_EQ(instance->counters().anchorsTaken + instance->counters().queuedVideoFrames, 0);
    EXPECT_EQ(other.getSyncMode(&mMode), -1) << "the refused client is bound";
    mTv->powerOff();
    expectResults(-1, -1);
    EXPECT_EQ(mSync.allocInstance(0, 0, &mNumber), -1);
    EXPECT_EQ(mSync.bindInstance(number(instance), MEDIA_VIDEO), -1);
}

TEST_F(MediaSyncLibrary, PassesEverythingOnToItsInstance) {
    const auto instance = bindNew();
    EXPECT_EQ(mSync.updateAnchor(1'000'000, 0, 0, true), 0);
    EXPECT_EQ(mSync.getRealTimeFor(1'040'000, &mTime), 0);
    EXPECT_EQ(mTime, mClock.nowUs() + 40'000);
    EXPECT_EQ(mSync.getMediaTime(mClock.nowUs() + 7, &mTime, false), 0);
    EXPECT_EQ(mTime, 1'000'007);
    EXPECT_EQ(mSync.updateAnchor(3'000'000, 0, 0, false), 0);
    EXPECT_TRUE(mSync.getSyncMode(&mMode) == 0 && mMode == MEDIA_SYNC_AMASTER) << "audio leads";
    EXPECT_EQ(mSync.setSyncMode(MEDIA_SYNC_PCRMASTER), 0);
    EXPECT_EQ(instance->mode(), MEDIA_SYNC_PCRMASTER);
    instance->setTrackMediaTime(11);
    instance->setStartingTimeMedia(12);
    EXPECT_TRUE(mSync.getTrackMediaTime(&mTime) == 0 && mTime == 11);
    EXPECT_TRUE(mSync.getStartingTimeMedia(&mTime) == 0 && mTime == 12);
    EXPECT_EQ(mSync.setUpdateTimeThreshold(34'567), 0);
    EXPECT_TRUE(mSync.getUpdateTimeThreshold(&mTime) == 0 && mTime == 34'567);
    EXPECT_EQ(mSync.setPause(true), 0);
    EXPECT_TRUE(mSync.getPause(&mFlag) == 0 && mFlag);
    EXPECT_EQ(mSync.queueVideoFrame(1, 2, 0, MEDIASYNC_UNIT_PTS), 0);
    EXPECT_EQ(instance->counters().queuedVideoFrames, 1);
    EXPECT_EQ(mSync.getRealTimeForNextVsync(&mTime), 0);
    EXPECT_EQ(mTime, mTv->display().nextVsyncAfter(mClock.nowNs()).timeNs / 1000);
    instance->setVideoPolicy([](int64_t mediaUs, int64_t lastUs, int64_t nowUs) {
        return mediasync_video_policy{MEDIASYNC_VIDEO_DROP, 0, mediaUs - lastUs + nowUs, 0};
    });
    EXPECT_EQ(mSync.VideoProcess(50, 20, MEDIASYNC_UNIT_US, &mPolicy), 0);
    EXPECT_EQ(mPolicy.realtimeUs, mClock.nowUs() + 30);
    EXPECT_EQ(mSync.VideoProcess(50, 20, MEDIASYNC_UNIT_PTS, &mPolicy), -1);
    EXPECT_EQ(mSync.reset(), 0);
    EXPECT_TRUE(mSync.getRealTimeFor(0, &mTime) == 0 && mTime == -1);

    int nine = 9;
    EXPECT_EQ(mSync.getParameter(MEDIASYNC_KEY_PARAM9, &mNumber), -1);
    EXPECT_EQ(mSync.setParameter(MEDIASYNC_KEY_PARAM9, &nine), 0);
    nine = 10;
    EXPECT_TRUE(mSync.getParameter(MEDIASYNC_KEY_PARAM9, &mNumber) == 0 && mNumber == 9);
}

TEST_F(MediaSyncLibrary, ThreadsMayShareAClient) {
    const auto first = bindNew();
    const auto second = mTv->mediaSync().create();
    std::thread rebinding([&] {
        for (int i = 0; i < 500; ++i) {
            EXPECT_EQ(mSync.bindInstance(number(i % 2 == 0 ? second : first), MEDIA_VIDEO), 0);
        }
    });
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(mSync.updateAnchor(i, i + 1, 0, true), 0);
        EXPECT_EQ(mSync.getRealTimeFor(i, &mTime), 0);
    }
    rebinding.join();
}

// As the renderer binds: an id that the service does not know, then a new instance.
TEST_F(MediaSyncLibrary, WrapperBindsAnInstanceOfItsOwnWhereNoneIsGiven) {
    VideoSyncWraper sync;
    EXPECT_FALSE(sync.bindInstance(4711, MEDIA_VIDEO));
    int id = -1;
    EXPECT_TRUE(sync.getSyncId(&id));
    EXPECT_TRUE(sync.bindInstance(static_cast<unsigned>(id), MEDIA_VIDEO));
    EXPECT_TRUE(sync.setSyncMode(MEDIA_SYNC_PCRMASTER));
    EXPECT_EQ(mTv->mediaSync().find(id)->mode(), MEDIA_SYNC_PCRMASTER);
    mTv->mediaSync().setCreateFails(true);
    EXPECT_FALSE(sync.getSyncId(&mNumber));
    EXPECT_EQ(mNumber, -7);
}

}  // namespace
}  // namespace korvane::test
