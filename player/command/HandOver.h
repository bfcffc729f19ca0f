// SPDX-License-Identifier: Apache-2.0
// How korvane-tv carries out what it does not do itself: it becomes korvane-tv-testbench, which
// reads the same command line.
//
// Most people play films. Scenarios, comparing and exploring are as much code again, which they
// need not wait for to be compiled.
#pragma once

namespace korvane::player {

struct CommandLine;

/// @throws std::runtime_error if korvane-tv-testbench is not there or cannot be started
[[noreturn]] int handOver(const CommandLine& line, char** argv);

}  // namespace korvane::player
