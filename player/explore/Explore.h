// SPDX-License-Identifier: Apache-2.0
// An exploration: programs under as many schedules as time allows, in worker processes.
//
// Each worker plays run after run in one process (Runner.h) and sends what it finds through a pipe.
// A worker that crashes tells its schedule from its signal handler; another one takes its place.
// The counts are in shared memory, so that they outlast a worker. Afterwards the caller shrinks and
// explains each fault (Replay.h).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "player/explore/ExploreNames.h"
#include "player/explore/Program.h"
#include "player/explore/RunRecord.h"
#include "tv/explore/Exploration.h"

namespace korvane::player {

struct ExploreOptions {
    std::vector<Program> programs;
    std::vector<StrategyKind> strategies;  ///< take turns
    int64_t forUs = 0;                     ///< 0: no limit of time
    uint64_t schedules = 0;                ///< 0: no limit of number
    uint64_t seed = 1;
    int jobs = 1;
    int preemptions = 2;  ///< most of a run, for Exhaustive
    int depth = 3;        ///< for Pct
    bool untilFault = false;
};

struct FoundFault {
    Fault fault;
    size_t program = 0;  ///< index
    StrategyKind strategy = StrategyKind::Random;
    std::string schedule;  ///< of the first run that had it
    uint64_t count = 0;    ///< runs
    uint64_t afterSchedules = 0;
    int64_t afterUs = 0;
};

/// Of one program, all its schedules within the bound of preemptions.
struct ExhaustedProgram {
    size_t program = 0;
    uint64_t schedules = 0;
    bool complete = false;
};

struct ExploreResult {
    uint64_t schedules = 0;
    uint64_t distinct = 0;  ///< within a thousandth
    uint64_t points = 0;
    int64_t tookUs = 0;
    tv::PairCoverage pairs;  ///< of the worker that saw most
    std::vector<FoundFault> faults;
    std::vector<FoundFault> deliberate;
    std::vector<ExhaustedProgram> exhausted;
};

struct ExploreHooks {
    std::function<void(const ExploreResult& soFar)> onProgress;  ///< about once a second
    std::function<bool()> interrupted;
};

/// The calling process must have one thread.
/// @throws std::system_error when a process cannot be made
ExploreResult explore(const ExploreOptions& options, const ExploreHooks& hooks);

}  // namespace korvane::player
