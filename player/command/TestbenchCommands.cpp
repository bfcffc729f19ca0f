// SPDX-License-Identifier: Apache-2.0
#include "player/command/TestbenchCommands.h"

#include <iostream>
#include <string>

#include "player/command/AgainstCommand.h"
#include "player/command/CommandLine.h"
#include "player/command/CompareCommand.h"
#include "player/command/ExploreCommand.h"
#include "player/command/LibraryChoice.h"
#include "player/command/PlayCommand.h"
#include "player/command/RunCommand.h"
#include "tv/Log.h"

namespace korvane::player {
namespace {

/// The one to be used in this process; empty: the one that the program is linked with.
std::string libraryOf(const CommandLine& line) {
    return line.command == Command::Explore ? exploredLibrary(line.explore)
           : line.command == Command::Run   ? line.run.library
                                            : "";
}

}  // namespace

int carryOutTestbenchCommand(const CommandLine& line, char** argv) {
    useLibrary(libraryOf(line), argv);
    tv::openLog(lowestLogPriority(line.play));
    switch (line.command) {
        case Command::Run:
            return runScenarios(line.run, std::cout);
        case Command::List:
            return listScenarios(line.list, std::cout);
        case Command::Compare:
            return compareFiles(line.compare, std::cout);
        case Command::Explore:
            return explorePrograms(line.explore, std::cout);
        case Command::Play:
            break;
    }
    return playAgainst(line.play, argv, std::cout);
}

}  // namespace korvane::player
