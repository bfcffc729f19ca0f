// SPDX-License-Identifier: Apache-2.0
// Reads the command line.
//
// An option is a name, a kind of value and where the value goes. The kind has the parser, shared
// with scenario files where they have the same values, and the words for a value that it does not
// accept. Every error is one line that says which value is wrong and what to write instead.
#pragma once

#include <cstdint>
#include <string>

#include "player/base/Errors.h"
#include "player/command/CompareCommand.h"
#include "player/command/ExploreCommand.h"
#include "player/command/PlayOptions.h"
#include "player/command/RunCommand.h"

namespace korvane::player {

enum class Command { Play, Run, List, Compare, Explore };

struct CommandLine {
    /// Text to print instead of carrying out a command (help, version); empty otherwise.
    std::string text;
    Command command = Command::Play;
    PlayOptions play;
    RunOptions run;
    ListOptions list;
    CompareOptions compare;
    ExploreCommandOptions explore;
};

/// @throws UsageError
CommandLine parseCommandLine(int argc, const char* const* argv, const std::string& version);

}  // namespace korvane::player
