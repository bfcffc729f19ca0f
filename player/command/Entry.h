// SPDX-License-Identifier: Apache-2.0
// What both programs do: read the command line, carry the command out, say what went wrong, end
// with the command's exit status.
//
//   korvane-tv              plays films; becomes the other program for all else (HandOver.h)
//   korvane-tv-testbench    carries out every command (TestbenchCommands.h)
#pragma once

namespace korvane::player {

struct CommandLine;

/// Carries out every command but that of playing one film once.
/// @return an exit status
using OtherCommands = int (*)(const CommandLine& line, char** argv);

/// The whole of `main`.
/// @param version  of korvane-tv
/// @return an exit status
int runCommandLine(int argc, char** argv, const char* version, OtherCommands others);

}  // namespace korvane::player
