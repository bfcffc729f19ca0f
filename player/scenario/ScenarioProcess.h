// SPDX-License-Identifier: Apache-2.0
// Scenarios in processes of their own: started a few at a time, results in the scenarios' order.
//
// A child plays one scenario and writes its result into a pipe. What it cannot write any more (it
// was killed, or the virtual clock ended it because its threads hang) is told from its exit.
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
};

struct ProcessResult {
    std::string verdict;  ///< empty when the scenario did not come to its end
    std::string eventsHash;
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
