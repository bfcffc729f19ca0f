// SPDX-License-Identifier: Apache-2.0
// Runs a random player's program on a simulated TV: in virtual time, or in real time in builds with
// a sanitizer.
//
// What must hold, whatever the program: each frame comes back once; a callback comes neither after
// `stop` (but inside a call that the player itself made) nor after the delete; `stop` returns
// within its bound (virtual time); the TV has no device, id or connection and the process no
// descriptor left. Frames that come back otherwise do so for one of these reasons, each possible
// only in a program that gives it:
//
//   twice            a flush met a frame that was waiting for audio's start
//   only by `stop`   the frame was inside the tunnel, or queued or under way at `stop`
//                    the tunnel refused it: a fault, too little room, a restarted renderer
//                    its release fence failed or did not signal in time
#pragma once

#include <string>
#include <vector>

#include "tests/fuzz/PlayerProgram.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::test {

/// @param options  who decides the schedule, if not the program's seed, and who observes it
/// @return what did not hold, in words
std::vector<std::string> runProgram(const PlayerProgram& program,
                                    tv::VirtualTimeOptions options = {});
/// Prints findings and the program and ends the process, if there are any.
void endIfAny(const std::vector<std::string>& findings, const PlayerProgram& program);

}  // namespace korvane::test
