// The display's grid and what it reports of it.
#include "tv/Display.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>

namespace korvane::tv {
namespace {

constexpr int64_t kSecondNs = 1'000'000'000;
constexpr int64_t kDayNs = 24 * 3600 * kSecondNs;

DisplayConfig at(double rateHz) {
    DisplayConfig config;
    config.rateHz = rateHz;
    config.originNs = 5 * kSecondNs;
    return config;
}

struct RateCase {
    double nominalHz;
    int64_t vsyncsInThousandSeconds;  // rounded down
    int32_t reportedNs;
};

TEST(Display, RatesAreTrueAndReportedInWholeNanoseconds) {
    for (const RateCase& rate : {RateCase{60, 60'000, 16'666'666},
                                 {59.94, 59'940, 16'683'333},
                                 {50, 50'000, 20'000'000},
                                 {23.976, 23'976, 41'708'333},
                                 {119.88, 119'880, 8'341'666},
                                 {47.952, 47'952, 20'854'166},
                                 {29.97, 29'970, 33'366'666},
                                 {24.5, 24'500, 40'816'326}}) {
        SCOPED_TRACE(rate.nominalHz);
        Display display(at(displayRateHz(rate.nominalHz)));
        const int64_t after = 5 * kSecondNs + 1000 * kSecondNs;
        EXPECT_EQ(display.lastVsyncAt(after).index, rate.vsyncsInThousandSeconds);
        VsyncReport report;
        ASSERT_TRUE(display.report(after, &report));
        EXPECT_EQ(report.periodNs, rate.reportedNs);
        EXPECT_EQ(report.timestampNs, display.lastVsyncAt(after).timeNs);
    }
}

TEST(Display, GridDoesNotWanderOverADay) {
    Display display(at(displayRateHz(59.94)));
    // 60000/1001 Hz for a day: 86400 * 60000 / 1001 vsyncs, and back to the nanosecond.
    const int64_t index = int64_t{86'400} * 60'000 / 1001;
    const int64_t exactNs = 5 * kSecondNs + (index * 1001 * kSecondNs + 30'000) / 60'000;
    EXPECT_NEAR(static_cast<double>(display.vsync(index).timeNs - exactNs), 0.0, 1.0);
    EXPECT_EQ(display.lastVsyncAt(5 * kSecondNs + kDayNs).index, index);
}

TEST(Display, LastAndNextAgreeAroundEveryVsync) {
    Display display(at(displayRateHz(23.976)));
    for (int64_t index = 0; index < 5'000'000; index += 4'999) {
        const Vsync vsync = display.vsync(index);
        EXPECT_EQ(display.lastVsyncAt(vsync.timeNs).index, index);
        EXPECT_EQ(display.lastVsyncAt(vsync.timeNs - 1).index, index - 1);
        EXPECT_EQ(display.nextVsyncAfter(vsync.timeNs).index, index + 1);
        EXPECT_EQ(display.nextVsyncAfter(vsync.timeNs - 1).timeNs, vsync.timeNs);
    }
    EXPECT_EQ(display.lastVsyncAt(0).index, -1);
    EXPECT_EQ(display.nextVsyncAfter(0).index, 0);
}

TEST(Display, DriftMovesTheGridButNotTheReport) {
    DisplayConfig config = at(50);
    config.driftPpm = 100;
    Display display(config);
    EXPECT_EQ(display.lastVsyncAt(5 * kSecondNs + 1000 * kSecondNs).index, 50'005);
    VsyncReport report;
    ASSERT_TRUE(display.report(6 * kSecondNs, &report));
    EXPECT_EQ(report.periodNs, 20'000'000);
    EXPECT_LT(display.periodNsAt(6 * kSecondNs), 20'000'000.0);
}

TEST(Display, ModeChangeStartsAtAVsyncAndNumbersGoOn) {
    Display display(at(50));
    display.changeMode(5 * kSecondNs + 30'000'000, 60);  // between vsync 1 and 2
    EXPECT_EQ(display.vsync(2).timeNs, 5 * kSecondNs + 40'000'000);
    EXPECT_EQ(display.vsync(3).timeNs, 5 * kSecondNs + 40'000'000 + 16'666'667);
    EXPECT_EQ(display.lastVsyncAt(5 * kSecondNs + 39'999'999).index, 1);
    VsyncReport before;
    VsyncReport after;
    ASSERT_TRUE(display.report(5 * kSecondNs + 39'999'999, &before));
    ASSERT_TRUE(display.report(5 * kSecondNs + 40'000'000, &after));
    EXPECT_EQ(before.periodNs, 20'000'000);
    EXPECT_EQ(after.periodNs, 16'666'666);
    EXPECT_EQ(display.rateHz(), 60);
    // Exactly at a vsync counts as that vsync; a change that never came is forgotten.
    display.changeMode(display.vsync(100).timeNs, 24);
    display.changeMode(display.vsync(90).timeNs, 30);
    EXPECT_EQ(display.vsync(91).timeNs - display.vsync(90).timeNs, 33'333'333);
    EXPECT_NEAR(static_cast<double>(display.vsync(120).timeNs - display.vsync(90).timeNs),
                static_cast<double>(kSecondNs), 1.0);
}

TEST(Display, JitterIsBoundedSeededAndOnlyInTheReport) {
    DisplayConfig config = at(60);
    config.reportJitterNs = 300'000;
    Display display(config);
    Display same(config);
    std::set<int64_t> errors;
    for (int64_t i = 0; i < 1000; ++i) {
        const int64_t now = 5 * kSecondNs + i * 10'000'000;
        VsyncReport report;
        VsyncReport again;
        ASSERT_TRUE(display.report(now, &report));
        ASSERT_TRUE(same.report(now, &again));
        EXPECT_EQ(report.timestampNs, again.timestampNs);
        errors.insert(report.timestampNs - display.lastVsyncAt(now).timeNs);
    }
    EXPECT_GE(*errors.begin(), -300'000);
    EXPECT_LE(*errors.rbegin(), 300'000);
    EXPECT_GT(errors.size(), 900U);
}

TEST(Display, ReportFaults) {
    Display display(at(60));
    VsyncReport report{7, 7};
    display.setReportFails(true);
    EXPECT_FALSE(display.report(6 * kSecondNs, &report));
    EXPECT_EQ(report.periodNs, 7);
    display.setReportFails(false);
    display.setReportedPeriodNs(0);
    EXPECT_TRUE(display.report(6 * kSecondNs, &report));
    EXPECT_EQ(report.periodNs, 0);
    EXPECT_EQ(display.reportCount(), 2);
}

}  // namespace
}  // namespace korvane::tv
