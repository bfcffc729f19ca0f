// SPDX-License-Identifier: Apache-2.0
// The renderer's lifecycle as a player drives it: binding, ids, callbacks, flush, misuse.
#include <functional>
#include <new>

#include "tests/renderer/RendererFixture.h"

namespace {

bool gNoMemory = false;

}  // namespace

// Replaces the C++ runtime's in the whole process, so that a test can make it fail.
__attribute__((visibility("default"))) void* operator new(std::size_t bytes,
                                                          const std::nothrow_t&) noexcept {
    return gNoMemory ? nullptr : ::operator new(bytes);
}

namespace korvane::test {
namespace {

using LifecycleTest = RendererTest;

TEST_F(LifecycleTest, HardwareSyncIdSelectsModeAndInstance) {
    delete VideoTunnelRenderer_create();
    tv::setProperty("vendor.tunerpassthrough.renderfreeRun", "12abc");
    delete VideoTunnelRenderer_create();
    EXPECT_EQ(1, count("renderfreeRun is not set used def = 0"));
    EXPECT_EQ(1, count("renderfreeRun set = 12"));
    const int shared = mTv->mediaSync().create()->id();
    const struct {
        int hwSyncId;
        bool passthrough;
        int keptId;
        bool audio, allocates;
        int syncMode;
    } kCases[] = {
        {shared, false, shared, true, false, 0},
        {0x10000 | shared, true, shared, false, false, 2},
        {0x10000, true, 0, false, true, 2},
        {0x30000 | shared, false, 0x30000 | shared, true, true, 0},  // no such instance
        {-1, false, -1, false, true, 0},
        {0, false, 0, false, true, 0},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.hwSyncId);
        const size_t before = mTv->mediaSync().instances().size();
        std::unique_ptr<VideoTunnelRenderer> r(VideoTunnelRenderer_create());
        log.take();
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

TEST_F(LifecycleTest, WithoutMemoryThereIsNoRenderer) {
    gNoMemory = true;
    const auto* none = VideoTunnelRenderer_create();
    gNoMemory = false;
    EXPECT_EQ(nullptr, none);
}

TEST_F(LifecycleTest, ReturnedBufferGoesToTypeZeroThenTypeTwoWhoseResultCounts) {
    static Lines calls;
    static int results[3];
    make(4, false);
    renderer.reset(VideoTunnelRenderer_create());
    EXPECT_EQ(0, renderer->onFillVideoFrame(kFd, true)) << "without a callback nobody takes it";
    const auto take = +[](void*, void* fd) {
        calls.push_back("0:" + std::to_string(*static_cast<int*>(fd)));
        return results[0];
    };
    EXPECT_EQ(-1, renderer->regCallBack(3, take, this));
    EXPECT_EQ(-1, renderer->regCallBack(0, nullptr, this));
    EXPECT_EQ(0, renderer->regCallBack(-1, take, this)) << "only types above 2 are refused";
    EXPECT_EQ(0, renderer->regCallBack(0, take, this));
    EXPECT_EQ(1, renderer->onFillVideoFrame(7, true));
    renderer->regCallBack(
        2,
        [](void*, void* info) {
            const auto* status = static_cast<framestatus*>(info);
            calls.push_back("2:" + std::to_string(status->fd) + ":" +
                            std::to_string(status->rendered));
            return results[2];
        },
        nullptr);
    results[0] = 5;
    EXPECT_EQ(1, renderer->onFillVideoFrame(8, false));
    results[0] = 0;
    results[2] = 1;
    EXPECT_EQ(0, renderer->onFillVideoFrame(9, true));
    EXPECT_EQ(calls, (Lines{"0:7", "0:8", "2:8:0", "0:9", "2:9:1"}));
    EXPECT_EQ(2, peer().frameOutCount());
    EXPECT_EQ(1, count("[onFillVideoFrame]==out== [2], fd:8, inRenderer[-2]"));
}

TEST_F(LifecycleTest, FlushHandsQueuedFramesBackInOrderAndResetsTheClock) {
    make(3, true);
    peer().pretendStopped();
    for (int fd = 1; fd <= 3; ++fd) {
        renderer->sendVideoFrame(fd, fd * 100, false);
    }
    renderer->flush();
    EXPECT_EQ(3u, peer().queued()) << "before start it changes nothing";
    EXPECT_FALSE(peer().flushed());
    peer().pretendStarted();
    clock->setMode(MEDIA_SYNC_AMASTER);
    peer().setAudioSynced();
    EXPECT_EQ(1, renderer->flush());
    EXPECT_EQ(returned, (Returned{{1, 0}, {2, 0}, {3, 0}}));
    EXPECT_EQ(1, count("[flush]queue:0"));
    EXPECT_EQ(0, clock->mode());
    EXPECT_EQ(0, peer().anchorMediaTimeUs());
    EXPECT_TRUE(peer().flushed() && peer().audioSynced());
    renderer->sendVideoFrame(4, 400, false);
    EXPECT_FALSE(peer().flushed() || peer().audioSynced());
}

TEST_F(LifecycleTest, FramesAreNumberedOnlyWhileTheFrameLogIsOn) {
    for (const int mask : {0, 2}) {
        make(mask, false);
        renderer->sendVideoFrame(kFd, 0, false);
        renderer->sendVideoFrame(kFd, 40'000, false);
        videoframe frame{};
        ASSERT_TRUE(peer().take(&frame) && peer().take(&frame));
        EXPECT_EQ(mask, frame.frameNo);
        EXPECT_EQ(mask, peer().frameInCount());
        EXPECT_EQ(40'000, frame.timestampUs);
        EXPECT_EQ(mask / 2, count("[sendVideoFrame] ==in== [2] fd:10000"));
    }
}

TEST_F(LifecycleTest, StatusCallbackRegisteredByAReturnCallbackGetsThatFrameAndItsNewDescriptor) {
    make(4, false);
    renderer->regCallBack(2, nullptr, nullptr);
    std::function<void()> registerAnother = [this] {
        renderer->regCallBack(2, &RendererTest::onStatus, this);
    };
    const auto onReturn = [](void* userData, void* info) {
        *static_cast<int*>(info) = 8;  // the frame's own descriptor
        (*static_cast<std::function<void()>*>(userData))();
        return 0;
    };
    renderer->regCallBack(0, onReturn, &registerAnother);
    EXPECT_EQ(1, renderer->onFillVideoFrame(7, true));
    EXPECT_EQ(returned, (Returned{{8, 1}}));
    EXPECT_EQ(1, count("[onFillVideoFrame]==out== [1], fd:8, "));
}

TEST_F(LifecycleTest, MissingCollaboratorsCostOneErrorEachAndNoFrame) {
    setLogMask(0);
    renderer.reset(VideoTunnelRenderer_create());
    renderer->regCallBack(2, &RendererTest::onStatus, this);
    renderer->getTunnelId();
    EXPECT_EQ(1, renderer->setFrameRate(2400));
    EXPECT_EQ(0, renderer->onVideoSyncQueueVideoFrame(0, 1));
    long out = 5;
    EXPECT_FALSE(renderer->updateVideoTime(0) || renderer->getRealTimeFor(0, &out) ||
                 renderer->getTrackMediaTime(&out) || renderer->getStartingTimeMedia(&out));
    EXPECT_EQ(5, out);
    peer().pretendStarted();
    peer().drain({1, 0, 0, false});
    peer().drain({2, 0, 0, false});
    renderer->flush();
    EXPECT_EQ(returned, (Returned{{1, 0}, {2, 0}}));
    EXPECT_EQ(1, count("mVideoSync is null!"));
    EXPECT_EQ(1, count("mVideoSyncFRAC is null!"));
}

}  // namespace
}  // namespace korvane::test
