// SPDX-License-Identifier: Apache-2.0
// The event log, and percentiles in bounded memory.
#include "player/report/EventLog.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <sstream>

#include "player/report/EventLine.h"
#include "player/report/Spread.h"

namespace korvane::player {
namespace {

TEST(EventLog, LinesComeInTheOrderOfTimeHoweverTheyWereAdded) {
    std::ostringstream out;
    EventLog log({&out});
    log.begin(1'000);
    log.add({2'000'001'000, EventKind::Shown, 7, 120, -300, ""});
    log.add({1'500, EventKind::Sent, 8, 41'667, 3, "late"});
    log.add({1'500, EventKind::Sent, 7, 0, 2, ""});
    log.release(1'501);
    EXPECT_EQ(log.lines(), 2) << "what may still be preceded waits";
    log.add({1'600, EventKind::Audio, -1, 0, 0, "playing"});
    log.finish();
    EXPECT_EQ(out.str(),
              "0.000000500 sent frame=7 media_us=0 buffer=2\n"
              "0.000000500 sent frame=8 media_us=41667 buffer=3 late\n"
              "0.000000600 audio playing\n"
              "2.000000000 shown frame=7 vsync=120 offset_us=-300\n");
    EventLog other(std::vector<std::ostream*>{});
    other.add({5, EventKind::Sent, 1, 1, 0, ""});
    other.finish();
    EXPECT_NE(log.hash(), other.hash());
}

TEST(EventLine, NumbersOfTheLogAreLeftOut) {
    EXPECT_EQ(withoutNumbers("fd: 17 err 0x1f (-22)\n"), "fd: # err #x#f (-#)");
}

TEST(Spread, StaysWithinOnePerCentOfTheTruthForManyValues) {
    std::mt19937_64 random(5);
    std::vector<int64_t> values;
    SpreadCounter counter;
    for (int i = 0; i < 100'000; ++i) {
        values.push_back(static_cast<int64_t>(random() % 40'000) - 5'000);
        counter.add(values.back());
    }
    std::sort(values.begin(), values.end());
    const Spread spread = counter.spread();
    EXPECT_EQ(spread.samples, 100'000);
    EXPECT_NEAR(static_cast<double>(spread.median), static_cast<double>(values[49'999]), 160);
    EXPECT_NEAR(static_cast<double>(spread.p99), static_cast<double>(values[98'999]), 350);
    EXPECT_EQ(spread.worst, values.back());
}

}  // namespace
}  // namespace korvane::player
