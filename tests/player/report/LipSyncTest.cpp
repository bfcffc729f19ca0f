// SPDX-License-Identifier: Apache-2.0
// The statistics of lip-sync, and the definitions of median, p99 and worst that all lines share.
#include "player/report/LipSync.h"

#include <gtest/gtest.h>

#include <vector>

namespace korvane::player {
namespace {

TEST(Spread, IsWhatItsDefinitionsSay) {
    std::vector<int64_t> hundred;
    for (int64_t i = 1; i <= 100; ++i) {
        hundred.push_back(i % 2 == 0 ? i : -i);
    }
    const struct {
        std::vector<int64_t> values;
        int64_t median, p99, worst;
    } cases[] = {{{}, 0, 0, 0},
                 {{-7}, -7, 7, -7},
                 {{10, 1, 5, 2}, 3, 10, 10},
                 {{-30, 20, 1}, 1, 30, -30},
                 {{5, -5}, 0, 5, 5},
                 {hundred, 0, 99, 100}};
    for (const auto& c : cases) {
        SpreadCounter counter;
        for (const int64_t value : c.values) {
            counter.add(value);
        }
        const Spread spread = counter.spread();
        EXPECT_EQ(spread.samples, static_cast<int64_t>(c.values.size()));
        EXPECT_EQ(spread.median, c.median);
        EXPECT_EQ(spread.p99, c.p99);
        EXPECT_EQ(spread.worst, c.worst);
    }
}

TEST(LipSync, AddsUpTheTimeOutsideEachBandWhoseEndsBelongToIt) {
    LipSyncCounter counter;
    int64_t frameNo = 0;
    for (const int64_t us : {-185'001, -185'000, -125'001, -125'000, -60'001, -60'000, 0, 40'000,
                             40'001, 45'000, 45'001, 90'000, 90'001}) {
        counter.add(us, 500'000, {frameNo++, 0});
    }
    const LipSync sync = counter.result();
    EXPECT_EQ(sync.samples, 13);
    EXPECT_EQ(sync.medianUs, 0);
    EXPECT_EQ(sync.p99MagnitudeUs, 185'001);
    EXPECT_EQ(sync.worstUs, -185'001);
    EXPECT_EQ(sync.worst.frameNo, 0);
    EXPECT_DOUBLE_EQ(sync.secondsJudged, 6.5);
    EXPECT_DOUBLE_EQ(sync.secondsOutsideEbu, 5.0);
    EXPECT_DOUBLE_EQ(sync.secondsOutsideItuDetectable, 3.0);
    EXPECT_DOUBLE_EQ(sync.secondsOutsideItuAcceptable, 1.0);
}

}  // namespace
}  // namespace korvane::player
