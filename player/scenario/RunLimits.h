// SPDX-License-Identifier: Apache-2.0
// How long a scenario may stand still, and how long it may take. Pure.
//
// Both are upper bounds. Whatever a scenario can do to delay a frame adds up: audio that starts
// late, pauses, underflows, a decoder that delivers nothing, gaps and jumps in media time. Whatever
// lasts longer is a fault: playback stalls, or threads poll for ever.
#pragma once

#include <cstdint>

#include "player/media/ContentPlan.h"
#include "player/playback/PlaybackPlan.h"

namespace korvane::player {

/// The longest time for which nothing moves, but for what a pass-through policy adds.
int64_t longestWaitUs(const ContentPlan& content, const PlaybackPlan& plan);

/// A playback time by which synthetic content has been played, given the plan's longest wait.
int64_t longestRunUs(const ContentPlan& content, const PlaybackPlan& plan);

}  // namespace korvane::player
