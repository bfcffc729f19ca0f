// SPDX-License-Identifier: Apache-2.0
// One frame through the drain thread's operations: early, on time, late, peek, render time, vsync.
#include <limits>

#include "tests/renderer/RendererFixture.h"

namespace korvane::test {
namespace {

using testing::ElementsAre;

constexpr int64_t kTwoVsyncsUs = 16666666 / 500;
using DrainTest = RendererTest;

TEST_F(DrainTest, FrameIsShownWaitedForOrDroppedByItsDistanceFromNow) {
    const struct {
        const char* what;
        int64_t earlyUs;
        bool shown;
        int64_t waitedUs;  // -1: no wait
    } kCases[] = {
        {"two periods and 5 ms early is on time", kTwoVsyncsUs + 5000, true, -1},
        {"one microsecond more waits", kTwoVsyncsUs + 5001, true, 1},
        {"due now", 0, true, -1},
        {"40 ms late is on time", -40'000, true, -1},
        {"one microsecond later is dropped", -40'001, false, -1},
        {"absurdly late", -900'000'000'000, false, -1},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        makeAnchored(6);
        const int64_t dueUs = mClock.nowUs() + c.earlyUs;
        peer().drain({kFd, kNowMediaUs + c.earlyUs, 0, false});
        EXPECT_EQ(1, count("[drainVideoFrame]mHaveAudio:0"));
        EXPECT_EQ(c.waitedUs >= 0 ? 1 : 0, count("[waitShowTime]"));
        EXPECT_EQ(c.waitedUs >= 0 ? 1 : 0,
                  count("[waitShowTime] " + std::to_string(c.waitedUs) + "\n"));
        EXPECT_EQ(returned, c.shown ? Returned{} : (Returned{{kFd, 0}}));
        EXPECT_EQ(c.shown ? 0 : 1, count("[drainVideoFrame]drop = frameNo:0"));
        ASSERT_EQ(c.shown, peer().pendingRenderTimes() == 1);
        if (c.shown) {
            EXPECT_EQ(dueUs, queuedBuffers().back().presentationTimeUs);
            EXPECT_EQ(dueUs, peer().oldestRenderTime().renderTimeUs);
        }
    }
}

TEST_F(DrainTest, AfterUnderflowOnlyAnEarlyFrameIsShown) {
    makeAnchored(0);
    peer().setUnderflow(false);
    peer().drain({1, kNowMediaUs, 0, false});
    EXPECT_EQ(returned, (Returned{{1, 0}}));
    peer().drain({2, kNowMediaUs + kTwoVsyncsUs + 5100, 0, false});
    EXPECT_FALSE(peer().underflow());
    peer().drain({3, kNowMediaUs, 0, false});
    EXPECT_EQ(2u, queuedBuffers().size());
}

TEST_F(DrainTest, LateFramesAreReportedOnlyFromTheTwentyFirstOn) {
    for (const auto& [logMask, frameNo] : {std::pair{2, 20}, {2, 21}, {0, 21}}) {
        makeAnchored(logMask);
        const int reported = logMask != 0 ? frameNo - 20 : 0;
        peer().drain({kFd, kNowMediaUs - 50'000, frameNo, false});
        EXPECT_EQ(reported, count("need catch drop pts:"));
        peer().drain({kFd, kNowMediaUs, frameNo, false});
        EXPECT_EQ(logMask / 2, count("may occur drop pts:"));
        EXPECT_EQ(reported, count("may need catch drop pts:"));
    }
}

TEST_F(DrainTest, FirstFrameWithoutAnAnchorAnchorsTheClockAndIsLate) {
    make(1, false);
    peer().drain({1, 500'000, 0, false});
    EXPECT_EQ(1, count("[drainVideoFrame]wait audio start"));
    EXPECT_EQ(returned, (Returned{{1, 0}}));
    EXPECT_EQ(500'000, peer().anchorMediaTimeUs());
    peer().drain({2, 520'000, 0, false});
    EXPECT_EQ(mClock.nowUs() + 20'000, queuedBuffers().at(0).presentationTimeUs);
}

TEST_F(DrainTest, ShowIsRefusedWhileFlushedOrStopped) {
    makeAnchored(6);
    renderer->flush();
    peer().show({1, 0, 0, false}, mClock.nowUs());
    renderer->sendVideoFrame(5, 0, false);
    peer().pretendStopped();
    peer().show({2, 0, 0, false}, mClock.nowUs());
    EXPECT_EQ(returned, (Returned{{1, 1}, {2, 1}}));
    EXPECT_EQ(2, count("[showFrame]do not show, need return frame"));
    EXPECT_EQ(0u, queuedBuffers().size() + peer().pendingRenderTimes());
    peer().setFirstFrameQueued();
    videoframe frame{};
    EXPECT_TRUE(peer().take(&frame));
    EXPECT_FALSE(peer().take(&frame));
    EXPECT_EQ(0, count("wait for input frame timeout")) << "a stopped renderer waits for no frame";
}

TEST_F(DrainTest, LonePeekFrameIsShownOnceWithNanosecondTime) {
    make(0, true);
    renderer->peekFirstFrame();
    renderer->sendVideoFrame(1, 70, false);
    peer().peekCheck();
    EXPECT_TRUE(queuedBuffers().empty()) << "not marked";
    renderer->sendVideoFrame(9, 75, false);
    renderer->peekFirstFrame();
    videoframe frame{};
    ASSERT_TRUE(peer().take(&frame));
    EXPECT_FALSE(frame.peek) << "it was not alone";
    renderer->peekFirstFrame();
    peer().peekCheck();
    ASSERT_EQ(1u, queuedBuffers().size());
    EXPECT_EQ(mClock.nowNs(), queuedBuffers()[0].presentationTimeUs);
    ASSERT_EQ(1u, peer().pendingRenderTimes());
    EXPECT_EQ(75, peer().oldestRenderTime().mediaTimeUs);
    EXPECT_EQ(mClock.nowUs(), peer().oldestRenderTime().renderTimeUs);
    renderer->sendVideoFrame(2, 80, true);
    peer().peekCheck();
    EXPECT_EQ(1u, queuedBuffers().size()) << "one peek until a flush";
    renderer->flush();
    renderer->sendVideoFrame(3, 90, true);
    peer().peekCheck();
    EXPECT_EQ(2u, queuedBuffers().size());
}

TEST_F(DrainTest, TakenPeekFrameIsShownAtOnceAndLeavesAudioUnsynced) {
    make(0, true);
    peer().drain({1, 70, 0, true});
    peer().drain({2, 80, 0, true});
    EXPECT_EQ(2u, queuedBuffers().size())
        << "only the path for a lone frame remembers that it showed a peek frame";
    EXPECT_EQ(mClock.nowNs(), queuedBuffers().back().presentationTimeUs);
    EXPECT_FALSE(peer().audioSynced());
    // A peek frame on the normal path gets no render time.
    const size_t before = peer().pendingRenderTimes();
    peer().show({3, 90, 0, true}, mClock.nowUs());
    EXPECT_EQ(before, peer().pendingRenderTimes());
    renderer->sendVideoFrame(4, 95, true);
    peer().peekCheck();
    mClock.after(1'000, [&] { clock->setPause(false, mClock.nowUs()); });
    peer().drain({5, 100, 0, true});
    EXPECT_TRUE(peer().audioSynced()) << "after that one, the next peek frame waits for audio";
}

TEST_F(DrainTest, RenderTimesAreReportedOneByOneAfterTheirTime) {
    static std::vector<int64_t> reported;
    makeAnchored(4);
    peer().show({4, 99, 0, false}, std::numeric_limits<int64_t>::min());
    peer().show({1, 111, 0, false}, mClock.nowUs());
    peer().show({2, 222, 0, false}, mClock.nowUs());
    peer().show({3, 333, 0, false}, std::numeric_limits<int64_t>::max());
    renderer->nodifyRenderTime();
    EXPECT_EQ(4u, peer().pendingRenderTimes()) << "kept while nobody listens";
    const auto listener = [](void*, void* info) {
        reported.push_back(static_cast<rendertime*>(info)->mediaTimeUs);
        return -1;
    };
    renderer->regCallBack(1, listener, nullptr);
    renderer->nodifyRenderTime();
    renderer->nodifyRenderTime();
    EXPECT_THAT(reported, ElementsAre(99)) << "the second one's time is now, not past";
    mClock.setNowNs(mClock.nowNs() + 1);
    renderer->nodifyRenderTime();
    EXPECT_THAT(reported, ElementsAre(99, 111));
    renderer->nodifyRenderTime();
    renderer->nodifyRenderTime();
    EXPECT_THAT(reported, ElementsAre(99, 111, 222)) << "the clock never reaches the largest time";
    EXPECT_EQ(1, count("[nodifyRenderTime] notify rendertime:222"));
}

TEST_F(DrainTest, DisplayIsQueriedEveryTenthFrameAndAnInvalidPeriodIsIgnored) {
    const struct {
        const char* what;
        bool tunnelFails, reportFails;
        int32_t periodNs, kept;
    } kCases[] = {{"the tunnel answers", false, false, 20'000'000, 20'000'000},
                  {"the adapter answers", true, false, 20'000'000, 20'000'000},
                  {"nobody answers", true, true, 20'000'000, 16'666'666},
                  {"period 0", false, false, 0, 16'666'666},
                  {"negative period from the adapter", true, false, -5, 16'666'666}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        makeAnchored(0);
        setFault(&tv::TunnelFaults::vsyncQueryFails, c.tunnelFails);
        mTv->display().setReportFails(c.reportFails);
        mTv->display().setReportedPeriodNs(c.periodNs);
        std::vector<int> askedAt;
        for (int frame = 1; frame <= 25; ++frame) {
            const int64_t before = mTv->display().reportCount();
            peer().drain({kFd, kNowMediaUs - 50'000, 0, false});
            if (mTv->display().reportCount() > before) {
                askedAt.push_back(frame);
            }
        }
        EXPECT_THAT(askedAt, ElementsAre(1, 11, 21));
        EXPECT_EQ(c.kept, peer().vsyncPeriodNs());
    }
}

TEST_F(DrainTest, TraceSectionsNeedTheTagCountersTheirBitToo) {
    for (const auto& [mask, tag] : {std::pair{0, false}, {0, true}, {16, false}, {16, true}}) {
        SCOPED_TRACE(testing::Message() << "mask " << mask << " tag " << tag);
        Lines sections;
        Lines counters;
        makeAnchored(mask);
        tv::setTraceTagEnabled(tag);
        tv::observeTrace([&](char kind, const std::string& name, int64_t value) {
            if (kind == 'B') {
                sections.push_back(name);
            } else if (kind == 'C') {
                counters.push_back(name + "=" + std::to_string(value));
            }
        });
        renderer->sendVideoFrame(kFd, kNowMediaUs, false);
        videoframe frame{};
        peer().take(&frame);
        peer().drain(frame);
        tv::observeTrace(nullptr);
        EXPECT_EQ(sections, tag ? (Lines{"drainVideoFrame", "showFrame"}) : Lines{});
        EXPECT_EQ(counters, tag && mask == 16
                                ? (Lines{"videoFrameNumTunnel=1", "videoFrameNumTunnel=0",
                                         "getShowFramePtsTunnel=1000000", "vtQueueCntTunnel=1",
                                         "queueDiffNowMsTunnel=0"})
                                : Lines{});
    }
}

}  // namespace
}  // namespace korvane::test
