// SPDX-License-Identifier: Apache-2.0
// The commands `run` and `list`: scenario files and folders, one verdict line each.
//
// Each scenario plays in a process of its own, several at a time if asked: one that hangs or
// crashes fails alone, and no state passes from one to the next. Verdicts are printed in the order
// of the files.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace korvane::player {

/// Both included.
struct SeedRange {
    uint64_t first = 0;
    uint64_t last = 0;
};

struct RunOptions {
    std::vector<std::string> paths;  ///< scenario files, folders of them, names of installed ones
    int jobs = 1;
    std::optional<uint64_t> seed;    ///< instead of the scenarios' own
    std::optional<SeedRange> seeds;  ///< likewise, each in turn
    bool preempt = false;            ///< as Scenario::preempt, where it is unset
    std::string eventsFolder;        ///< gets an event log per scenario; empty: none are kept
    std::string traceFolder;         ///< gets a timeline per scenario; empty: none
    std::string recordFolder;        ///< gets a film per scenario; empty: none
    std::string reportFolder;        ///< gets a page per scenario and an index; empty: none
    std::string version;             ///< of korvane-tv
    std::string library;             ///< as in PlayOptions
    bool virtualClock = true;        ///< if this build has it
    bool verbose = false;            ///< print each report and the library's log
};

/// Plays.
/// @return an exit status: kExitFailed when an expectation failed, kExitUsage when content cannot
/// be played
/// @throws ScenarioError, UsageError
int runScenarios(const RunOptions& options, std::ostream& out);

struct ListOptions {
    std::string path;  ///< as in RunOptions; empty: "scenarios" here, else those installed
};

/// Prints of each scenario what it shows and what it expects.
/// @throws ScenarioError
int listScenarios(const ListOptions& options, std::ostream& out);

/// Expands paths to files: a folder to its *.toml files in order, the name of an installed scenario
/// to its file. Other paths stay as they are.
/// @throws ScenarioError for a folder without scenarios
std::vector<std::string> scenarioFiles(const std::vector<std::string>& paths);

}  // namespace korvane::player
