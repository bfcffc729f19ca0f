// SPDX-License-Identifier: Apache-2.0
// korvane-tv: plays a film on the simulated TV; hands every other command to korvane-tv-testbench.
#include "player/command/Entry.h"
#include "player/command/HandOver.h"

int main(int argc, char** argv) {
    using namespace korvane::player;
    return runCommandLine(argc, argv, KORVANE_VERSION, &handOver);
}
