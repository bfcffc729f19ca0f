// SPDX-License-Identifier: Apache-2.0
// The binary interface of players built years ago: a table of operations by slot, records by
// offset, a factory by name.
#include <dlfcn.h>

#include "tests/renderer/RendererFixture.h"

static_assert(sizeof(rendertime) == 16 && sizeof(framestatus) == 8 &&
              offsetof(framestatus, rendered) == 4 && sizeof(videoframe) == 24 &&
              sizeof(VideoSyncFRAC) == 16 && sizeof(VideoSyncWraper) == 8 &&
              sizeof(VideoTunnelWraper) == 20);

/// A process's own function under the name of one that the library exports.
extern "C" __attribute__((visibility("default"))) int interposedDropFrame(
    void*, videoframe*) __asm__("_ZN19VideoTunnelRenderer9dropFrameEP10videoframe");
int interposedDropFrame(void* /*renderer*/, videoframe* /*frame*/) {
    return 0;
}

namespace korvane::test {
namespace {

/// The slots in their fixed order. The first destroys and leaves the memory, the second frees it.
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
    setLogMask(1);
    EXPECT_EQ(1, player.call(kInit, 0x10000 | clock->id()));
    EXPECT_EQ(2, clock->mode());
    EXPECT_EQ(0, player.call(kGetTunnelId));
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
    EXPECT_EQ(returned, (Returned{{kFd, 0}}));
    p.pretendStopped();
    EXPECT_EQ(1, player.call(kStop));
    player.call(kDelete);
    EXPECT_EQ(0, mTv->tunnel().openDevices());
}

TEST_F(AbiTest, FunctionOfTheProcessDoesNotReplaceTheLibrarysOwn) {
    auto* const found = dlsym(RTLD_DEFAULT, "_ZN19VideoTunnelRenderer9dropFrameEP10videoframe");
    ASSERT_EQ(reinterpret_cast<void*>(&interposedDropFrame), found);
    makeAnchored(0);
    peer().drain({kFd, kNowMediaUs - 50'000, 0, false});
    EXPECT_EQ(returned, (Returned{{kFd, 0}}))
        << "a late frame is dropped by the library's function";
}

TEST(AbiThreadsTest, StartStopAndDestroyAnswerInTheirSlots) {
    const auto tv = tv::Tv::powerOn({});
    OldPlayer player{VideoTunnelRenderer_create()};
    player.call(kInit, 0);
    player.call(kGetTunnelId);
    EXPECT_EQ(1, player.call(kStart));
    EXPECT_EQ(1, tv->tunnel().connectedTunnels());
    EXPECT_EQ(1, player.call(kStop));
    EXPECT_EQ(0, tv->tunnel().connectedTunnels());
    EXPECT_EQ(1, tv->tunnel().openDevices());
    player.call(kDestroy);
    EXPECT_EQ(0, tv->tunnel().openDevices());
    ::operator delete(player.object);
}

}  // namespace
}  // namespace korvane::test
