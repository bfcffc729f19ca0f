// SPDX-License-Identifier: Apache-2.0
// Why a frame stayed on screen for a number of vsyncs that its pattern did not want.
//
// The first of these that applies, from what the record tells:
//
//   the clock stood still   while the frame was on screen, or shortly before
//   a drop                  the next frame was dropped, so this one stayed instead
//   a late frame            this frame or the next was handed in too late
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "player/playback/Playback.h"

namespace korvane::player {

/// What is known of a frame whose dwell may turn out not to fit. Times are monotonic.
struct DwellFacts {
    int64_t frameNo = 0;
    int64_t mediaTimeUs = 0;
    int64_t shownUs = 0;  ///< first vsync; of a superseded frame, when it was released
    int64_t releasedUs = 0;
    int dwell = 0;  ///< vsyncs on screen; 0: superseded
    bool sentLate = false;
    bool nextSentLate = false;
    std::optional<DropReason> nextDropped;
};

/// @param next  the frame handed in after it; null: there is none
DwellFacts dwellFacts(const FrameEntry& frame, const FrameEntry* next);

/// The cause in words; empty: the record tells none.
std::string causeOfBreak(const DwellFacts& facts, const std::vector<ClockStop>& stops);

}  // namespace korvane::player
