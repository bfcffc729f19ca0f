// SPDX-License-Identifier: Apache-2.0
#include "player/report/ClockTimes.h"

namespace korvane::player {

void OffsetCounter::add(int64_t offsetUs, const FrameAt& frame) {
    const bool first = mLeast.frame.frameNo < 0;
    if (first || offsetUs < mLeast.us) {
        mLeast = {offsetUs, frame};
    }
    if (first || offsetUs > mMost.us) {
        mMost = {offsetUs, frame};
    }
    mSpread.add(offsetUs);
}

OffsetReport OffsetCounter::report() const {
    return {mSpread.spread(), mLeast, mMost};
}

void ResumeTimer::add(int64_t shownUs, const FrameAt& frame, const std::vector<ClockStop>& stops) {
    while (mSeen < stops.size() && stops[mSeen].toUs != 0 && shownUs >= stops[mSeen].toUs) {
        const int64_t tookUs = shownUs - stops[mSeen].toUs;
        if (tookUs > mLongest.us) {
            mLongest = {tookUs, frame};
        }
        ++mSeen;
    }
}

}  // namespace korvane::player
