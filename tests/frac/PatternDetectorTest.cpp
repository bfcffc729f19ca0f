// SPDX-License-Identifier: Apache-2.0
// Pattern detection from repeat counts. A case is a string of counts, one per frame, and the
// pattern in force after each: '3' [3:2], '2' [2:2], '4' [4:1], '1' [1:1], '.' none.
#include <gtest/gtest.h>

#include "tests/frac/FracTestSupport.h"

namespace korvane::test {
namespace {

/// Calls a detector frame by frame, as getRealTime does.
std::string feed(VideoSyncFRAC& tracker, int pattern, const std::string& counts) {
    videoSyncFrac_priv& state = stateOf(tracker);
    std::string inForce;
    for (const char count : counts) {
        state.curFrame.repeatVsyncCnt = count - '0';
        EXPECT_TRUE(tracker.detectPattern(pattern));
        state.prevFrame = state.curFrame;
        inForce += ".3241"[state.curPattern + 1];
    }
    return inForce;
}

TEST(PatternDetector, DeclaresOnTheTenthFitAndBreaksOnTheFirstMisfit) {
    const struct {
        const char* why;
        int pattern;
        const char* counts;
        const char* inForce;
        int detected, broken;
    } kCases[] = {
        {"tenth fit", kPattern32, "32323232323232", "..........3333", 1, 0},
        {"either order", kPattern32, "23232323232", "..........3", 1, 0},
        {"breaks on equal twos", kPattern32, "3232323232322", "..........33.", 1, 1},
        {"breaks on equal threes", kPattern32, "323232323233", "..........3.", 1, 1},
        {"again", kPattern32, "3232323232332323232323", "..........3..........3", 2, 1},
        {"[2:2]", kPattern22, "222222222223", "..........2.", 1, 1},
        {"[2:2] takes no 3:2", kPattern22, "323232323232", "............", 0, 0},
        {"[1:1]", kPattern11, "111111111110", "..........1.", 1, 1},
        {"[1:1] takes no twos", kPattern11, "222222222222", "............", 0, 0},
        {"two cycles, at the third 2", kPattern41, "2111211123", "........4.", 1, 1},
        {"further cycles change nothing", kPattern41, "2111211121112", "........44444", 1, 0},
        {"a fourth 1 breaks", kPattern41, "21112111211111", "........4444..", 1, 1},
        {"no cycle starts with a 1", kPattern41, "111122", "......", 0, 0},
        {"short cycle after a whole one", kPattern41, "211122", ".....4", 1, 0},
        {"short first cycles do not count", kPattern41, "2122111222", "........44", 1, 0},
        {"entries outlive a break", kPattern41, "21112321112", "..........4", 1, 0},
    };
    constexpr const char* kPairs[] = {"3:2", "2:2", "4:1", "1:1"};
    setLogMask(1);
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.why) + ": " + c.counts);
        VideoSyncFRAC tracker;
        FracLog log;
        EXPECT_EQ(feed(tracker, c.pattern, c.counts), c.inForce);
        EXPECT_EQ(stateOf(tracker).patternDetectedCnt[c.pattern], c.detected);
        EXPECT_EQ(stateOf(tracker).patternBrokenCnt[c.pattern], c.broken);
        const std::string pair = kPairs[c.pattern];
        const std::string broken = c.pattern == kPattern41
                                       ? "I [detectPattern]4:1 pattern broken"
                                       : "I [detectPattern] pattern [" + pair + "] broken";
        Lines expected;
        for (int i = 0; i < c.detected + c.broken; ++i) {
            expected.push_back(i % 2 == 0 ? "I [detectPattern]" + pair + " pattern detected"
                                          : broken);
        }
        EXPECT_EQ(log.take(), expected);
    }
}

TEST(PatternDetector, ABreakOfAnyDeclaredPatternLeavesNoneInForce) {
    setLogMask(4);
    VideoSyncFRAC tracker;
    {
        FracLog log;
        EXPECT_FALSE(tracker.detectPattern(4) || tracker.detectPattern(-1));
        EXPECT_EQ(log.take(), Lines(2, "D [detectPattern] unknown pattern"));
    }
    feed(tracker, kPattern32, "32323232323");
    EXPECT_EQ(feed(tracker, kPattern22, "22222222222"), "33333333332");
    EXPECT_EQ(feed(tracker, kPattern32, "2"), ".");
    EXPECT_EQ(stateOf(tracker).patternMatchCnt[kPattern22], 10);
}

}  // namespace
}  // namespace korvane::test
