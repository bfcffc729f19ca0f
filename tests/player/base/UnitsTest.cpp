// SPDX-License-Identifier: Apache-2.0
// How values are read and written, the same for options, scenarios and reports.
#include "player/base/Units.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "player/base/FrameRate.h"

namespace korvane::player {
namespace {

TEST(Units, DurationsAreReadWithTheirUnit) {
    const std::vector<std::pair<const char*, int64_t>> good = {{"2s", 2'000'000},
                                                               {"200ms", 200'000},
                                                               {"500us", 500},
                                                               {"1.5", 1'500'000},
                                                               {"0", 0},
                                                               {".5s", 500'000},
                                                               {"0.0000004s", 0},
                                                               {"-20ms", -20'000},
                                                               {"1h", 3600'000'000},
                                                               {"90m", 5400'000'000},
                                                               {"1h30m", 5400'000'000},
                                                               {"1m2s3ms4us", 62'003'004}};
    for (const auto& [text, us] : good) {
        EXPECT_EQ(parseDuration(text), us) << text;
    }
    for (const char* text :
         {"", "s", "ms", "2x", "--1s", "1s2", "1e3", "0x10", "inf", "nan", "1 s", "1.2.3",
          "99999999999", "1000h", "1h1h", "1s2ms3ms", "30m1h", "1ms1s"}) {
        EXPECT_FALSE(parseDuration(text).has_value()) << text;
    }
}

TEST(Units, DriftsAreReadWithAndWithoutTheirUnit) {
    const std::vector<std::pair<const char*, double>> good = {
        {"50", 50.0},   {"50ppm", 50.0},   {"-200ppm", -200.0}, {"+0.5", 0.5},
        {".5ppm", 0.5}, {"1e2ppm", 100.0}, {"0", 0.0},          {"50000ppm", 50'000.0}};
    for (const auto& [text, ppm] : good) {
        EXPECT_EQ(parseDrift(text), ppm) << text;
    }
    for (const char* text : {"", "ppm", "-ppm", "50 ppm", " 50ppm", "50ppmppm", "50pp", "5%",
                             "0x10", "inf", "nanppm", "50001", "-50001ppm", "1e", "--1"}) {
        EXPECT_FALSE(parseDrift(text)) << text;
    }
}

TEST(FrameRate, BroadcastNamesMeanFractionsAndOthersThemselves) {
    const struct {
        const char* text;
        int64_t frames, seconds;
    } kCases[] = {{"24", 24, 1},
                  {"23.976", 24000, 1001},
                  {"23.98", 24000, 1001},
                  {"29.97", 30000, 1001},
                  {"47.95", 48000, 1001},
                  {"59.94", 60000, 1001},
                  {"119.88", 120000, 1001},
                  {"60000/1001", 60000, 1001},
                  {"23.97", 2397, 100},
                  {"0.5", 1, 2}};
    for (const auto& c : kCases) {
        const auto rate = parseRate(c.text);
        ASSERT_TRUE(rate) << c.text;
        EXPECT_EQ(rate->frames, c.frames) << c.text;
        EXPECT_EQ(rate->seconds, c.seconds) << c.text;
    }
    for (const char* text : {"", "0", "60/", "/1001", "60/0", "-24", "24fps", "1e2", "0/1"}) {
        EXPECT_FALSE(parseRate(text)) << text;
    }
    for (const double none : {8e37, -1.0, std::nan("")}) {
        EXPECT_EQ(nominalRate(none).hz(), 0.0) << none;
    }
}

TEST(Units, NumbersAreWrittenShort) {
    EXPECT_EQ(rate(60000.0 / 1001), "59.94");
    EXPECT_EQ(rate(24000.0 / 1001), "23.976");
    EXPECT_EQ(rateInHundredths(30000.0 / 1001), 2997);
    EXPECT_EQ(signedMilliseconds(12'340), "+12.3 ms");
    EXPECT_EQ(counted(1, "frame"), "1 frame");
}

}  // namespace
}  // namespace korvane::player
