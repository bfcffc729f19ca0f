// SPDX-License-Identifier: Apache-2.0
#include "player/command/HandOver.h"

#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "player/command/ProgramPlace.h"

namespace korvane::player {

int handOver(const CommandLine& /*line*/, char** argv) {
    const auto testbench = testbenchProgram();
    if (testbench.empty()) {
        throw std::runtime_error(
            "this needs korvane-tv-testbench, which is not there; build it with: make build");
    }
    execv(testbench.c_str(), argv);
    throw std::system_error(errno, std::generic_category(), testbench.string());
}

}  // namespace korvane::player
