// The renderer's life as a player drives it: binding, ids, callbacks, flush, misuse.
#include "tests/renderer/RendererFixture.h"

namespace korvane::test {
namespace {

using ::testing::ElementsAre;
using LifecycleTest = RendererTest;

TEST_F(LifecycleTest, HardwareSyncIdSelectsModeAndInstance) {
    const int shared = mTv->mediaSync().create()->id();
    struct Case {
        int hwSyncId;
        bool passthrough;
        int keptId;
        bool audio;
        bool allocates;
        int syncMode;
    };
    const Case cases[] = {
        {shared, false, shared, true, false, 0},
        {0x10000 | shared, true, shared, false, false, 2},
        {0x10000, true, 0, false, true, 2},
        {0x30000 | shared, false, 0x30000 | shared, true, true, 0},  // no such instance
        {-1, false, -1, false, true, 0},
        {0, false, 0, false, true, 0},
        {9999, false, 9999, true, true, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.hwSyncId);
        const size_t before = mTv->mediaSync().instances().size();
        std::unique_ptr<VideoTunnelRenderer> r(VideoTunnelRenderer_create());
        log.clear();
        EXPECT_EQ(1, r->init(c.hwSyncId));
        const VideoTunnelRendererPeer p{*r};
        EXPECT_EQ(c.passthrough, p.passthrough());
        EXPECT_EQ(c.keptId, p.hwSyncId());
        EXPECT_EQ(c.audio, p.haveAudio());
        const auto instances = mTv->mediaSync().instances();
        EXPECT_EQ(c.allocates ? before + 1 : before, instances.size());
        const auto bound = c.allocates ? instances.back() : mTv->mediaSync().find(shared);
        EXPECT_EQ(c.syncMode, bound->mode());
        EXPECT_EQ(c.allocates && c.keptId > 0 ? 1 : 0, count("alloc mediasync instance should"));
        EXPECT_EQ(1, count("[init]mHwSyncId:0x"));
    }
}

TEST_F(LifecycleTest, CallbackTypesAreCheckedOnlyUpwards) {
    make(1, false);
    auto* f = &RendererTest::onStatus;
    EXPECT_EQ(-1, renderer->regCallBack(3, f, this));
    EXPECT_EQ(-1, renderer->regCallBack(0, nullptr, this));
    EXPECT_EQ(0, renderer->regCallBack(-1, f, this));
    renderer->onFillVideoFrame(kFd, true);
    EXPECT_THAT(returned, ElementsAre(Returned{kFd, 1}));
}

TEST_F(LifecycleTest, ReturnedBufferGoesToTypeZeroThenTypeTwoWhoseResultCounts) {
    struct Player {
        std::vector<std::string> calls;
        int frameReturnResult = 0;
        int statusResult = 0;
    } player;
    make(4, false);
    renderer.reset(VideoTunnelRenderer_create());
    EXPECT_EQ(0, renderer->onFillVideoFrame(kFd, true)) << "without callbacks nobody took it";
    EXPECT_EQ(0, peer().frameOutCount());

    renderer->regCallBack(
        0,
        [](void* data, void* info) {
            auto* p = static_cast<Player*>(data);
            p->calls.push_back("0:" + std::to_string(*static_cast<int*>(info)));
            return p->frameReturnResult;
        },
        &player);
    EXPECT_EQ(1, renderer->onFillVideoFrame(7, true));
    renderer->regCallBack(
        2,
        [](void* data, void* info) {
            auto* p = static_cast<Player*>(data);
            const auto* status = static_cast<framestatus*>(info);
            p->calls.push_back("2:" + std::to_string(status->fd) + ":" +
                               std::to_string(status->rendered));
            return p->statusResult;
        },
        &player);
    player.frameReturnResult = 5;
    EXPECT_EQ(1, renderer->onFillVideoFrame(8, false));
    player.statusResult = 1;
    player.frameReturnResult = 0;
    EXPECT_EQ(0, renderer->onFillVideoFrame(9, true));
    EXPECT_THAT(player.calls, ElementsAre("0:7", "0:8", "2:8:0", "0:9", "2:9:1"));
    EXPECT_EQ(2, peer().frameOutCount());
    EXPECT_EQ(1, count("[onFillVideoFrame]==out== [2], fd:8, inRenderer[-2]"));
}

TEST_F(LifecycleTest, FlushHandsQueuedFramesBackInOrderAndResetsTheClock) {
    make(2, true);
    renderer->sendVideoFrame(1, 100, false);
    renderer->sendVideoFrame(2, 200, false);
    renderer->sendVideoFrame(3, 300, false);
    clock->setMode(static_cast<sync_mode>(1));
    peer().setAudioSynced();
    EXPECT_EQ(1, renderer->flush());
    EXPECT_THAT(returned, ElementsAre(Returned{1, 0}, Returned{2, 0}, Returned{3, 0}));
    EXPECT_EQ(1, count("[flush]queue:0"));
    EXPECT_EQ(0, clock->mode());
    EXPECT_EQ(0, peer().anchorMediaTimeUs());
    EXPECT_TRUE(peer().flushed());
    EXPECT_TRUE(peer().audioSynced());
    renderer->sendVideoFrame(4, 400, false);
    EXPECT_FALSE(peer().flushed());
    EXPECT_FALSE(peer().audioSynced());
}

TEST_F(LifecycleTest, FlushBeforeStartChangesNothing) {
    make(1, true);
    peer().pretendStopped();
    renderer->sendVideoFrame(1, 100, false);
    renderer->flush();
    EXPECT_EQ(1u, peer().queued());
    EXPECT_FALSE(peer().flushed());
    EXPECT_TRUE(returned.empty());
}

TEST_F(LifecycleTest, FramesAreNumberedOnlyWhileTheFrameLogIsOn) {
    for (const int mask : {0, 2}) {
        SCOPED_TRACE(mask);
        make(mask, false);
        renderer->sendVideoFrame(kFd, 0, false);
        renderer->sendVideoFrame(kFd, 40'000, false);
        EXPECT_EQ(mask == 2 ? 2 : 0, peer().frameInCount());
        videoframe frame{};
        ASSERT_TRUE(peer().take(&frame));
        ASSERT_TRUE(peer().take(&frame));
        EXPECT_EQ(mask == 2 ? 2 : 0, frame.frameNo);
        EXPECT_EQ(40'000, frame.timestampUs);
        EXPECT_EQ(mask == 2 ? 1 : 0, count("[sendVideoFrame] ==in== [2] fd:10000"));
        peer().pretendStopped();
    }
}

TEST_F(LifecycleTest, PropertiesAreReadAsTextNumbers) {
    struct Case {
        const char* value;
        const char* message;
    };
    for (const Case& c : {Case{"7", "renderfreeRun set = 7"}, Case{"no number", "set = 0"},
                          Case{"12abc", "set = 12"}, Case{"", "renderfreeRun is not set used def = 0"}}) {
        SCOPED_TRACE(c.value);
        tv::clearProperties();
        tv::setProperty("vendor.tunerpassthrough.renderfreeRun", c.value);
        log.clear();
        delete VideoTunnelRenderer_create();
        EXPECT_EQ(1, count(c.message));
    }
}

TEST_F(LifecycleTest, MissingCollaboratorsCostOneErrorEachAndNoFrame) {
    tv::setProperty("vendor.korvane.loglevels", "0");
    renderer.reset(VideoTunnelRenderer_create());
    renderer->regCallBack(2, &RendererTest::onStatus, this);
    renderer->getTunnelId();
    EXPECT_EQ(1, renderer->setFrameRate(2400));
    EXPECT_EQ(0, renderer->onVideoSyncQueueVideoFrame(0, 1));
    EXPECT_FALSE(renderer->updateVideoTime(0));
    long out = 5;
    EXPECT_FALSE(renderer->getRealTimeFor(0, &out));
    EXPECT_FALSE(renderer->getTrackMediaTime(&out));
    EXPECT_FALSE(renderer->getStartingTimeMedia(&out));
    EXPECT_EQ(5, out);
    peer().pretendStarted();
    peer().drain({1, 0, 0, false});
    peer().drain({2, 0, 0, false});
    renderer->flush();
    EXPECT_THAT(returned, ElementsAre(Returned{1, 0}, Returned{2, 0}));
    EXPECT_EQ(1, count("mVideoSync is null!"));
    EXPECT_EQ(1, count("mVideoSyncFRAC is null!"));
}

}  // namespace
}  // namespace korvane::test
