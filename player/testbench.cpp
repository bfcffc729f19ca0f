// SPDX-License-Identifier: Apache-2.0
// korvane-tv-testbench: all commands of korvane-tv.
#include "player/command/Entry.h"
#include "player/command/TestbenchCommands.h"

int main(int argc, char** argv) {
    using namespace korvane::player;
    return runCommandLine(argc, argv, KORVANE_VERSION, &carryOutTestbenchCommand);
}
