// One frame through the drain thread's operations: early, on time, late; peeks; render times; vsync.
#include <limits>

#include "tests/renderer/RendererFixture.h"

namespace korvane::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int64_t kTwoVsyncsUs = 16666666 / 500;

class DrainTest : public RendererTest {
protected:
    /// Makes a renderer without audio whose clock stands at media time 1 s now.
    void makeAnchored(int logMask) {
        make(logMask, false);
        renderer->updateVideoTime(kNowMediaUs);
    }
    static constexpr int64_t kNowMediaUs = 1'000'000;
};

TEST_F(DrainTest, FrameIsShownWaitedForOrDroppedByItsDistanceFromNow) {
    struct Case {
        const char* what;
        int64_t earlyUs;
        bool shown;
        int64_t waitedUs;  // -1: no wait
    };
    const Case cases[] = {
        {"two periods and 5 ms early is on time", kTwoVsyncsUs + 5000, true, -1},
        {"one microsecond more waits", kTwoVsyncsUs + 5001, true, 1},
        {"due now", 0, true, -1},
        {"40 ms late is on time", -40'000, true, -1},
        {"one microsecond later is dropped", -40'001, false, -1},
        {"absurdly late", -900'000'000'000, false, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        makeAnchored(2);
        returned.clear();
        const int64_t dueUs = time.nowUs() + c.earlyUs;
        peer().drain({kFd, kNowMediaUs + c.earlyUs, 0, false});
        const auto queued = queuedBuffers();
        const auto mine = std::count_if(queued.begin(), queued.end(), [&](const auto& buffer) {
            return buffer.presentationTimeUs == dueUs && buffer.takenBackNs == 0;
        });
        EXPECT_EQ(c.shown ? 1 : 0, mine);
        EXPECT_EQ(c.shown ? 0u : 1u, returned.size());
        EXPECT_EQ(c.waitedUs >= 0 ? 1 : 0, count("[waitShowTime]"));
        EXPECT_EQ(c.waitedUs >= 0 ? 1 : 0,
                  count("[waitShowTime] " + std::to_string(c.waitedUs) + "\n"));
        if (c.shown) {
            EXPECT_EQ(1u, peer().pendingRenderTimes());
            EXPECT_EQ(dueUs, peer().lastRenderTime().renderTimeUs);
        } else {
            EXPECT_THAT(returned, ElementsAre(Returned{kFd, 0}));
            EXPECT_EQ(1, count("[drainVideoFrame]drop = frameNo:0"));
        }
        peer().pretendStopped();
        renderer.reset();
    }
}

TEST_F(DrainTest, AfterUnderflowOnlyAnEarlyFrameIsShown) {
    makeAnchored(0);
    peer().setUnderflow(false);
    peer().drain({1, kNowMediaUs, 0, false});
    EXPECT_THAT(returned, ElementsAre(Returned{1, 0}));
    peer().drain({2, kNowMediaUs + kTwoVsyncsUs + 5100, 0, false});
    EXPECT_FALSE(peer().underflow());
    peer().drain({3, kNowMediaUs, 0, false});
    EXPECT_EQ(2u, queuedBuffers().size());
}

TEST_F(DrainTest, LateFramesAreReportedOnlyFromTheTwentyFirstOn) {
    makeAnchored(2);
    for (const int frameNo : {20, 21}) {
        log.clear();
        peer().drain({kFd, kNowMediaUs - 50'000, frameNo, false});
        EXPECT_EQ(frameNo >= 21 ? 1 : 0, count("need catch drop pts:"));
        peer().drain({kFd, kNowMediaUs, frameNo, false});
        EXPECT_EQ(1, count("may occur drop pts:"));
        EXPECT_EQ(frameNo >= 21 ? 1 : 0, count("may need catch drop pts:"));
    }
}

TEST_F(DrainTest, FirstFrameWithoutAnAnchorAnchorsTheClockAndIsLate) {
    make(1, false);
    peer().drain({1, 500'000, 0, false});
    EXPECT_EQ(1, count("[drainVideoFrame]wait audio start"));
    EXPECT_THAT(returned, ElementsAre(Returned{1, 0}));
    EXPECT_EQ(500'000, peer().anchorMediaTimeUs());
    peer().drain({2, 520'000, 0, false});
    ASSERT_EQ(1u, queuedBuffers().size());
    EXPECT_EQ(time.nowUs() + 20'000, queuedBuffers()[0].presentationTimeUs);
}

TEST_F(DrainTest, ShowIsRefusedWhileFlushedOrStopped) {
    makeAnchored(2);
    renderer->flush();
    peer().show({1, 0, 0, false}, time.nowUs());
    renderer->sendVideoFrame(5, 0, false);
    peer().pretendStopped();
    peer().show({2, 0, 0, false}, time.nowUs());
    EXPECT_THAT(returned, ElementsAre(Returned{1, 1}, Returned{2, 1}));
    EXPECT_EQ(2, count("[showFrame]do not show, need return frame"));
    EXPECT_THAT(queuedBuffers(), IsEmpty());
    EXPECT_EQ(0u, peer().pendingRenderTimes());
}

TEST_F(DrainTest, LonePeekFrameIsShownOnceWithNanosecondTime) {
    make(0, true);
    renderer->sendVideoFrame(1, 70, false);
    peer().peekCheck();
    EXPECT_THAT(queuedBuffers(), IsEmpty()) << "not marked";
    renderer->peekFirstFrame();
    peer().peekCheck();
    ASSERT_EQ(1u, queuedBuffers().size());
    EXPECT_EQ(time.nowNs(), queuedBuffers()[0].presentationTimeUs);
    ASSERT_EQ(1u, peer().pendingRenderTimes());
    EXPECT_EQ(70, peer().lastRenderTime().mediaTimeUs);
    EXPECT_EQ(time.nowUs(), peer().lastRenderTime().renderTimeUs);

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
    EXPECT_EQ(2u, queuedBuffers().size()) << "only the lone-frame path remembers that it peeked";
    EXPECT_EQ(time.nowNs(), queuedBuffers()[1].presentationTimeUs);
    EXPECT_FALSE(peer().audioSynced());
    // A peek frame on the normal way is shown without a render time.
    const size_t before = peer().pendingRenderTimes();
    peer().show({3, 90, 0, true}, time.nowUs());
    EXPECT_EQ(before, peer().pendingRenderTimes());
}

TEST_F(DrainTest, PeekMarksOnlyALoneFrame) {
    make(0, true);
    renderer->peekFirstFrame();
    renderer->sendVideoFrame(1, 70, false);
    renderer->sendVideoFrame(2, 80, false);
    renderer->peekFirstFrame();
    videoframe frame{};
    ASSERT_TRUE(peer().take(&frame));
    EXPECT_FALSE(frame.peek);
}

TEST_F(DrainTest, RenderTimesAreReportedOneByOneAfterTheirTime) {
    makeAnchored(4);
    std::vector<int64_t> reported;
    renderer->nodifyRenderTime();
    peer().show({1, 111, 0, false}, time.nowUs());
    peer().show({2, 222, 0, false}, time.nowUs());
    peer().show({3, 333, 0, false}, std::numeric_limits<int64_t>::max());
    renderer->nodifyRenderTime();
    EXPECT_EQ(3u, peer().pendingRenderTimes()) << "kept while nobody listens";
    renderer->regCallBack(
        1,
        [](void* data, void* info) {
            static_cast<std::vector<int64_t>*>(data)->push_back(
                static_cast<rendertime*>(info)->mediaTimeUs);
            return -1;
        },
        &reported);
    renderer->nodifyRenderTime();
    EXPECT_THAT(reported, IsEmpty()) << "its time is now, not past";
    time.setNowNs(time.nowNs() + 1);
    renderer->nodifyRenderTime();
    EXPECT_THAT(reported, ElementsAre(111));
    renderer->nodifyRenderTime();
    renderer->nodifyRenderTime();
    EXPECT_THAT(reported, ElementsAre(111, 222)) << "a time beyond the clock's range never comes";
    EXPECT_EQ(1, count("[nodifyRenderTime] notify rendertime:222"));
}

TEST_F(DrainTest, DisplayIsAskedEveryTenthFrame) {
    makeAnchored(0);
    std::vector<int64_t> askedAt;
    for (int frame = 1; frame <= 25; ++frame) {
        const int64_t before = mTv->display().reportCount();
        peer().drain({kFd, kNowMediaUs - 50'000, 0, false});
        if (mTv->display().reportCount() > before) {
            askedAt.push_back(frame);
        }
    }
    EXPECT_THAT(askedAt, ElementsAre(1, 11, 21));
}

TEST_F(DrainTest, DisplayThatAnswersNonsenseKeepsThePeriodKnownBefore) {
    struct Case {
        const char* what;
        bool tunnelFails;
        bool reportFails;
        int32_t periodNs;
        int32_t kept;
        int64_t askedTunnelAndAdapter;
    };
    for (const Case& c : {Case{"tunnel answers", false, false, 20'000'000, 20'000'000, 1},
                          Case{"adapter answers", true, false, 20'000'000, 20'000'000, 1},
                          Case{"nobody answers", true, true, 20'000'000, 16'666'666, 1},
                          Case{"period 0", false, false, 0, 16'666'666, 1},
                          Case{"negative period from the adapter", true, false, -5, 16'666'666, 1}}) {
        SCOPED_TRACE(c.what);
        makeAnchored(0);
        tv::TunnelFaults faults;
        faults.vsyncQueryFails = c.tunnelFails;
        mTv->tunnel().setFaults(faults);
        mTv->display().setReportFails(c.reportFails);
        mTv->display().setReportedPeriodNs(c.periodNs);
        peer().drain({kFd, kNowMediaUs, 0, false});
        EXPECT_EQ(c.kept, peer().vsyncPeriodNs());
        mTv->tunnel().setFaults({});
        mTv->display().setReportFails(false);
        peer().pretendStopped();
        renderer.reset();
    }
}

TEST_F(DrainTest, TraceSectionsNeedTheTagCountersTheirBitToo) {
    for (const int mask : {0, 16}) {
        for (const bool tag : {false, true}) {
            SCOPED_TRACE(::testing::Message() << "mask " << mask << " tag " << tag);
            std::vector<std::string> sections;
            std::vector<std::string> counters;
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
            tv::setTraceTagEnabled(false);
            if (tag) {
                EXPECT_THAT(sections, ElementsAre("drainVideoFrame", "showFrame"));
            } else {
                EXPECT_THAT(sections, IsEmpty());
            }
            if (tag && mask == 16) {
                EXPECT_THAT(counters,
                            ElementsAre("videoFrameNumTunnel=1", "videoFrameNumTunnel=0",
                                        "getShowFramePtsTunnel=1000000", "vtQueueCntTunnel=1",
                                        "queueDiffNowMsTunnel=0"));
            } else {
                EXPECT_THAT(counters, IsEmpty());
            }
            peer().pretendStopped();
            renderer.reset();
        }
    }
}

}  // namespace
}  // namespace korvane::test
