// SPDX-License-Identifier: Apache-2.0
// The command `explore`: short programs and scenarios under as many schedules as there is time for,
// and what broke, each fault once, with the command that repeats it.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "player/explore/ExploreNames.h"

namespace korvane::player {

struct ExploreCommandOptions {
    std::vector<std::string> paths;  ///< scenarios as RunOptions has them, or names of programs
    int64_t forUs = 0;               ///< 0: by number of schedules, or the usual time
    uint64_t schedules = 0;
    std::vector<StrategyKind> strategies;  ///< empty: random and pct in turn
    int jobs = 1;
    int frames = 10;
    uint64_t seed = 1;
    std::string replay;     ///< a schedule to be played instead
    std::string traceFile;  ///< of the replay
    std::string library;
    bool untilFault = false;
    int preemptions = 2;  ///< most of an exhaustive run
};

/// The library to explore: the one asked for, else the instrumented one beside the program's own.
std::string exploredLibrary(const ExploreCommandOptions& options);

/// @return kExitOk without a fault, kExitFailed with one
/// @throws UsageError, ScenarioError
int explorePrograms(const ExploreCommandOptions& options, std::ostream& out);

}  // namespace korvane::player
