// SPDX-License-Identifier: Apache-2.0
// From the timestamps of a container that may jump, such as an MPEG transport stream, to one
// continuous media time line.
//
// In: the packets of two tracks, video and audio, in the file's order. Out: the shift of each
// packet. Two mappers that see the same packets decide alike, so the readers of video and audio
// need not talk to each other.
//
//   a packet's time against what its track expects           it is
//   up to 1 s later, up to 0.5 s earlier                      no jump
//   the same, but for whole turns of the timestamp's counter  a wrap: the shift takes it up
//   within 5 s of the other track, if that has jumped before  the same splice: takes that shift
//   later, and the other track goes on as before              a gap: no shift
//   later, alone, by less than ten times the usual step       a gap: slides, for example
//   else                                                      a splice
//
// At a splice the new part follows the last picture without a gap, unless sound would overlap by
// more than 100 ms. Both tracks are shifted alike, so they stay in sync. To see whether the other
// track jumps, too, packets are held back until 3 s of the new part have been seen.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace korvane::player {

struct Splice {
    int64_t atUs = 0;    ///< on the continuous time line
    int64_t fromUs = 0;  ///< the time that the container would have had next
    int64_t toUs = 0;    ///< the time that it has
    int64_t shiftUs = 0;
    int64_t pictureUs = -1;  ///< first picture of the new part, as `atUs`; -1: not decided yet
};

/// "the times jump from 2.980 s to 3602.980 s"
std::string describe(const Splice& splice);

class TimelineMapper {
public:
    struct Packet {
        int track = 0;              ///< 0 video, 1 audio
        std::optional<int64_t> us;  ///< empty: it has no timestamp
        int64_t durationUs = 0;     ///< 0: unknown
        int64_t shownUs = 0;        ///< a picture's time on the screen, in file time
    };

    /// @param wrapUs  when timestamps start again from 0; 0: never
    explicit TimelineMapper(int64_t wrapUs) : mWrapUs(wrapUs) {}

    void push(const Packet& packet);
    /// No more packets come: all that are held back can be decided.
    void end();
    /// The shift of the next packet, in the order in which they came; empty: not known yet.
    std::optional<int64_t> pop();
    /// Starts afresh with no shift: the next packet of each track may have any time.
    void restart();

    const std::vector<Splice>& splices() const { return mSplices; }

private:
    struct Track {
        bool seen = false;
        int64_t expectedUs = 0;  ///< the next packet's time
        int64_t lastUs = 0;
        int64_t stepUs = 0;  ///< from the packet before the last one
        int64_t shiftUs = 0;
    };
    struct Held {
        Packet packet;
        int64_t shiftUs = 0;  ///< once it is decided
    };
    struct Found {
        Track other;  ///< as it is just before it jumps
        std::optional<int64_t> otherJumpsToUs;
        bool otherGoesOn = false;
        bool enough = false;  ///< to decide
    };

    void decide();
    bool decideNext();
    int64_t unwrapped(const Track& track, int64_t us) const;
    static bool joins(const Track& track, const Track& other, int64_t us);
    static void goOn(Track* track, const Packet& packet);
    Found lookAhead() const;
    void jump(Track* track, const Packet& packet, int64_t us, const Found& found);
    void noteFirstPicture(const Packet& packet, int64_t shiftUs);

    const int64_t mWrapUs;
    std::array<Track, 2> mTracks;
    std::deque<Held> mHeld;
    size_t mDecided = 0;  ///< of those held, from the front
    bool mEnded = false;
    std::vector<Splice> mSplices;
};

}  // namespace korvane::player
