// SPDX-License-Identifier: Apache-2.0
// The tracker's lifecycle, configuration and vsync grid.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <new>
#include <optional>

#include "tests/frac/FracTestSupport.h"

namespace {

bool gAllocationFails = false;

}  // namespace

// Replaces the C++ runtime's in the whole process, so that a test can make it fail.
__attribute__((visibility("default"))) void* operator new(std::size_t bytes,
                                                          const std::nothrow_t&) noexcept {
    return gAllocationFails ? nullptr : ::operator new(bytes);
}

namespace korvane::test {
namespace {

using testing::Each;

class VideoSyncFRACTest : public testing::Test {
protected:
    /// A tracker that logs every message, after its construction.
    VideoSyncFRACTest() {
        setLogMask(3);
        tracker.emplace();
        log.take();
    }
    ~VideoSyncFRACTest() override { tv::clearProperties(); }

    FracLog log;
    std::optional<VideoSyncFRAC> tracker;
};

TEST_F(VideoSyncFRACTest, WithoutItsStateEveryOperationSaysSoAndRefuses) {
    gAllocationFails = true;
    VideoSyncFRAC empty;
    gAllocationFails = false;
    EXPECT_EQ(log.take()[2], "E malloc error");
    long resultUs = 5;
    EXPECT_FALSE(empty.resetFRC() || empty.setFrameRate(2400) || empty.setEnablePattern(1) ||
                 empty.updateHWCVsyncInfo(1, 1) || empty.detectPattern(0) ||
                 empty.updateSyncFrame(1, 1, 1) || empty.getRealTime(1, 1, 1, &resultUs) ||
                 empty.checkPattern(&resultUs));
    Lines expected;
    for (const std::string operation :
         {"resetFRC", "setFrameRate", "setEnablePattern", "updateHWCVsyncInfo", "detectPattern",
          "updateSyncFrame", "getRealTime", "checkPattern"}) {
        expected.push_back("E [" + operation + "]no videoSyncFrac_priv");
    }
    EXPECT_EQ(log.take(), expected);
    EXPECT_EQ(resultUs, 5);
    EXPECT_EQ(empty.getDispMode(16666), 1);
}

TEST_F(VideoSyncFRACTest, TakesItsLogMaskFromTheProperty) {
    for (const auto& [mask, lines] : {std::pair{1, 3U}, {2, 2U}, {0, 1U}}) {
        setLogMask(1);
        tracker.emplace();  // the constructor logs under the mask before
        log.take();
        setLogMask(mask);
        { const VideoSyncFRAC another; }
        EXPECT_EQ(log.take().size(), lines) << mask;
    }
}

TEST_F(VideoSyncFRACTest, RefusesFrameRatesAndEnableMasksThatItDoesNotKnow) {
    const videoSyncFrac_priv& state = stateOf(*tracker);
    const std::pair<int, int> kRates[] = {{6000, 16666}, {2997, 33366}, {1, 100'000'000},
                                          {6001, 0},     {0, 0},        {INT32_MIN, 0}};
    for (const auto& [rate, durationUs] : kRates) {
        tracker->setFrameRate(2400);
        log.take();
        EXPECT_TRUE(tracker->setFrameRate(rate));
        EXPECT_EQ(state.frameRate, durationUs != 0 ? rate : 2400);
        EXPECT_EQ(state.frameDurationUs, durationUs != 0 ? durationUs : 41666);
        EXPECT_EQ(log.take()[0], (durationUs != 0 ? "I [setFrameRate] framerate:"
                                                  : "E [setFrameRate]invalid framerate:") +
                                     std::to_string(rate));
    }
    for (const auto& [mask, stored] : {std::pair{0, 0}, {11, 11}, {16, 11}, {0, 11}, {20, 20}}) {
        EXPECT_TRUE(tracker->setEnablePattern(mask));
        EXPECT_EQ(state.enablePattern, stored) << mask;
    }
}

// One display, report by report.
TEST_F(VideoSyncFRACTest, FollowsTheDisplaysVsyncs) {
    const std::string changed = "I [updateHWCVsyncInfo]hdmi frequency changed from ";
    const std::string invalid = "E [updateHWCVsyncInfo]invalid hwc vsync info, vsynctime:";
    const Lines k60{"D hwc dispmode: 60HZ", "D hwc 60HZ support pattern check"};
    const std::string advanced = "D [updateHWCVsyncInfo]hwcvsync:";
    const struct {
        long timeUs;
        int period;
        bool result;
        int64_t count;
        int mode;
        std::string firstLine;
    } kReports[] = {
        {0, 16666, true, 0, 0, invalid + "0, vsyncinc:16666"},
        {1'000'000, 16666, true, 1, 2, "D hwc dispmode: 60HZ"},
        {1'041'665, 16666, true, 4, 2,  // 2.5 periods: three
         advanced + "1041665, prevsync:1000000 syncdiff:41665, synccntdiff:3 vsyncinc:16666, "
                    "vsynccnt:4"},
        {1'081'663, 16666, true, 6, 2,
         advanced + "1081663, prevsync:1041665 syncdiff:39998, "
                    "synccntdiff:2 vsyncinc:16666, vsynccnt:6"},
        {1'081'662, 16666, false, 6, 2,
         "E invalid vsync info, never should enter here, need hwc check  soft vsync"},
        {1'090'000, 0, true, 6, 2, invalid + "1090000, vsyncinc:0"},
        {1'000'000, 16683, true, 1, 1, changed + "60->59"},
        {1'100'000, 16667, true, 1, 0, changed + "59->59"},
        {1'200'000, 20000, true, 1, 0, changed + "59->50"},
        {1'300'000, 16666, true, 1, 2, changed + "50->60"},
    };
    const videoSyncFrac_priv& state = stateOf(*tracker);
    for (const auto& report : kReports) {
        SCOPED_TRACE(std::to_string(report.timeUs) + ", " + std::to_string(report.period));
        EXPECT_EQ(tracker->updateHWCVsyncInfo(report.timeUs, report.period), report.result);
        EXPECT_EQ(state.lastVsync.vsyncCnt, report.count);
        EXPECT_EQ(state.dispMode, report.mode);
        EXPECT_EQ(state.patternCheckSupported, report.mode != 0);
        const int row = tracker->getDispMode(state.lastVsync.vsyncInc);
        EXPECT_EQ(row, report.mode - 1);
        EXPECT_STREQ(state.dispModeName, row < 0 ? nullptr : row == 0 ? "59.94HZ" : "60HZ");
        EXPECT_EQ(log.take()[0], report.firstLine);
    }
    tracker->resetFRC();
    tracker->updateHWCVsyncInfo(1'000'000, 16666);
    EXPECT_EQ(log.take(), (Lines{"D [resetFRC] reset FRAC", k60[0], k60[1],
                                 "D first hwcvsync:1000000, vsyncinc:16666"}));
    tracker->updateHWCVsyncInfo(1'000'000, 20000);
    EXPECT_EQ(log.take(), (Lines{changed + "60->50", "D [resetFRC] reset FRAC"}));
}

TEST_F(VideoSyncFRACTest, AResetForgetsFramesAndVsyncsButNotSettingsAndStatistics) {
    videoSyncFrac_priv& state = stateOf(*tracker);
    tracker->setFrameRate(2997);
    tracker->setEnablePattern(11);
    tracker->updateHWCVsyncInfo(1'000'000, 16666);
    for (int i = 0; i < kPatternCount; ++i) {
        state.patternMatchCnt[i] = state.patternDetectedCnt[i] = state.curPattern = 1;
    }
    state.hwcOffset = state.prevFrame.realTimeUs = state.lastShortFrameVsyncCnt = 77;
    EXPECT_TRUE(tracker->resetFRC());
    EXPECT_THAT(state.patternMatchCnt, Each(0));
    EXPECT_THAT((std::array<int64_t, 4>{state.firstVsync.vsyncTime, state.lastVsync.vsyncInc,
                                        state.prevFrame.realTimeUs, state.hwcOffset}),
                Each(0));
    EXPECT_EQ(state.curPattern, -1);
    EXPECT_EQ(state.frameRate, 2997);
    EXPECT_EQ(state.enablePattern, 11);
    EXPECT_EQ(state.lastShortFrameVsyncCnt, 77);
    EXPECT_THAT(state.patternDetectedCnt, Each(1));
}

}  // namespace
}  // namespace korvane::test
