// SPDX-License-Identifier: Apache-2.0
// Which faults the TV has at which playback time. Pure: a scenario in, states with their times out.
#pragma once

#include <cstdint>
#include <vector>

#include "player/playback/PlaybackPlan.h"
#include "player/scenario/Scenario.h"

namespace korvane::player {

/// The state at one playback time.
TvFaults faultsAt(const Scenario& scenario, int64_t timeUs);

/// Every state from its first moment on, ascending; empty when there are no faults.
std::vector<TimedFaults> faultSchedule(const Scenario& scenario);

}  // namespace korvane::player
