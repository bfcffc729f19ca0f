// SPDX-License-Identifier: Apache-2.0
// Frames on screen compared with the sync clock: audio/video offsets, and how long it took until a
// picture came after the clock had stood still.
//
// The offset of a frame is the vsync at which it came on screen minus the sync clock's real time
// for it. Positive: the picture was late, sound early.
#pragma once

#include <cstddef>
#include <vector>

#include "player/report/Spread.h"
#include "player/report/Summary.h"

namespace korvane::player {

class OffsetCounter {
public:
    void add(int64_t offsetUs, const FrameAt& frame);
    OffsetReport report() const;

private:
    SpreadCounter mSpread;
    MeasuredAt mLeast;
    MeasuredAt mMost;
};

/// Finds the first frame on screen after the end of each clock stop.
class ResumeTimer {
public:
    /// Takes the next frame on screen, in order.
    /// @param stops  those that have begun so far, in order of time
    void add(int64_t shownUs, const FrameAt& frame, const std::vector<ClockStop>& stops);
    /// From the end of a clock stop to the next frame on screen; -1: there was none.
    const MeasuredAt& longest() const { return mLongest; }

private:
    size_t mSeen = 0;  ///< clock stops after which a frame came
    MeasuredAt mLongest{-1, {}};
};

}  // namespace korvane::player
