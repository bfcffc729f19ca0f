// SPDX-License-Identifier: Apache-2.0
// Plays one scenario in this process and says whether what must hold held.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "player/playback/PlaybackPlan.h"
#include "player/scenario/Scenario.h"

namespace korvane::player {

struct ScenarioRunOptions {
    bool virtualClock = true;
    std::string eventsFile;  ///< empty: events are only hashed
    bool report = false;     ///< print the playback's report to standard error
};

struct ScenarioResult {
    std::vector<std::string> failures;  ///< empty: everything held
    int64_t shown = 0;
    int64_t dropped = 0;
    std::string pattern;  ///< of the first stretch; empty: none
    int64_t playedUs = 0;
    std::string eventsHash;
};

/// What playback is asked for. Pure.
PlaybackPlan planOf(const Scenario& scenario);

/// Plays. The process should be young and single-threaded: in virtual time all its threads become
/// fibers. Properties and log observer are the scenario's afterwards.
/// @throws InputError for a content file that cannot be played
ScenarioResult runScenario(const Scenario& scenario, const ScenarioRunOptions& options);

}  // namespace korvane::player
