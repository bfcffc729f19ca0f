// SPDX-License-Identifier: Apache-2.0
// The drain thread's decisions at their edges, as functions of values.
#include "renderer/FrameDecision.h"

#include <gtest/gtest.h>

#include <limits>

namespace korvane {
namespace {

constexpr int64_t kEarliest = std::numeric_limits<int64_t>::min();
constexpr int64_t kLatest = std::numeric_limits<int64_t>::max();
constexpr int32_t k60Hz = 16'666'666;    // two periods and 5 ms: 38333 us
constexpr int32_t k5994Hz = 16'683'333;  // 38366 us
constexpr int32_t k24Hz = 41'666'666;    // 88333 us

TEST(FrameDecisionTest, AFrameWaitsIsShownOrIsDroppedByHowEarlyItIs) {
    constexpr auto kWait = FrameVerdict::WaitThenShow;
    constexpr auto kShow = FrameVerdict::ShowNow;
    constexpr auto kDrop = FrameVerdict::Drop;
    const struct {
        int64_t finalUs, nowUs;
        int32_t periodNs;
        FrameVerdict verdict;
        int64_t earlyUs, waitUs;
    } kCases[] = {
        {1'038'333, 1'000'000, k60Hz, kShow, 38'333, 0},
        {1'038'334, 1'000'000, k60Hz, kWait, 38'334, 1},
        {1'038'366, 1'000'000, k5994Hz, kShow, 38'366, 0},
        {1'038'367, 1'000'000, k5994Hz, kWait, 38'367, 1},
        {1'088'333, 1'000'000, k24Hz, kShow, 88'333, 0},
        {1'088'334, 1'000'000, k24Hz, kWait, 88'334, 1},
        {5'002, 0, 999, kWait, 5'002, 1},  // 1998 ns, cut to whole microseconds
        {5'001, 0, 999, kShow, 5'001, 0},
        {1'000'000, 1'000'000, k60Hz, kShow, 0, 0},
        {960'000, 1'000'000, k60Hz, kShow, -40'000, 0},
        {959'999, 1'000'000, k60Hz, kDrop, -40'001, 0},
        {0, 1'000'000, k60Hz, kDrop, -1'000'000, 0},
        {kLatest, -1, k60Hz, kWait, kLatest, kLatest - 38'333},
        {kEarliest, 1, k60Hz, kDrop, kEarliest, 0},
    };
    for (const auto& c : kCases) {
        const FrameDecision decision = decideFrame(c.finalUs, c.nowUs, c.periodNs);
        SCOPED_TRACE(testing::Message() << c.finalUs << " at " << c.nowUs << ", " << c.periodNs);
        EXPECT_EQ(c.verdict, decision.verdict);
        EXPECT_EQ(c.earlyUs, decision.earlyUs);
        EXPECT_EQ(c.waitUs, decision.waitUs);
    }
}

TEST(FrameDecisionTest, ATrackerTimeBelowOnePeriodIsNone) {
    const struct {
        int64_t trackerUs, usedUs;
    } kCases[] = {{0, 7},      {-1, 7},          {kEarliest, 7},
                  {16'665, 7}, {16'666, 16'666}, {kLatest, kLatest}};
    for (const auto& c : kCases) {
        EXPECT_EQ(c.usedUs, usableRealTimeUs(c.trackerUs, 7, k60Hz)) << c.trackerUs;
    }
}

TEST(FrameDecisionTest, AFrameIsBehindWhileAudioStandsStillOrIsFifteenMillisecondsAhead) {
    constexpr AudioClockMarks kMarks{500'000, 400'000};
    const struct {
        int64_t trackUs, frameUs;
        bool moves, behind;
    } kCases[] = {
        {500'000, 900'000, false, true},  // at the anchor
        {400'000, 900'000, false, true},  // where it was paused
        {500'001, 485'001, true, true},     {500'001, 485'002, true, false},
        {400'001, 900'000, true, false},    {600'000, 585'000, true, true},
        {600'000, 585'001, true, false},    {kEarliest, 0, true, false},
        {kEarliest, kEarliest, true, true}, {kLatest, kLatest, true, false},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::Message() << "track " << c.trackUs << " frame " << c.frameUs);
        EXPECT_EQ(c.moves, audioClockMoves(c.trackUs, kMarks));
        EXPECT_EQ(c.behind, behindAudio(c.trackUs, kMarks, c.frameUs));
    }
}

}  // namespace
}  // namespace korvane
