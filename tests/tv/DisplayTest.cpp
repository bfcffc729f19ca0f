// SPDX-License-Identifier: Apache-2.0
// The display's grid and what it reports of it.
#include "tv/Display.h"

#include <gtest/gtest.h>

#include <set>

namespace korvane::tv {
namespace {

constexpr int64_t kSecondNs = 1'000'000'000;
constexpr int64_t kOriginNs = 5 * kSecondNs;

DisplayConfig at(double rateHz, double driftPpm = 0) {
    DisplayConfig config;
    config.rateHz = rateHz;
    config.originNs = kOriginNs;
    config.driftPpm = driftPpm;
    return config;
}

TEST(Display, RatesAreTrueDriftAsToldAndAreReportedInWholeNanoseconds) {
    const struct {
        double rateHz, driftPpm;
        int64_t vsyncsInThousandSeconds;  // rounded down
        int32_t reportedNs;
    } kCases[] = {{60, 0, 60'000, 16'666'666},
                  {60000.0 / 1001, 0, 59'940, 16'683'333},
                  {50, 0, 50'000, 20'000'000},
                  {24000.0 / 1001, 0, 23'976, 41'708'333},
                  {120000.0 / 1001, 0, 119'880, 8'341'666},
                  {48000.0 / 1001, 0, 47'952, 20'854'166},
                  {30000.0 / 1001, 0, 29'970, 33'366'666},
                  {24.5, 0, 24'500, 40'816'326},
                  {50, 100, 50'005, 20'000'000}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.rateHz);
        Display display(at(c.rateHz, c.driftPpm));
        const int64_t after = kOriginNs + 1000 * kSecondNs;
        EXPECT_EQ(display.lastVsyncAt(after).index, c.vsyncsInThousandSeconds);
        VsyncReport report;
        ASSERT_TRUE(display.report(after, &report));
        EXPECT_EQ(report.periodNs, c.reportedNs);
        EXPECT_EQ(report.timestampNs, display.lastVsyncAt(after).timeNs);
    }
}

TEST(Display, LastAndNextAgreeAroundEveryVsyncAndTheGridDoesNotWander) {
    Display display(at(60000.0 / 1001));
    for (int64_t index = 0; index < 5'200'000; index += 4'999) {
        const Vsync vsync = display.vsync(index);
        // Number * 1001 / 60000 s after the origin, to the nanosecond, all day.
        EXPECT_LE(std::abs(vsync.timeNs - kOriginNs - index * 1001 * (kSecondNs / 1000) / 60), 1);
        EXPECT_EQ(display.lastVsyncAt(vsync.timeNs).index, index);
        EXPECT_EQ(display.lastVsyncAt(vsync.timeNs - 1).index, index - 1);
        EXPECT_EQ(display.nextVsyncAfter(vsync.timeNs).index, index + 1);
        EXPECT_EQ(display.nextVsyncAfter(vsync.timeNs - 1).timeNs, vsync.timeNs);
    }
    EXPECT_EQ(display.lastVsyncAt(0).index, -1);
    EXPECT_EQ(display.nextVsyncAfter(0).index, 0);
}

TEST(Display, ModeChangeStartsAtAVsyncAndNumbersGoOn) {
    Display display(at(50));
    display.changeMode(kOriginNs + 30'000'000, 60);  // between vsync 1 and 2
    EXPECT_EQ(display.vsync(2).timeNs, kOriginNs + 40'000'000);
    EXPECT_EQ(display.vsync(3).timeNs, kOriginNs + 40'000'000 + 16'666'667);
    VsyncReport before;
    VsyncReport after;
    ASSERT_TRUE(display.report(kOriginNs + 39'999'999, &before));
    ASSERT_TRUE(display.report(kOriginNs + 40'000'000, &after));
    EXPECT_EQ(before.periodNs, 20'000'000);
    EXPECT_EQ(after.periodNs, 16'666'666);
    EXPECT_EQ(display.rateHz(), 60);
    // Exactly at a vsync counts as that vsync; a change that never came is forgotten.
    display.changeMode(display.vsync(100).timeNs, 24);
    display.changeMode(display.vsync(90).timeNs, 30);
    EXPECT_EQ(display.vsync(120).timeNs - display.vsync(90).timeNs, kSecondNs);
}

TEST(Display, ReportsWithBoundedSeededJitterOrWrongly) {
    DisplayConfig config = at(60);
    config.reportJitterNs = 300'000;
    Display display(config);
    Display same(config);
    config.seed = 2;
    Display other(config);
    std::set<int64_t> errors;
    int64_t likeTheOther = 0;
    VsyncReport report;
    for (int64_t i = 0; i < 1000; ++i) {
        const int64_t now = kOriginNs + i * 10'000'000;
        VsyncReport again;
        VsyncReport others;
        ASSERT_TRUE(display.report(now, &report) && same.report(now, &again) &&
                    other.report(now, &others));
        EXPECT_EQ(report.timestampNs, again.timestampNs);
        likeTheOther += report.timestampNs == others.timestampNs ? 1 : 0;
        errors.insert(report.timestampNs - display.lastVsyncAt(now).timeNs);
    }
    EXPECT_GE(*errors.begin(), -300'000);
    EXPECT_LE(*errors.rbegin(), 300'000);
    EXPECT_GT(errors.size(), 900U);
    EXPECT_LT(likeTheOther, 10) << "another seed gives other errors";
    display.setReportFails(true);
    EXPECT_FALSE(display.report(6 * kSecondNs, &report));
    EXPECT_EQ(report.periodNs, 16'666'666);
    display.setReportFails(false);
    display.setReportedPeriodNs(0);
    EXPECT_TRUE(display.report(6 * kSecondNs, &report));
    EXPECT_EQ(report.periodNs, 0);
    EXPECT_EQ(display.reportCount(), 1002);
}

}  // namespace
}  // namespace korvane::tv
