// SPDX-License-Identifier: Apache-2.0
// Pattern keeping, frame by frame: the corrected time and count of one frame, and what is logged.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "tests/frac/FracTestSupport.h"
#include "tests/support/ManualClock.h"

namespace korvane::test {
namespace {

using testing::ElementsAre;

constexpr int64_t kVsyncUs = 1'000'000'000;  // the grid's last vsync
constexpr int64_t kVsyncNo = 5000;           // and its number

/// A frame before correction, one interval after the last vsync.
struct Situation {
    int period = 16666;
    int32_t inForce = kNoPattern;
    int32_t prevCount = 0;
    int32_t count = 0;  ///< this frame's repeat count before correction
    bool prevHeld = false;
    bool prevPulled = false;
    int32_t frameRate = 2400;
    int64_t sinceShortFrame = 2000;  ///< vsyncs from the last short frame to this frame
    int64_t intoUs = 8000;           ///< its time, from the start of its interval
};

class PatternKeeper : public testing::Test {
protected:
    /// Presents one frame in a situation to a new tracker.
    /// @return its corrected time from the start of its uncorrected interval, its count, and how it
    ///         was corrected: "20666 3 moved 1 held"
    std::string present(const Situation& s) {
        setLogMask(2);
        mTracker.emplace();
        mTracker->setEnablePattern(11);
        mTracker->setFrameRate(s.frameRate);
        mTracker->updateHWCVsyncInfo(kVsyncUs, s.period);
        videoSyncFrac_priv& state = stateOf(*mTracker);
        state.lastVsync.vsyncCnt = kVsyncNo;
        state.curPattern = s.inForce;
        state.prevFrame.realTimeUs = 1;
        state.prevFrame.repeatVsyncCnt = s.prevCount;
        state.prevFrame.targetVsyncCnt = kVsyncNo + 1 - s.count;
        state.prevFrame.holdFrame = s.prevHeld ? 1 : 0;
        state.prevFrame.pullFrame = s.prevPulled ? 1 : 0;
        state.curFrame = state.prevFrame;
        state.lastShortFrameVsyncCnt = kVsyncNo + 1 - s.sinceShortFrame;
        mLog.take();
        const int64_t startUs = kVsyncUs + s.period;
        const int64_t resultUs = next(startUs + s.intoUs);
        const SyncFrame& frame = state.prevFrame;
        const int64_t movedVsyncs = frame.targetVsyncCnt - frame.vsyncCnt;
        EXPECT_EQ(frame.vsyncTime, startUs);
        EXPECT_EQ(frame.targetVsyncTime, startUs + movedVsyncs * s.period);
        std::string outcome =
            std::to_string(resultUs - startUs) + " " + std::to_string(frame.repeatVsyncCnt);
        outcome += movedVsyncs == 0 ? "" : " moved " + std::to_string(movedVsyncs);
        outcome += frame.holdFrame == 1 ? " held" : "";
        outcome += frame.pullFrame == 1 ? " pulled" : "";
        outcome += state.lastShortFrameVsyncCnt == frame.targetVsyncCnt ? " short" : "";
        return outcome;
    }

    /// Presents another frame.
    int64_t next(int64_t realTimeUs) {
        long resultUs = 0;
        EXPECT_TRUE(mTracker->getRealTime(33, realTimeUs, 7, &resultUs));
        return resultUs;
    }

    ManualClock mClock{900'000'000'000};
    FracLog mLog;
    std::optional<VideoSyncFRAC> mTracker;
};

TEST_F(PatternKeeper, KeepsTimesOffTheEdgesOfTheirInterval) {
    const struct {
        int intoUs, withoutPattern, inPattern;
    } kCases[] = {{3000, 4000, 4000}, {13000, 4000, 12666}, {8000, 8000, 8000},
                  {4000, 4000, 4000}, {4001, 4001, 4001},   {12665, 12665, 12665},
                  {0, 4000, 4000},    {12666, 4000, 12666}, {16665, 4000, 12666}};
    for (const auto& c : kCases) {
        Situation s;
        s.intoUs = c.intoUs;
        s.prevCount = s.count = 2;
        EXPECT_EQ(present(s), std::to_string(c.withoutPattern) + " 2");
        s.inForce = kPattern22;
        EXPECT_EQ(present(s), std::to_string(c.inPattern) + " 2");
    }
}

TEST_F(PatternKeeper, CorrectsAnErrorOfOneOnAnyDisplay) {
    const struct {
        int32_t inForce, prevCount, count;
        const char* outcome;
    } kCases[] = {
        {kPattern32, 2, 2, "20666 3 moved 1 held"},
        {kPattern32, 3, 1, "20666 2 moved 1 held"},
        {kPattern22, 2, 1, "20666 2 moved 1 held"},
        {kPattern11, 1, 0, "20666 1 moved 1 held"},
        {kPattern41, 2, -1, "20666 0 moved 1 held"},
        {kPattern32, 3, 3, "-4000 2 moved -1 pulled"},
        {kPattern32, 2, 4, "-4000 3 moved -1 pulled"},
        {kPattern22, 2, 3, "-4000 2 moved -1 pulled"},
        {kPattern11, 1, 2, "-4000 1 moved -1 pulled"},
        {kPattern41, 2, 1, "-4000 0 moved -1 pulled"},
        {kPattern41, 1, 0, "8000 0"},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(present({16666, c.inForce, c.prevCount, c.count}), c.outcome);
    }
    EXPECT_EQ(present({20000, kPattern22, 2, 1}), "24000 2 moved 1 held");
    EXPECT_EQ(present({16683, kPattern22, 2, 3}), "-4000 2 moved -1 pulled");
}

TEST_F(PatternKeeper, CorrectsAnErrorOfTwoOnlyWhereTheDisplaysRateExplainsIt) {
    constexpr bool kHeld = true;
    constexpr bool kPulled = true;
    const struct {
        const char* why;
        Situation situation;
        const char* outcome;
    } kCases[] = {
        {"short frame", {16683, kPattern22, 2, 0, kHeld, false, 3000, 5}, "20683 2 moved 1 short"},
        {"60 fps", {16683, kPattern11, 1, -1, kHeld, false, 6000, 995}, "20683 1 moved 1 short"},
        {"60 fps, soon",
         {16683, kPattern11, 1, -1, kHeld, false, 6000, 994},
         "37366 1 moved 2 held"},
        {"60 fps, restarted",
         {16683, kPattern11, 1, -1, kHeld, false, 6000, -2000},
         "37366 1 moved 2 held"},
        {"nothing held", {16683, kPattern22, 2, 0, false}, "8000 0"},
        {"odd one before", {16683, kPattern22, 3, 0, kHeld}, "8000 0"},
        {"three early", {16683, kPattern22, 2, -1, kHeld}, "8000 -1"},
        {"early on 60 Hz", {16666, kPattern22, 2, 0, kHeld}, "8000 0"},
        {"freeze", {16666, kPattern22, 2, 4, false, kPulled}, "-12666 2 moved -1 pulled"},
        {"nothing pulled", {16666, kPattern22, 2, 4}, "8000 4"},
        {"odd one before", {16666, kPattern22, 1, 4, false, kPulled}, "8000 4 pulled"},
        {"three late", {16666, kPattern22, 2, 5, false, kPulled}, "8000 5 pulled"},
        {"late on 59.94 Hz", {16683, kPattern22, 2, 4, false, kPulled}, "8000 4 pulled"},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(present(c.situation), c.outcome) << c.why;
    }
}

TEST_F(PatternKeeper, LogsWhatItDoes) {
    const std::string placed =
        "D [updateSyncFrame]hwcvsync:1000016666 vsyncnt:5001, realtime:1000024666 mediatimeus:33 "
        "vsyncnt:5001, timediff=8000, repeatVsynCnt:";
    present({16666, kPattern22, 2, 1});
    EXPECT_THAT(mLog.take(),
                ElementsAre(placed + "1", "D need hold one sync !!",
                            "D [checkPattern]pattern [2:2] hold one frame",
                            "D [checkPattern]pattern [2:2] No:7 finnal repeatcnt:2 vsynccnt:5002, "
                            "vsynctime[1000033332-1000049998], diffvsync:4000, diffnow:100037332"));
    present({16666, kNoPattern, 2, 1, false, false, 2400, 0, 13000});
    EXPECT_THAT(mLog.take(),
                ElementsAre(testing::_,
                            "D [checkPattern]no pattern may also adjust realtime, "
                            "1000029666->1000020666 diff:-9000",
                            "D [checkPattern] NO:7 finnal repeatcnt:1 vsynccnt:5001, "
                            "vsynctime[1000016666-1000033332], diffvsync:4000, diffnow:100020666"));
    const std::string early = "E [checkPattern] pattern [2:2] here may need escape one sync, ";
    const std::string needPull = "D [checkPattern]pattern [2:2] need pull one frame";
    const std::string late = "E [checkPattern] pattern [2:2] here may need freeze one sync, ";
    const struct {
        Situation situation;
        Lines lines;  ///< between the first and the last
    } kCases[] = {
        {{16666, kPattern22, 2, 3}, {needPull, "D [checkPattern]pattern [2:2] pull one frame"}},
        {{16666, kPattern22, 1, 0, true},
         {early + "holdFrame:1, prevcnt:1, 2, shouldcnt:2, nowrepeatcnt:0",
          "D [checkPattern] pattern [2:2] will hold frame"}},
        {{16683, kPattern22, 2, -1},
         {early + "holdFrame:0, prevcnt:2, 2, shouldcnt:2, nowrepeatcnt:-1",
          "E [checkPattern]diff is too large[2->-1], cannnot pull frame to keep pattern [2:2]"}},
        {{16683, kPattern22, 2, 0, true, false, 6000, 5},
         {early + "holdFrame:1, prevcnt:2, 2, shouldcnt:2, nowrepeatcnt:0",
          "D [checkPattern] little differ pattern [2:2] No:7, not seen should short frame"}},
        {{16666, kPattern22, 2, 4, false, true},
         {needPull, late + "pullFrame:1, prevcnt:2, 2, shouldcnt:2, nowrepeatcnt:4",
          "D [checkPattern] pattern [2:2] No:7 will occur one freeze frame"}},
    };
    for (const auto& c : kCases) {
        present(c.situation);
        const Lines lines = mLog.take();
        EXPECT_EQ(Lines(lines.begin() + 1, lines.end() - 1), c.lines);
    }
}

TEST_F(PatternKeeper, TheFirstFrameAlignsTheGridAndTheSecondCountsFromTheFirstVsync) {
    present({});
    mTracker->resetFRC();
    mTracker->updateHWCVsyncInfo(kVsyncUs, 16666);
    mLog.take();
    const int64_t startUs = kVsyncUs + 49998;
    EXPECT_EQ(next(startUs + 5000), startUs + 4166);
    EXPECT_EQ(mLog.take()[0],
              "D [updateSyncFrame]first hwcvsync:1000000000 [1000049998-1000066664], diff=4166, "
              "hwcoffset:-834");
    const SyncFrame& frame = stateOf(*mTracker).prevFrame;
    EXPECT_EQ(frame.targetVsyncCnt, 0);
    EXPECT_EQ(frame.frameEndTimeUs, startUs + 5000 + 41666);
    EXPECT_EQ(next(startUs + 33332 + 5000), startUs + 33332 + 4166);
    EXPECT_EQ(frame.repeatVsyncCnt, 6);
    EXPECT_EQ(frame.vsync.vsyncTime, kVsyncUs);
    // A first frame before the last vsync: the division truncates towards zero.
    mTracker->resetFRC();
    mTracker->updateHWCVsyncInfo(kVsyncUs, 16666);
    EXPECT_EQ(next(kVsyncUs - 16666 - 5000), kVsyncUs - 16666 + 4166);
}

TEST_F(PatternKeeper, WithoutAVsyncTheResultIsBelowOnePeriodAndSwitchedOffThereIsNone) {
    present({});
    mTracker->resetFRC();
    for (int frame = 0; frame < 2; ++frame) {
        mLog.take();
        EXPECT_EQ(next(kVsyncUs), 4000);
        EXPECT_EQ(mLog.take()[0],
                  "D [updateSyncFrame]first hwcvsync have not get,  33 not calculate pattern");
        EXPECT_EQ(stateOf(*mTracker).prevFrame.realTimeUs, 0);
    }
    mTracker.emplace();
    mLog.take();
    EXPECT_EQ(next(kVsyncUs), 0);
    EXPECT_EQ(mLog.take(), (Lines{"D [getRealTime]no pattern enable, return"}));
}

TEST_F(PatternKeeper, OnlyEnabledDetectorsOnKnownDisplaysRun) {
    for (const auto& [mask, period, matches] :
         {std::tuple{8, 16666, 2}, {3, 16666, 1}, {8, 20000, 0}}) {
        present({period, kNoPattern, 1, 1});
        mTracker->setEnablePattern(mask);
        next(kVsyncUs + int64_t{2} * period + 8000);
        EXPECT_EQ(stateOf(*mTracker).patternMatchCnt[kPattern11], matches) << mask;
    }
}

TEST_F(PatternKeeper, APatternFoundAtAFrameIsInForceFromTheNextOn) {
    present({16666, kNoPattern, 1, 1});
    stateOf(*mTracker).patternMatchCnt[kPattern11] = 9;
    const int64_t startUs = kVsyncUs + 33332;
    EXPECT_EQ(next(startUs + 13000), startUs + 4000);
    EXPECT_EQ(inForce(*mTracker), "[1:1]");
    EXPECT_EQ(next(startUs + 16666 + 13000), startUs + 16666 + 12666);
}

}  // namespace
}  // namespace korvane::test
