// SPDX-License-Identifier: Apache-2.0
// The arithmetic of cadence and the search for it in dwells.
#include "player/report/Cadence.h"

#include <gmock/gmock.h>

#include <cmath>
#include <random>
#include <string>
#include <utility>

#include "player/base/FrameRate.h"
#include "player/report/CadenceTracker.h"
#include "player/report/ContentRate.h"

namespace korvane::player {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct RateCase {
    double contentHz;
    double displayHz;
    const char* pattern;
    double secondsPerSlip;  ///< 0: none
    int direction;          ///< of the slip
};

TEST(ExpectedCadence, FollowsFromTheRates) {
    const std::vector<RateCase> cases = {{24, 60, "[3:2]", 0, 0},
                                         {23.976, 59.94, "[3:2]", 0, 0},
                                         {24, 59.94, "[3:2]", 16.68, -1},
                                         {23.976, 60, "[3:2]", 16.68, 1},
                                         {29.97, 60, "[2:2]", 16.68, 1},
                                         {60, 59.94, "[1:1]", 16.68, -1},
                                         {25, 60, "[2:3:2:3:2]", 0, 0},
                                         {24, 50, "[2:2:2:2:2:3:2:2:2:2:2:2]", 0, 0},
                                         {23.976, 24, "[1:1]", 41.71, 1},
                                         {50, 25, "[1:0]", 0, 0},
                                         {24, 119.88, "[5:5]", 8.34, -1},
                                         {25, 24, "0 and 1 vsyncs, 1:24", 1, -1},
                                         {48, 50, "1 and 2 vsyncs, 23:1", 0.5, 1},
                                         {25, 144, "5 and 6 vsyncs, 6:19", 4, 1},
                                         {50, 144, "2 and 3 vsyncs, 3:22", 4, 1},
                                         {50, 119.88, "[2:3:2:3:2]", 8.34, -1}};
    for (const auto& c : cases) {
        const auto expected =
            expectedCadence(nominalRate(c.contentHz).hz(), nominalRate(c.displayHz).hz());
        EXPECT_EQ(expected.name(), c.pattern);
        EXPECT_NEAR(expected.secondsPerSlip(), c.secondsPerSlip, 0.02) << c.pattern;
        if (c.direction != 0) {
            EXPECT_EQ(expected.slipPerFrame > 0 ? 1 : -1, c.direction) << c.pattern;
        }
    }
}

TEST(ExpectedCadence, UnknownRatesHaveNoPattern) {
    EXPECT_THAT(expectedCadence(0, 60).pattern, IsEmpty());
    EXPECT_EQ(expectedCadence(24, 0).name(), "");
}

std::vector<int> cycles(const std::vector<int>& cycle, size_t frames) {
    std::vector<int> dwells;
    for (size_t i = 0; i < frames; ++i) {
        dwells.push_back(cycle[i % cycle.size()]);
    }
    return dwells;
}

/// Dwells that continue a pattern after `tail`.
std::vector<int> join(std::vector<int> head, const std::vector<int>& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

struct Analysis : CadenceResult {
    std::vector<DwellBreak> breaks;
};

Analysis analyse(const std::vector<int>& dwells, const ExpectedCadence& expected) {
    CadenceTracker tracker(expected);
    Analysis analysis;
    const auto keep = [&analysis](const std::vector<DwellBreak>& decided) {
        analysis.breaks.insert(analysis.breaks.end(), decided.begin(), decided.end());
    };
    for (const int dwell : dwells) {
        keep(tracker.add(dwell));
        EXPECT_LE(tracker.dwells() - tracker.decided(), 2 * CadenceTracker::kUndecided);
    }
    keep(tracker.finish());
    static_cast<CadenceResult&>(analysis) = tracker.result();
    return analysis;
}

struct DwellCase {
    const char* name;
    std::vector<int> dwells;
    double contentHz;
    double displayHz;
    bool held;
    size_t heldFrom;
    size_t byArithmetic;
    size_t unexpected;
};

const double kNtsc = 60000.0 / 1001.0;

TEST(CadenceTracker, TellsDemandedFromUnexpected) {
    const auto even = cycles({3, 2}, 100);
    const std::vector<DwellCase> cases = {
        {"short one first", cycles({2, 3}, 40), 24, 60, true, 0, 0, 0},
        {"off the pattern first", join({4, 1, 2}, cycles({3, 2}, 20)), 24, 60, true, 2, 0, 2},
        {"nine in step are no run", join({7}, cycles({3, 2}, 9)), 24, 60, false, 0, 0, 1},
        {"ten are", join({7}, cycles({3, 2}, 10)), 24, 60, true, 1, 0, 1},
        {"one long", join(join(even, {9, 2}), even), 24, 60, true, 0, 0, 1},
        {"out of step once", join(even, cycles({2, 3}, 20)), 24, 60, true, 0, 0, 1},
        {"demanded slip", join(join(even, {2, 2}), even), 24, kNtsc, true, 0, 1, 0},
        {"wrong direction", join(join(even, {4, 2}), even), 24, kNtsc, true, 0, 0, 1},
        {"a second slip too soon",
         join(join(join(even, {2, 2}), cycles({3, 2}, 40)), join({2, 2}, cycles({3, 2}, 40))), 24,
         kNtsc, true, 0, 1, 1},
        {"slips once each 1000 frames",
         join(join(join(cycles({1}, 900), {2}), join(cycles({1}, 999), {2})), cycles({1}, 50)),
         kNtsc, 60, true, 0, 2, 0},
        {"a step forth and back again",
         join(join(cycles({2, 3, 2, 3, 2}, 98), cycles({2, 2, 3, 2, 3}, 50)),
              cycles({3, 2, 3, 2, 2}, 50)),
         25, kNtsc, true, 0, 1, 1},
        {"before it held", join({1, 9, 4}, cycles({3, 2}, 20)), 24, 60, true, 3, 0, 2},
        {"superseded", join(join(cycles({1}, 30), {0}), cycles({1}, 30)), 60, 60, true, 0, 0, 1},
        {"nothing fits", cycles({5, 1, 1}, 60), 24, 60, false, 0, 0, 60},
        {"nothing at all", {}, 24, 60, false, 0, 0, 0}};
    for (const auto& c : cases) {
        const auto result = analyse(c.dwells, expectedCadence(c.contentHz, c.displayHz));
        EXPECT_EQ(result.held, c.held) << c.name;
        EXPECT_EQ(result.heldFrom, c.heldFrom) << c.name;
        EXPECT_EQ(result.byArithmetic, c.byArithmetic) << c.name;
        EXPECT_EQ(result.unexpected, c.unexpected) << c.name;
        EXPECT_EQ(result.stayed(), c.held && c.unexpected == result.unexpectedBefore) << c.name;
    }
}

/// Each frame at the first vsync at which it is due: what no playback can do better.
TEST(CadenceTracker, FindsNoFaultWithEachFrameAtItsOwnVsync) {
    const double contentRates[] = {23.976, 24, 25, 29.97, 30, 47.952, 48, 50, 59.94, 60, 120};
    const double displayRates[] = {23.976, 24, 25, 50, 59.94, 60, 100, 119.88, 120, 144};
    for (const double contentName : contentRates) {
        for (const double displayName : displayRates) {
            SCOPED_TRACE(std::to_string(contentName) + " on " + std::to_string(displayName));
            const double content = nominalRate(contentName).hz();
            const double display = nominalRate(displayName).hz();
            std::vector<int> dwells;
            const auto vsyncOf = [&](size_t frame) {
                return static_cast<int>(
                    std::ceil((static_cast<double>(frame) / content + 0.0031) * display));
            };
            for (size_t frame = 0; static_cast<double>(frame) < 120 * content; ++frame) {
                dwells.push_back(vsyncOf(frame + 1) - vsyncOf(frame));
            }
            const auto result = analyse(dwells, expectedCadence(content, display));
            EXPECT_TRUE(result.held && result.unexpected == 0);
            EXPECT_EQ(result.byArithmetic, result.breaks.size());
            for (const auto& found : result.breaks) {
                EXPECT_NE(found.dwell, found.expected) << "dwell " << found.index;
            }
        }
    }
}

TEST(CadenceTracker, AStretchOfAnyLengthIsJudgedAsAShortOne) {
    auto dwells = cycles({3, 2}, 100'000);
    dwells[70'000] = 9;
    const auto result = analyse(dwells, expectedCadence(24, 60));
    EXPECT_TRUE(result.held);
    ASSERT_EQ(result.breaks.size(), 1U);
    EXPECT_EQ(result.breaks[0].index, 70'000U);
    EXPECT_EQ(result.inStep, 99'999U);
}

TEST(SeenPattern, IsReadFromTheDwellsAlone) {
    EXPECT_THAT(seenPattern(cycles({2, 3}, 40)), ElementsAre(3, 2));
    EXPECT_THAT(seenPattern(join({9}, cycles({2}, 40))), ElementsAre(2));
    EXPECT_TRUE(samePattern(seenPattern(cycles({2, 3, 2, 3, 2}, 60)), {2, 3, 2, 3, 2}));
    EXPECT_THAT(seenPattern({1, 4, 2, 2, 3, 1, 1, 5, 2, 4, 3, 3, 1, 2, 5, 1, 4, 4, 2, 1, 3, 5, 1}),
                IsEmpty());
    EXPECT_THAT(seenPattern({2, 2, 2}), IsEmpty());
    EXPECT_FALSE(samePattern({2, 3}, {2, 2}));
    const auto ratio = [](int shorter, size_t frames) {
        std::vector<int> cycle(frames, shorter);
        cycle.back() = shorter + 1;
        return seenPatternName(cycles(cycle, 480));
    };
    EXPECT_EQ(ratio(1, 24), "1 and 2 vsyncs, 23:1") << "no cycle of twelve ones";
    EXPECT_EQ(ratio(2, 12), "[2:2:2:2:2:2:2:2:2:2:2:3]");
    EXPECT_EQ(seenPatternName({1, 4, 2, 2, 3, 1, 1, 5, 2, 4, 3, 3, 1, 2, 5, 1, 4, 4, 2, 1, 3}), "");
}

struct Span {
    double hz;
    size_t frames;
    int64_t jitterUs;
    int64_t alternateUs;  ///< every other frame is so much late: soft telecine
};

struct SpanCase {
    std::vector<Span> content;
    size_t gapAt;                                  ///< two frames missing from here; 0: none
    std::vector<std::pair<size_t, double>> spans;  ///< first frame and rate
};

TEST(ContentRate, IsToldSpanBySpan) {
    const std::vector<SpanCase> cases = {
        {{{24, 900, 0, 0}}, 0, {{0, 24}}},
        {{{24, 200, 0, 0}, {30, 300, 0, 0}, {60, 700, 0, 0}, {24, 90, 0, 0}},
         0,
         {{0, 24}, {200, 30}, {500, 60}, {1200, 24}}},
        {{{24, 600, 0, 0}, {25, 600, 0, 0}}, 0, {{0, 24}, {600, 25}}},
        {{{24, 900, 6'000, 0}}, 0, {{0, 24}}},
        {{{24, 900, 15'000, 0}}, 0, {{0, 24}}},
        {{{60, 900, 6'000, 0}}, 0, {{0, 60}}},
        {{{24, 900, 0, 8'342}}, 0, {{0, 24}}},
        {{{25, 900, 0, 0}}, 700, {{0, 25}}},
        {{{25, 900, 0, 0}}, 2, {{0, 25}}},
        {{{24, 10, 0, 0}}, 0, {{0, 24}}}};
    for (const auto& c : cases) {
        ContentRate rate(c.content[0].hz);
        std::minstd_rand random(1);
        double time = 0.0;
        int64_t frame = 0;
        for (const auto& span : c.content) {
            for (size_t i = 0; i < span.frames; ++i, ++frame) {
                time += frame == static_cast<int64_t>(c.gapAt) && frame > 0 ? 2e6 / span.hz : 0.0;
                const int64_t off =
                    span.jitterUs == 0
                        ? 0
                        : static_cast<int64_t>(random()) % (2 * span.jitterUs) - span.jitterUs;
                rate.add(0, static_cast<int64_t>(time) + off +
                                (i % 2 == 1 ? span.alternateUs : int64_t{0}));
                time += 1e6 / span.hz;
            }
        }
        rate.end();
        std::vector<std::pair<size_t, double>> seen;
        size_t taken = 0;
        for (auto pace = rate.take(); pace; pace = rate.take(), ++taken) {
            if (static_cast<size_t>(pace->span) == seen.size()) {
                seen.emplace_back(taken, pace->hz);
            }
        }
        EXPECT_EQ(taken, static_cast<size_t>(frame));
        EXPECT_EQ(seen, c.spans);
        EXPECT_EQ(rate.span().cycle.size(), c.content[0].alternateUs > 0 ? 2U : 0U);
    }
}

}  // namespace
}  // namespace korvane::player
