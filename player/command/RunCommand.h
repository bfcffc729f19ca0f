// SPDX-License-Identifier: Apache-2.0
// The commands `run` and `list`: scenario files and folders, one verdict line each.
//
// Each scenario plays in a process of its own, several at a time when asked: a scenario that hangs
// or crashes fails alone, and none sees what another left behind. The verdicts come in the order of
// the files, whichever ends first.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace korvane::player {

struct RunOptions {
    std::vector<std::string> paths;  ///< scenario files, folders of them, names of installed ones
    int jobs = 1;
    std::optional<uint64_t> seed;  ///< instead of the scenario's own
    std::string eventsFolder;      ///< one event log for each scenario; empty: none are kept
    bool virtualClock = true;
    bool verbose = false;  ///< with each playback's report and the library's log
};

/// Plays.
/// @return 0: all held; 1: one did not; 2: a file cannot be read or is no scenario
int runScenarios(const RunOptions& options, std::ostream& out);

struct ListOptions {
    std::string path;  ///< as in RunOptions; empty: "scenarios" here, else those installed
};

/// Says of each scenario what it shows and what must hold.
/// @return 0, or 2 when one cannot be read
int listScenarios(const ListOptions& options, std::ostream& out);

/// The files that paths stand for: a folder's own *.toml files by name, an installed scenario for
/// its name, other paths as they are.
/// @throws ScenarioError for a path that is not there or a folder without scenarios
std::vector<std::string> scenarioFiles(const std::vector<std::string>& paths);

}  // namespace korvane::player
