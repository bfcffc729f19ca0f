// SPDX-License-Identifier: Apache-2.0
// Plays each scenario in its own process, a few at a time, and reports results in order.
//
// A child process plays one scenario and writes its result into a pipe:
//
//   line 1   verdict, empty when playback did not end
//   line 2   hash of the event log
//   line 3   grade
//   line 4   the report's verdict
//   others   one failure each
//
// If it was killed, or the virtual clock ended it because its threads hang, its exit status says
// so.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "player/scenario/Scenario.h"

namespace korvane::player {

struct ProcessOptions {
    int jobs = 1;
    bool virtualClock = true;
    bool verbose = false;
    std::string eventsFolder;
    std::string traceFolder;
    std::string recordFolder;
    std::string reportFolder;  ///< with a folder for each scenario, by its name
    std::string version;       ///< of korvane-tv
    /// The command line that repeats a scenario.
    std::function<std::string(const Scenario&)> repeat;
};

struct ProcessResult {
    std::string verdict;  ///< empty when playback did not end
    std::string eventsHash;
    std::string grade;
    std::string sentence;
    std::vector<std::string> failures;
    bool wrongInput = false;  ///< its content cannot be played
    int64_t wallUs = 0;
    bool ok() const { return failures.empty(); }
};

/// Plays all; the calling process must have one thread only.
/// @param take  called on the calling thread for each scenario, in order
/// @throws std::system_error when a process cannot be made
void playInProcesses(const std::vector<Scenario>& scenarios, const ProcessOptions& options,
                     const std::function<void(size_t index, const ProcessResult& result)>& take);

}  // namespace korvane::player
