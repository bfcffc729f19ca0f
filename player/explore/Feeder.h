// SPDX-License-Identifier: Apache-2.0
// Plays a program once through the library's public interface on a fresh simulated TV, and says
// what went wrong.
//
// A light player: it decodes nothing, draws nothing and reports nothing, so that a playback costs
// what the library and the TV cost. The calling thread is the first player; its helpers and further
// players are threads. In real time, as in builds with a sanitizer, sleeps are short: they give
// another order of threads, not that much time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "player/explore/FrameAccount.h"
#include "player/explore/Program.h"
#include "player/explore/RunRecord.h"

class VideoTunnelRenderer;

namespace korvane::player {

/// What the explorer that plays the program knows beside it.
class FeederWatch {
public:
    virtual ~FeederWatch() = default;
    /// At the beginning of each callback that no other one encloses, on its thread; may add faults.
    /// @param peeked  the player has sent a peek frame, whose return runs under locks
    virtual void onCallback(const VideoTunnelRenderer* renderer, int type, bool peeked,
                            std::vector<Fault>* faults) {
        (void)renderer, (void)type, (void)peeked, (void)faults;
    }
    /// A callback reads the record that it got.
    virtual void onRead(const void* record, size_t bytes) { (void)record, (void)bytes; }
    /// How long the schedule has kept threads away.
    virtual int64_t awayNs() const { return 0; }
};

/// Plays it. Ends the process, as the library's threads do, where they hang.
/// @param buffers  `Program::buffers` for each player
std::vector<Fault> playProgram(const Program& program, FeederBuffers& buffers, FeederWatch& watch);

}  // namespace korvane::player
