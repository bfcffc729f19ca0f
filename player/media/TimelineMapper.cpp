// SPDX-License-Identifier: Apache-2.0
#include "player/media/TimelineMapper.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "player/base/Units.h"

namespace korvane::player {
namespace {

constexpr int64_t kForwardUs = 1'000'000;
constexpr int64_t kBackwardUs = 500'000;
/// Tracks of one part begin and end at most this far apart.
constexpr int64_t kApartUs = 5'000'000;
/// Sound may overlap by this much before a picture is held longer instead; the device cuts it off.
constexpr int64_t kOverlapUs = 100'000;
/// Alone, a track jumps forward when it does so by this many of its steps.
constexpr int64_t kSteps = 10;
/// Multiplexers put tracks about a second apart.
constexpr int64_t kLookAheadUs = 3'000'000;
constexpr size_t kMostHeld = 4000;

bool isJump(int64_t us) {
    return us > kForwardUs || us < -kBackwardUs;
}

}  // namespace

std::string describe(const Splice& splice) {
    return "the times jump from " + seconds(splice.fromUs) + " to " + seconds(splice.toUs);
}

void TimelineMapper::push(const Packet& packet) {
    mHeld.push_back({packet, 0});
    decide();
}

void TimelineMapper::end() {
    mEnded = true;
    decide();
}

std::optional<int64_t> TimelineMapper::pop() {
    if (mDecided == 0) {
        return std::nullopt;
    }
    const int64_t shiftUs = mHeld.front().shiftUs;
    mHeld.pop_front();
    --mDecided;
    return shiftUs;
}

void TimelineMapper::restart() {
    mTracks = {};
    mHeld.clear();
    mDecided = 0;
    mEnded = false;
    mSplices.clear();
}

void TimelineMapper::decide() {
    while (mDecided < mHeld.size() && decideNext()) {
        ++mDecided;
    }
}

/// @return false when more has to be seen first
bool TimelineMapper::decideNext() {
    Held& held = mHeld[mDecided];
    const Packet& packet = held.packet;
    Track& track = mTracks[static_cast<size_t>(packet.track)];
    if (packet.us) {
        const Track& other = mTracks[static_cast<size_t>(1 - packet.track)];
        const int64_t us = unwrapped(track, *packet.us);
        if (track.seen && isJump(us - track.expectedUs)) {
            if (joins(track, other, *packet.us)) {
                track.shiftUs = other.shiftUs;
            } else if (const Found found = lookAhead(); found.enough || mEnded) {
                jump(&track, packet, us, found);
            } else {
                return false;
            }
        } else if (track.seen) {
            track.shiftUs += us - *packet.us;
        }
        goOn(&track, packet);
    }
    if (packet.track == 0) {
        noteFirstPicture(packet, track.shiftUs);
    }
    held.shiftUs = track.shiftUs;
    return true;
}

/// The time nearest to the expected one of those that the counter's turns allow.
int64_t TimelineMapper::unwrapped(const Track& track, int64_t us) const {
    if (mWrapUs == 0 || !track.seen) {
        return us;
    }
    const double turns = static_cast<double>(us - track.expectedUs) / static_cast<double>(mWrapUs);
    return us - std::llround(turns) * mWrapUs;
}

/// Whether a track jumps to where the other one has gone before.
bool TimelineMapper::joins(const Track& track, const Track& other, int64_t us) {
    return other.seen && other.shiftUs != track.shiftUs &&
           std::abs(us - other.expectedUs) <= kApartUs;
}

void TimelineMapper::goOn(Track* track, const Packet& packet) {
    const int64_t us = *packet.us;
    if (track->seen) {
        track->stepUs = std::max<int64_t>(us - track->lastUs, 0);
    }
    track->lastUs = us;
    // A step over a gap does not predict the next one.
    const int64_t usualUs = track->stepUs <= kBackwardUs ? track->stepUs : 0;
    track->expectedUs = us + (packet.durationUs > 0 ? packet.durationUs : usualUs);
    track->seen = true;
}

/// What the other track does while the first packet that is not decided jumps.
TimelineMapper::Found TimelineMapper::lookAhead() const {
    const Packet& first = mHeld[mDecided].packet;
    Found found;
    found.enough = mHeld.size() - mDecided > kMostHeld;
    int64_t lastUs = *first.us;
    found.other = mTracks[static_cast<size_t>(1 - first.track)];
    for (size_t i = mDecided + 1; i < mHeld.size() && !found.otherJumpsToUs; ++i) {
        const Packet& later = mHeld[i].packet;
        if (!later.us) {
            continue;
        }
        if (later.track == first.track) {
            const bool again = isJump(*later.us - lastUs);
            lastUs = *later.us;
            found.enough = found.enough || again || lastUs - *first.us > kLookAheadUs;
        } else if (found.other.seen &&
                   isJump(unwrapped(found.other, *later.us) - found.other.expectedUs)) {
            found.otherJumpsToUs = *later.us;
        } else {
            found.otherGoesOn = true;
            goOn(&found.other, later);
        }
    }
    const bool together =
        found.otherJumpsToUs && std::abs(*found.otherJumpsToUs - *first.us) <= kApartUs;
    found.otherJumpsToUs = together ? found.otherJumpsToUs : std::nullopt;
    found.enough = found.enough || together;
    return found;
}

/// A gap or a splice.
void TimelineMapper::jump(Track* track, const Packet& packet, int64_t us, const Found& found) {
    const int64_t byUs = us - track->expectedUs;
    const bool together = found.otherJumpsToUs.has_value();
    const bool slides = track->stepUs == 0 || byUs < kSteps * track->stepUs;
    if (byUs > 0 && !together && (found.otherGoesOn || slides)) {
        return;
    }
    int64_t shiftUs = track->expectedUs + track->shiftUs - *packet.us;
    if (together) {
        const int64_t otherUs =
            found.other.expectedUs + found.other.shiftUs - *found.otherJumpsToUs;
        const bool isVideo = packet.track == 0;
        shiftUs =
            std::max(shiftUs - (isVideo ? 0 : kOverlapUs), otherUs - (isVideo ? kOverlapUs : 0));
    }
    mSplices.push_back({*packet.us + shiftUs, track->expectedUs, us, shiftUs});
    track->shiftUs = shiftUs;
}

void TimelineMapper::noteFirstPicture(const Packet& packet, int64_t shiftUs) {
    if (!mSplices.empty() && mSplices.back().pictureUs < 0 && mSplices.back().shiftUs == shiftUs) {
        mSplices.back().pictureUs = packet.shownUs + shiftUs;
    }
}

}  // namespace korvane::player
