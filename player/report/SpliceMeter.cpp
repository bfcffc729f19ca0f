// SPDX-License-Identifier: Apache-2.0
#include "player/report/SpliceMeter.h"

namespace korvane::player {
namespace {

/// More than a report lists: bounds the memory for a stream that keeps jumping.
constexpr size_t kKeptSplices = 1000;

}  // namespace

void SpliceMeter::add(const FrameEntry& frame, const FrameAt& shown, int64_t frameUs,
                      int64_t vsyncUs) {
    if (frame.section != mSection) {
        mSection = frame.section;
        mPassed = false;
        mLastShownUs = -1;
    }
    mPassed = mPassed || frame.followsSplice;
    if (frame.outcome != Outcome::Shown) {
        return;
    }
    if (mPassed && mLastShownUs >= 0 && mSplices.size() < kKeptSplices) {
        const int64_t lostUs = shown.atUs - mLastShownUs - frameUs;
        mSplices.push_back({frame.mediaTimeUs, shown, lostUs < vsyncUs ? 0 : lostUs});
    }
    mPassed = false;
    mLastShownUs = shown.atUs;
}

}  // namespace korvane::player
