// SPDX-License-Identifier: Apache-2.0
// Strategies and detectors on small programs whose faults, and whose number of schedules, are
// known.
#include <gmock/gmock.h>

#include <set>
#include <string>
#include <vector>

#include "tests/tv/explore/Programs.h"
#include "tv/clock/VirtualTime.h"
#include "tv/explore/Exploration.h"
#include "tv/explore/SharedPlaces.h"
#include "tv/explore/Strategies.h"

namespace korvane::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using tv::Exhaustive;
using tv::ExploredFault;
using tv::Pct;
using tv::RandomWalk;
using tv::Replay;

#ifdef _LIBCPP_VERSION
constexpr bool kLibcxx = true;
#else
constexpr bool kLibcxx = false;
#endif

struct Outcome {
    bool faulty = false;
    std::string hang;
    uint64_t trace = 0;
    uint64_t points = 0;
};

Outcome runOnce(tv::Schedule& strategy, Program program, tv::Exploration* exploration = nullptr) {
    Outcome outcome;
    if (exploration != nullptr) {
        exploration->beginRun();
    }
    {
        tv::VirtualTimeOptions options;
        options.schedule = &strategy;
        options.observer = exploration;
        options.plainAccesses = exploration != nullptr;
        options.computeSeconds = 0;
        tv::VirtualTime time(1, options);
        outcome.hang = time.run([&] { outcome.faulty = program(); });
        outcome.trace = time.statistics().trace;
        outcome.points = time.statistics().points;
    }
    if (exploration != nullptr) {
        exploration->endRun(outcome.hang.empty());
    }
    return outcome;
}

/// Faulty runs of so many; each one is replayed from its text and must be the same.
int faultyRuns(tv::Strategy& strategy, Program program, int runs) {
    int faulty = 0;
    for (int i = 0; i < runs && strategy.next(); ++i) {
        const Outcome outcome = runOnce(strategy, program);
        if (!outcome.faulty && outcome.hang.empty()) {
            continue;
        }
        ++faulty;
        Replay replay(tv::parseSchedule(tv::toText(strategy.deviations())));
        replay.next();
        const Outcome again = runOnce(replay, program);
        EXPECT_EQ(outcome.trace, again.trace) << tv::toText(strategy.deviations());
        EXPECT_EQ(outcome.faulty, again.faulty);
        EXPECT_EQ(outcome.hang, again.hang);
        EXPECT_TRUE(replay.followed());
    }
    return faulty;
}

struct Broken {
    const char* name;
    Program program;
    int depth;  ///< PCT of one less finds nothing; 0: depends on time or spurious wake-ups
};

class StrategiesTest : public ::testing::TestWithParam<Broken> {};

TEST_P(StrategiesTest, FindWhatTheyPromise) {
    constexpr int kRuns = 3000;
    const Broken& broken = GetParam();
    const tv::RandomOptions random;
    RandomWalk walk(random);
    EXPECT_GT(faultyRuns(walk, broken.program, kRuns), 0);
    if (broken.depth == 0) {
        return;
    }
    Replay usual({});
    ASSERT_TRUE(usual.next());
    const Outcome unchanged = runOnce(usual, broken.program);
    EXPECT_FALSE(unchanged.faulty);
    tv::RandomOptions atOnce;
    atOnce.away = atOnce.spuriousWakeups = 0;
    Pct priorities(atOnce, broken.depth, unchanged.points);
    double bound = 1.0 / 3;  // threads: the one that waits for the program, and two
    for (int change = 1; change < broken.depth; ++change) {
        bound /= static_cast<double>(unchanged.points);
    }
    EXPECT_GE(faultyRuns(priorities, broken.program, kRuns), static_cast<int>(bound * kRuns * 0.8));
    Pct tooFew(atOnce, broken.depth - 1, unchanged.points);
    EXPECT_EQ(0, faultyRuns(tooFew, broken.program, kRuns / 10));
    Exhaustive all(broken.depth);
    EXPECT_GT(faultyRuns(all, broken.program, kRuns), 0);
    EXPECT_FALSE(all.diverged());
}

INSTANTIATE_TEST_SUITE_P(, StrategiesTest,
                         ::testing::Values(Broken{"LostNotify", lostNotify, 2},
                                           Broken{"TwoSwitches", needsTwoSwitches, 2},
                                           Broken{"ThreeSwitches", needsThreeSwitches, 3},
                                           Broken{"Deadlock", deadlocks, 2},
                                           Broken{"TimesOut", timesOut, 0},
                                           Broken{"Spurious", wakesWithoutCause, 0}),
                         [](const auto& test) { return test.param.name; });

/// With i operations and the join on the thread that makes the other, and b operations on that one,
/// there are C(i + b + 2, b + 1) schedules, i + 2 with one preemption at most, one without.
TEST(ExhaustiveTest, VisitsEverySchedule) {
    for (const auto& [preemptions, expected] : {std::pair(0, 1), {1, 4}, {100, 20}}) {
        Exhaustive all(preemptions);
        std::set<std::string> schedules;
        while (all.next()) {
            EXPECT_FALSE(runOnce(all, twoAndTwo).faulty);
            schedules.insert(tv::toText(all.deviations()));
        }
        EXPECT_TRUE(all.complete());
        EXPECT_EQ(expected, all.run());
        EXPECT_EQ(all.run(), schedules.size());
    }
}

/// Points where nobody else looks are left out, and the faults are found all the same, by schedules
/// of which there are fewer.
TEST(SharedPlacesTest, LeaveOutWhatNobodyElseSees) {
    tv::SharedPlaces places;
    RandomWalk walk({});
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(walk.next());
        tv::Learning learning(walk, places);
        runOnce(learning, worksAlone);
        places.endRun();
    }
    uint64_t everywhere = 0;
    for (const tv::SharedPlaces* only : {static_cast<tv::SharedPlaces*>(nullptr), &places}) {
        Exhaustive all(2);
        all.onlyAt(only);
        EXPECT_GT(faultyRuns(all, worksAlone, 100'000), 0);
        ASSERT_TRUE(all.complete());
        EXPECT_TRUE(only == nullptr || 5 * all.run() < everywhere) << all.run();
        everywhere = all.run();
    }
}

/// Addresses differ from run to run, and nothing is used up.
TEST(ExplorationTest, ThousandsOfRunsAreTheSame) {
    tv::Exploration exploration;
    RandomWalk walk({}, 16384);
    ASSERT_TRUE(walk.next());
    const Outcome first = runOnce(walk, countsLocked, &exploration);
    for (int i = 0; i < 20'000; ++i) {
        walk.startAt(1);
        ASSERT_TRUE(walk.next());
        ASSERT_EQ(first.trace, runOnce(walk, countsLocked, &exploration).trace) << i;
    }
}

struct Detected {
    const char* name;
    Program program;
    std::vector<ExploredFault::Kind> kinds;
    const char* what;
};

class DetectorsTest : public ::testing::TestWithParam<Detected> {};

TEST_P(DetectorsTest, SeeItOnAnySchedule) {
    tv::Exploration exploration;
    RandomWalk walk({});
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(walk.next());
        const Outcome outcome = runOnce(walk, GetParam().program, &exploration);
        std::vector<ExploredFault::Kind> kinds;
        std::string what;
        for (const ExploredFault& fault : exploration.faults()) {
            // libc++ leaves a thread's own data to a destructor that virtual time does not call.
            if (fault.inThisRun &&
                !(kLibcxx && fault.details.find("std::__1::thread::thread") != std::string::npos)) {
                kinds.push_back(fault.kind);
                what += fault.what + fault.details;
            }
        }
        if (GetParam().kinds.empty()) {
            EXPECT_THAT(what, IsEmpty()) << tv::toText(walk.deviations());
        } else {
            EXPECT_THAT(kinds, ::testing::Contains(GetParam().kinds.front()))
                << tv::toText(walk.deviations());
            EXPECT_THAT(what, HasSubstr(GetParam().what));
        }
    }
}

using Kind = ExploredFault::Kind;
INSTANTIATE_TEST_SUITE_P(
    , DetectorsTest,
    ::testing::Values(Detected{"Unlocked", countsUnlocked, {Kind::Race}, "Programs.cpp"},
                      Detected{"Variable", countsInVariable, {Kind::Race}, "Programs.cpp"},
                      Detected{"Locked", countsLocked, {}, ""},
                      Detected{"Relaxed", publishesRelaxed, {Kind::Race}, "publishes"},
                      Detected{"Released", publishesReleased, {}, ""},
                      Detected{"Fences", publishesByFences, {}, ""},
                      Detected{"Circle", locksInCircle, {Kind::LockOrder}, "locksInCircle"},
                      Detected{"Freed", readsFreed, {Kind::UseAfterFree}, "readsFreed"},
                      Detected{"Behind", writesBehind, {Kind::Outside}, "writesBehind"},
                      Detected{"Memory", leaksMemory, {Kind::MemoryLeak}, "leaksMemory"},
                      Detected{
                          "Descriptor", leaksDescriptor, {Kind::DescriptorLeak}, "never closed"},
                      Detected{"ClosesTwice", closesTwice, {Kind::ClosedTwice}, "closesTwice"},
                      Detected{"Elsewhere", deletedElsewhere, {}, ""}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace korvane::test
