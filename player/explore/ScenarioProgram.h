// SPDX-License-Identifier: Apache-2.0
// A scenario as a program of a few frames.
//
// Seeks, flushes, pauses, faults and the stop keep their places: their times shrink as the content
// does. Media times of frames, rates, audio, callbacks and the pass-through policy stay as they
// are. What has no meaning for threads is left out: changes of the display's mode, restarts, the
// pictures of a media file.
#pragma once

#include "player/explore/Program.h"
#include "player/scenario/Scenario.h"

namespace korvane::player {

Program programOf(const Scenario& scenario, int frames);

}  // namespace korvane::player
