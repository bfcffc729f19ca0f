// SPDX-License-Identifier: Apache-2.0
// A worker process of an exploration: what it shares with its parent, and its loop.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "player/explore/Explore.h"
#include "player/explore/Runner.h"

namespace korvane::player {

/// In memory that all processes of an exploration share. Distinct schedules are counted by bits
/// that their hashes set: of 2^28 bits, so many are free that the estimate is good to a thousandth
/// up to some 10^8.
struct ExploreShare {
    static constexpr int kBitsLog2 = 28;

    std::atomic<bool> stop;
    std::atomic<uint64_t> claimed;  ///< runs begun
    std::atomic<uint64_t> runs;
    std::atomic<uint64_t> points;
    std::atomic<uint64_t> setBits;
    std::atomic<uint64_t> seen[(uint64_t{1} << kBitsLog2) / 64];

    void saw(uint64_t trace);
    uint64_t distinct() const;
};

/// Maps zeroed memory that processes forked later share.
std::unique_ptr<ExploreShare, void (*)(ExploreShare*)> makeShare();

/// Which of a worker's lives this is; each has schedules of its own.
struct WorkerId {
    int worker = 0;
    int life = 0;
};

/// Plays until told to stop, or until there is nothing left to visit. Ends the process.
[[noreturn]] void work(const ExploreOptions& options, const WorkerId& id, ExploreShare& share,
                       int pipe);

/// From now on a signal that ends the process is told first.
/// @param strategy  whose deviations are told; must outlive the process's runs
void tellCrashes(int pipe, const Runner& runner);
void tellCrashesOf(size_t program, StrategyKind kind, const tv::Strategy& strategy);

/// Leaves Ctrl-C and the log to the parent. Called first in a child process.
void becomeWorker();

}  // namespace korvane::player
