// SPDX-License-Identifier: Apache-2.0
// Plays a program once through the library's public interface on a fresh simulated TV, and says
// what went wrong.
//
// A light player: it decodes nothing, draws nothing and reports nothing, so that a playback costs
// what the library and the TV cost. Its buffers last for the whole process. The calling thread owns
// the first renderer; helpers and further owners are threads.
#pragma once

#include <memory>
#include <vector>

#include "player/explore/Program.h"
#include "player/explore/RunRecord.h"
#include "tv/UniqueFd.h"

class VideoTunnelRenderer;

namespace korvane::tv {
struct PictureHeader;
}

namespace korvane::player {

/// Memory files with a picture's header; made once, outside virtual time.
class FeederBuffers {
public:
    explicit FeederBuffers(int count);
    ~FeederBuffers();
    FeederBuffers(const FeederBuffers&) = delete;
    FeederBuffers& operator=(const FeederBuffers&) = delete;

    int fd(int buffer) const { return mFds[static_cast<size_t>(buffer)].get(); }
    void fill(int buffer, int64_t frameNo, int64_t mediaUs);

private:
    std::vector<tv::UniqueFd> mFds;
    std::vector<tv::PictureHeader*> mHeaders;
};

/// What the explorer that plays the program knows beside it.
class FeederWatch {
public:
    virtual ~FeederWatch() = default;
    /// At the beginning of each callback, on its thread; may add faults.
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
std::vector<Fault> playProgram(const Program& program, FeederBuffers& buffers, FeederWatch& watch);

}  // namespace korvane::player
