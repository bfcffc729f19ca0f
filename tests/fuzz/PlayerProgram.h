// SPDX-License-Identifier: Apache-2.0
// A random player, decoded from bytes: any bytes give a program for the Feeder, and every one calls
// the library only as docs/integration.md allows.
//
//   8 bytes         display, tunnel, seed, how often threads are preempted, logs, players
//   4 bytes each    the first session of each player: one renderer from create to delete
//   2 bytes each    an operation: whose (upper 3 bits), which (lower 5 bits), its argument.
//                   Whose: 0 the TV's; 1, 4, 6 the threads that own the players' renderers; the
//                   others threads that call beside them. "session" takes 4 bytes more.
//
// One byte changes one thing, so that a fuzzer's small steps are small steps of a player.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "player/explore/Program.h"
#include "player/explore/RunRecord.h"

namespace korvane::test {

/// Of a player, and of all that a program may have.
constexpr int kBuffers = 64;
constexpr int kAllBuffers = 3 * kBuffers;

struct RandomPlayer {
    player::Program program;
    uint64_t seed = 1;
    uint32_t preemptions = 0;  ///< this and the next two as tv::VirtualTimeOptions has them
    int64_t longestPreemptionNs = 0;
    uint32_t spuriousWakeups = 0;
    int logMask = 0;
    bool trace = false;
};

RandomPlayer decodePlayer(const uint8_t* data, size_t size);
/// Sets what the process logs and traces.
void setLogging(const RandomPlayer& random);
/// Prints faults that are not meant so, and the program, and ends the process, if there are any.
void endIfAny(const std::vector<player::Fault>& faults, const RandomPlayer& random);

}  // namespace korvane::test
