// SPDX-License-Identifier: Apache-2.0
// Streams that continue under another number, as when a broadcaster changes packet ids.
//
// A stream takes over from the one that is played once it has half a second of packets, or the
// input has ended, if the old stream had packets before and has had none of later times since.
// Until then its packets wait. So a stream that runs beside the old one never takes over. The old
// stream may come back in the same way.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <vector>

#include "player/media/Ffmpeg.h"

namespace korvane::player {

class StreamSuccession {
public:
    /// Plays this stream until another takes over.
    void play(int stream) { mTaken[stream].acting = stream; }

    /// Takes a packet that may wait.
    /// @param played    the stream that its own one may take over from; -1: none
    /// @param us        its time
    /// @param released  receives those packets, in order, that are to be played now; their stream
    ///                  index is as it was
    void take(PacketPtr packet, int played, int64_t us, std::vector<PacketPtr>* released);
    /// No more packets come.
    void end(std::vector<PacketPtr>* released);
    /// Starts afresh, as after a seek: any number may bring the next packets.
    void restart();

    /// The played stream whose packets have this number now; -1: none.
    int playedBy(int stream) const;

private:
    struct Waiting {
        std::deque<PacketPtr> packets;
        int64_t fromUs = 0;
    };
    struct Taken {
        int acting = -1;
        std::map<int, Waiting> waiting;  ///< by stream
        bool seen = false;
    };
    void takeOver(Taken* taken, int stream, std::vector<PacketPtr>* released);

    std::map<int, Taken> mTaken;
    std::set<int> mBeside;
    /// Streams that another has taken over from, and its first time: FFmpeg hands out the last
    /// packets from before that only when the stream comes again, or at the end.
    std::map<int, int64_t> mFormer;
};

}  // namespace korvane::player
