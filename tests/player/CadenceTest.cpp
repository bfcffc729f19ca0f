// The arithmetic of cadence and the search for it in dwells.
#include "player/Cadence.h"

#include <gmock/gmock.h>

#include "tv/Display.h"

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

class ExpectedCadenceTest : public ::testing::TestWithParam<RateCase> {};

TEST_P(ExpectedCadenceTest, FollowsFromTheRates) {
    const RateCase& c = GetParam();
    const auto expected =
        expectedCadence(tv::displayRateHz(c.contentHz), tv::displayRateHz(c.displayHz));
    EXPECT_EQ(expected.name(), c.pattern);
    EXPECT_NEAR(expected.secondsPerSlip(), c.secondsPerSlip, 0.02);
    if (c.direction != 0) {
        EXPECT_EQ(expected.slipPerFrame > 0 ? 1 : -1, c.direction);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rates, ExpectedCadenceTest,
    ::testing::Values(RateCase{24, 60, "[3:2]", 0, 0}, RateCase{23.976, 59.94, "[3:2]", 0, 0},
                      RateCase{24, 59.94, "[3:2]", 16.68, -1},
                      RateCase{23.976, 60, "[3:2]", 16.68, 1}, RateCase{30, 60, "[2:2]", 0, 0},
                      RateCase{29.97, 60, "[2:2]", 16.68, 1}, RateCase{60, 60, "[1:1]", 0, 0},
                      RateCase{59.94, 60, "[1:1]", 16.68, 1},
                      RateCase{60, 59.94, "[1:1]", 16.68, -1}, RateCase{25, 50, "[2:2]", 0, 0},
                      RateCase{25, 60, "[2:3:2:3:2]", 0, 0}, RateCase{50, 60, "[1:1:2:1:1]", 0, 0},
                      RateCase{15, 60, "[4:4]", 0, 0},
                      RateCase{24, 50, "[2:2:2:2:2:3:2:2:2:2:2:2]", 0, 0},
                      RateCase{23.976, 24, "[1:1]", 41.71, 1}, RateCase{50, 25, "[1:0]", 0, 0}));

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

void PrintTo(const DwellCase& c, std::ostream* out) {
    *out << c.name;
}

class AnalyseCadenceTest : public ::testing::TestWithParam<DwellCase> {};

TEST_P(AnalyseCadenceTest, TellsDemandedFromUnexpected) {
    const DwellCase& c = GetParam();
    const auto expected = expectedCadence(c.contentHz, c.displayHz);
    const auto result = analyseCadence(c.dwells, expected);
    EXPECT_EQ(result.held, c.held);
    EXPECT_EQ(result.heldFrom, c.heldFrom);
    EXPECT_EQ(result.byArithmetic, c.byArithmetic);
    EXPECT_EQ(result.unexpected, c.unexpected);
    EXPECT_EQ(result.stayed(), c.held && c.unexpected == 0);
}

const double kNtsc = 60000.0 / 1001.0;

INSTANTIATE_TEST_SUITE_P(
    Dwells, AnalyseCadenceTest,
    ::testing::Values(
        DwellCase{"steady", cycles({3, 2}, 40), 24, 60, true, 0, 0, 0},
        DwellCase{"starts with the short one", cycles({2, 3}, 40), 24, 60, true, 0, 0, 0},
        DwellCase{"settles first", join({4, 1, 2}, cycles({3, 2}, 20)), 24, 60, true, 2, 0, 0},
        DwellCase{"nine in step are no run", join({7}, cycles({3, 2}, 9)), 24, 60, false, 0, 0, 0},
        DwellCase{"ten are", join({7}, cycles({3, 2}, 10)), 24, 60, true, 1, 0, 0},
        DwellCase{"one long frame", join(join(cycles({3, 2}, 20), {9, 2}), cycles({3, 2}, 20)), 24,
                  60, true, 0, 0, 1},
        DwellCase{"out of step once", join(cycles({3, 2}, 20), cycles({2, 3}, 20)), 24, 60, true, 0,
                  0, 1},
        DwellCase{"demanded slip", join(join(cycles({3, 2}, 100), {2, 2}), cycles({3, 2}, 100)), 24,
                  kNtsc, true, 0, 1, 0},
        DwellCase{"slip in the wrong direction",
                  join(join(cycles({3, 2}, 100), {4, 2}), cycles({3, 2}, 100)), 24, kNtsc, true, 0,
                  0, 1},
        DwellCase{"a second slip too soon",
                  join(join(join(cycles({3, 2}, 100), {2, 2}), cycles({3, 2}, 40)),
                       join({2, 2}, cycles({3, 2}, 40))),
                  24, kNtsc, true, 0, 1, 1},
        DwellCase{
            "slips once each 1000 frames",
            join(join(join(cycles({1}, 900), {2}), join(cycles({1}, 999), {2})), cycles({1}, 50)),
            kNtsc, 60, true, 0, 2, 0},
        DwellCase{"superseded frames count as no vsync",
                  join(join(cycles({1}, 30), {0}), cycles({1}, 30)), 60, 60, true, 0, 0, 1},
        DwellCase{"nothing fits", cycles({5, 1, 1}, 60), 24, 60, false, 0, 0, 0},
        DwellCase{"nothing at all", {}, 24, 60, false, 0, 0, 0}));

TEST(AnalyseCadence, ABreakSaysWhereAndWhatWasWanted) {
    auto dwells = cycles({2}, 40);
    dwells[25] = 5;
    const auto result = analyseCadence(dwells, expectedCadence(30, 60));
    ASSERT_EQ(result.breaks.size(), 1U);
    EXPECT_EQ(result.breaks[0].index, 25U);
    EXPECT_EQ(result.breaks[0].dwell, 5);
    EXPECT_EQ(result.breaks[0].expected, 2);
}

TEST(SeenPattern, IsReadFromTheDwellsAlone) {
    EXPECT_THAT(seenPattern(cycles({2, 3}, 40)), ElementsAre(3, 2));
    EXPECT_THAT(seenPattern(join({9}, cycles({2}, 40))), ElementsAre(2));
    EXPECT_TRUE(samePattern(seenPattern(cycles({2, 3, 2, 3, 2}, 60)), {2, 3, 2, 3, 2}));
    EXPECT_THAT(seenPattern({1, 4, 2, 2, 3, 1, 1, 5, 2, 4, 3, 3, 1, 2, 5, 1, 4, 4, 2, 1, 3, 5, 1}),
                IsEmpty());
    EXPECT_THAT(seenPattern({2, 2, 2}), IsEmpty());
    EXPECT_FALSE(samePattern({2, 3}, {2, 2}));
}

TEST(PatternName, WritesOneDwellTwice) {
    EXPECT_EQ(patternName({2}), "[2:2]");
    EXPECT_EQ(patternName({3, 2}), "[3:2]");
    EXPECT_EQ(patternName({}), "");
}

}  // namespace
}  // namespace korvane::player
