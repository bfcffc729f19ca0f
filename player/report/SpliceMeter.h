// SPDX-License-Identifier: Apache-2.0
// The time that the screen loses at splices: how much longer than its own duration the last picture
// before a splice stays, until the first one after it comes. Less than a vsync is the display's
// rounding, and counts as none.
#pragma once

#include <cstdint>
#include <vector>

#include "player/report/Summary.h"

namespace korvane::player {

class SpliceMeter {
public:
    /// Frames in order.
    /// @param frameUs  a frame's own duration
    void add(const FrameEntry& frame, const FrameAt& shown, int64_t frameUs, int64_t vsyncUs);

    const std::vector<SpliceReport>& splices() const { return mSplices; }

private:
    std::vector<SpliceReport> mSplices;
    bool mPassed = false;  ///< a splice, since the last frame shown
    int mSection = 0;
    int64_t mLastShownUs = -1;  ///< in this section; -1: none
};

}  // namespace korvane::player
