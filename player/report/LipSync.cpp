// SPDX-License-Identifier: Apache-2.0
#include "player/report/LipSync.h"

namespace korvane::player {

std::optional<int64_t> lipSyncUs(const FrameEntry& frame) {
    if (frame.outcome != Outcome::Shown || !frame.heardRealUs) {
        return std::nullopt;
    }
    return frame.record->firstVsync.timeNs / 1000 - *frame.heardRealUs;
}

void LipSyncCounter::add(int64_t lipSyncUs, int64_t heardForUs, const FrameAt& frame) {
    if (mSpread.add(lipSyncUs)) {
        mWorst = frame;
    }
    mJudgedUs += heardForUs;
    mOutsideEbuUs += kEbuBand.holds(lipSyncUs) ? 0 : heardForUs;
    mOutsideItuDetectableUs += kItuDetectableBand.holds(lipSyncUs) ? 0 : heardForUs;
    mOutsideItuAcceptableUs += kItuAcceptableBand.holds(lipSyncUs) ? 0 : heardForUs;
}

LipSync LipSyncCounter::result() const {
    const auto seconds = [](int64_t us) { return static_cast<double>(us) * 1e-6; };
    const Spread spread = mSpread.spread();
    LipSync result;
    result.samples = spread.samples;
    result.medianUs = spread.median;
    result.p99MagnitudeUs = spread.p99;
    result.worstUs = spread.worst;
    result.worst = mWorst;
    result.secondsJudged = seconds(mJudgedUs);
    result.secondsOutsideEbu = seconds(mOutsideEbuUs);
    result.secondsOutsideItuDetectable = seconds(mOutsideItuDetectableUs);
    result.secondsOutsideItuAcceptable = seconds(mOutsideItuAcceptableUs);
    result.displayMedianUs = mDisplayWaits.spread().median;
    return result;
}

}  // namespace korvane::player
