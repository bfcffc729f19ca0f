// The binary interface, as a player built years ago sees it: a table of operations by slot, records
// by offset, a factory by name.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "VideoTunnelRenderer.h"
#include "frac/VideoSyncFRAC.h"
#include "tests/renderer/RendererFixture.h"

namespace korvane::test {
namespace {

/// The slots in their fixed order. 0 and 1 are the two destructors.
enum Slot {
    kDestroy,
    kDelete,
    kInit,
    kGetTunnelId,
    kStart,
    kStop,
    kSendVideoFrame,
    kRegCallBack,
    kFlush,
    kSetFrameRate,
    kPeekFirstFrame,
    kQueueVideoFrame
};

struct OldPlayer {
    void* object;

    template <typename... Args>
    int call(Slot slot, Args... args) {
        using Operation = int (*)(void*, Args...);
        void* const* table = *static_cast<void* const* const*>(object);
        return reinterpret_cast<Operation>(table[slot])(object, args...);
    }
};

using AbiTest = RendererTest;

TEST_F(AbiTest, EveryOperationAnswersInItsSlot) {
    clock = mTv->mediaSync().create();
    auto create = reinterpret_cast<void* (*)()>(dlsym(RTLD_DEFAULT, "VideoTunnelRenderer_create"));
    ASSERT_NE(nullptr, create);
    OldPlayer player{create()};
    tv::setProperty("vendor.korvane.loglevels", "1");

    EXPECT_EQ(1, player.call(kInit, 0x10000 | clock->id()));
    EXPECT_EQ(2, clock->mode());
    const int id = player.call(kGetTunnelId);
    EXPECT_GE(id, 0);
    EXPECT_EQ(0, player.call(kRegCallBack, 2, &RendererTest::onStatus, static_cast<void*>(this)));
    EXPECT_EQ(-1, player.call(kRegCallBack, 3, &RendererTest::onStatus, static_cast<void*>(this)));
    EXPECT_EQ(1, player.call(kSetFrameRate, 2400));
    EXPECT_EQ(1, count("[setFrameRate] framerate:2400"));
    EXPECT_EQ(1, player.call(kQueueVideoFrame, 40'000L, 100U));
    EXPECT_EQ(1, clock->counters().queuedVideoFrames);

    VideoTunnelRendererPeer p{*static_cast<VideoTunnelRenderer*>(player.object)};
    EXPECT_EQ(1, player.call(kSendVideoFrame, kFd, 40'000L, false));
    EXPECT_EQ(1, player.call(kPeekFirstFrame));
    EXPECT_EQ(1u, p.queued());
    p.pretendStarted();
    EXPECT_EQ(1, player.call(kFlush));
    EXPECT_THAT(returned, ::testing::ElementsAre(Returned{kFd, 0}));
    p.pretendStopped();
    player.call(kDelete);
    EXPECT_EQ(0, mTv->tunnel().openDevices());
}

TEST(AbiThreadsTest, StartAndStopAnswerInTheirSlots) {
    tv::openLog(8);
    const auto tv = tv::Tv::powerOn({});
    OldPlayer player{VideoTunnelRenderer_create()};
    player.call(kInit, 0);
    player.call(kGetTunnelId);
    EXPECT_EQ(1, player.call(kStart));
    EXPECT_EQ(1, tv->tunnel().connectedTunnels());
    EXPECT_EQ(1, player.call(kStop));
    EXPECT_EQ(0, tv->tunnel().connectedTunnels());
    player.call(kDelete);
    tv->powerOff();
}

TEST(AbiLayoutTest, RecordsAndObjectsKeepTheirLayout) {
    EXPECT_EQ(16u, sizeof(rendertime));
    EXPECT_EQ(8u, sizeof(framestatus));
    EXPECT_EQ(4u, offsetof(framestatus, rendered));
    EXPECT_EQ(24u, sizeof(videoframe));
    EXPECT_EQ(16u, sizeof(VideoSyncFRAC));
    EXPECT_EQ(8u, sizeof(VideoSyncWraper));
    EXPECT_EQ(20u, sizeof(VideoTunnelWraper));
}

}  // namespace
}  // namespace korvane::test
