// SPDX-License-Identifier: Apache-2.0
// Plays one scenario in this process and compares the result with its expectations.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "player/scenario/Scenario.h"

namespace korvane::player {

struct ScenarioRunOptions {
    bool virtualClock = true;
    std::string eventsFile;    ///< empty: none is written
    std::string reportFolder;  ///< gets report.html, events.txt, summary.json; empty: not written
    std::string traceFile;     ///< empty: none is written
    std::string recordFile;    ///< what the screen showed, as a film; empty: none is written
    std::string repeat;        ///< the command line that repeats this playback
    std::string version;       ///< of korvane-tv
    bool report = false;       ///< print the playback's report to standard error
};

struct ScenarioResult {
    std::vector<std::string> failures;  ///< empty: every expectation held
    int64_t shown = 0;
    int64_t dropped = 0;
    std::string pattern;  ///< of the first stretch; empty: none
    std::string grade;
    std::string sentence;  ///< the report's verdict
    int64_t playedUs = 0;
    std::string eventsHash;
};

/// Plays in a process that has one thread: in virtual time all its threads become fibers. Leaves
/// the scenario's properties and log observer set.
/// @throws InputError for a content file that cannot be played
ScenarioResult runScenario(const Scenario& scenario, const ScenarioRunOptions& options);

}  // namespace korvane::player
