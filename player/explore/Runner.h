// SPDX-License-Identifier: Apache-2.0
// One run: a program under one schedule, in virtual time, with every check and detector.
//
//   Feeder        what came of buffers, render times, decisions, `stop`
//   held locks    a callback runs under no lock but those that the design names
//   log           the library logs no error on a TV without faults
//   hang          deadlock, or virtual time that runs away
//   Exploration   races, circles of locks, use after free, leaks
//
// After a hang the run's threads are abandoned with what they hold; the process can go on, but
// grows.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "player/base/Limits.h"
#include "player/explore/Feeder.h"
#include "tv/clock/VirtualTime.h"
#include "tv/explore/Exploration.h"
#include "tv/explore/Strategies.h"

namespace korvane::player {

struct RunReport {
    std::vector<Fault> faults;
    bool hung = false;
    tv::VirtualTimeStatistics statistics;
};

struct RunnerOptions {
    /// Decides instead and asks the strategy; null: nothing does.
    tv::Schedule* around = nullptr;
    std::string traceFile;  ///< where the run's timeline goes; empty: none is recorded
    /// Whether plain accesses can be switches of threads, too.
    bool plainAccesses = false;
};

/// One at a time in a process of one thread.
class Runner final : public FeederWatch {
public:
    /// @param buffers  of all players of a program
    explicit Runner(int buffers = kMostBuffers);
    ~Runner() override;

    /// @param strategy  prepared for the run
    RunReport play(const Program& program, tv::Strategy& strategy,
                   const RunnerOptions& runnerOptions = {});

    tv::PairCoverage coverage() const { return mExploration.coverage(); }
    /// The calling thread's calls inside the library, innermost first; after a crash, too.
    std::vector<const void*> callStack() const { return mExploration.callStack(); }

    void onCallback(const VideoTunnelRenderer* renderer, int type, bool peeked,
                    std::vector<Fault>* faults) override;
    void onRead(const void* record, size_t bytes) override;
    int64_t awayNs() const override;

private:
    FeederBuffers mBuffers;
    tv::Exploration mExploration;
    const tv::Strategy* mStrategy = nullptr;
    std::set<std::string> mErrors;  ///< logged in this run
};

/// Whether a callback may run under these locks of its renderer, given by their offsets in it.
/// @param peeked  a peek frame has been sent
/// @return empty, or the names of the locks that the design does not name
std::string unnamedLocks(int type, bool peeked, const std::vector<int64_t>& offsets);

}  // namespace korvane::player
