// SPDX-License-Identifier: Apache-2.0
// Streams that go on under another number, as where a broadcaster changes the packet ids.
//
// A stream takes over from the one that is played when it has brought half a second of packets, or
// the input ends, and that one, which had brought some before, has brought none of later times
// meanwhile. Until then its packets wait. What runs beside the one that is played never takes over.
// The old one may come back in the same way.
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
    /// This one is played, and goes on as itself until another takes over.
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

    /// The stream that is played, of which this one's packets are now; -1: it is nobody's.
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
