// SPDX-License-Identifier: Apache-2.0
// Why a frame stayed on screen for a number of vsyncs that its pattern did not want.
//
// The first of these that applies, from what the record tells:
//
//   a pause          while the frame was on screen: asked for, so no fault
//   a resume         a pause had ended shortly before
//   underflow        the clock stood still for want of audio, now or shortly before
//   a drop           the next frame was dropped, so this one stayed instead
//   a late frame     this frame or the next was handed in too late
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "player/playback/Playback.h"

namespace korvane::player {

enum class BreakCause { Unexplained, Pause, Resume, Underflow, Drop, LateFrame };
constexpr int kBreakCauses = static_cast<int>(BreakCause::LateFrame) + 1;
/// "late_frame".
const char* toString(BreakCause cause);
/// "frames handed in late", to be read after "because of".
const char* describe(BreakCause cause);
/// True for what the player did on purpose.
bool askedFor(BreakCause cause);

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

BreakCause causeOfBreak(const DwellFacts& facts, const std::vector<ClockStop>& stops);
/// The cause in words, with what is known of it; empty: unexplained.
std::string tellCause(BreakCause cause, const DwellFacts& facts);

}  // namespace korvane::player
