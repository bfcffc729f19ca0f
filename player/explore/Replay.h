// SPDX-License-Identifier: Apache-2.0
// A schedule played again, each time in a process of its own: to see whether a fault is still
// there, to shrink the schedule, to list what happened.
//
// Shrinking keeps a fault by its text. It leaves out frames, then preemptions: halves of them, then
// single ones, then the times for which threads are away.
#pragma once

#include <string>
#include <vector>

#include "player/explore/Explore.h"

namespace korvane::player {

struct ReplayResult {
    std::vector<Fault> faults;
    std::string schedule;  ///< as recorded, without what was not reached
    std::string listing;
    bool complete = false;  ///< it came to its end, or crashed

    bool has(const std::string& what) const;
};

struct ReplayOptions {
    bool listing = false;
    std::string traceFile;  ///< empty: none is recorded
};

/// Plays the program once.
/// @throws std::invalid_argument for a text that is no schedule
/// @throws std::system_error when no process can be made
ReplayResult replay(const Program& program, const std::string& schedule,
                    const ReplayOptions& options = {});

struct ShrunkFault {
    int frames = 0;
    std::string schedule;
    bool repeats = false;  ///< the fault came again with the schedule that was found
    Fault fault;
    std::string listing;
    int replays = 0;
};

/// @param limitUs  about how long it may take
ShrunkFault shrink(const Program& program, const FoundFault& found, int64_t limitUs);

}  // namespace korvane::player
