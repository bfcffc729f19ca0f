// SPDX-License-Identifier: Apache-2.0
#include "player/playback/PlannedDecoder.h"

#include "tv/Tv.h"

namespace korvane::player {
namespace {

/// A frame's time where the source tells no rate.
constexpr int64_t kUnknownFrameUs = 40'000;

}  // namespace

bool PlannedDecoder::decode() {
    const ReadStatus status = mSource.next();
    mHavePicture = status == ReadStatus::Ready;
    mEnded = !mHavePicture;
    mReadyNs = tv::nowNs() + mPlan.decodeUs * 1000;
    if (status == ReadStatus::BrokenOff) {
        mRecord.end = EndCause::BrokenOff;
        mRecord.brokeOffAtUs = mSource.readUpToUs();
    }
    return mHavePicture;
}

void PlannedDecoder::seek(int64_t toUs) {
    const bool sought = mSource.seek(toUs);
    mRecord.failedSeeks += sought ? 0 : 1;
    mRecord.seeksBeyondEnd += !decode() && sought ? 1 : 0;
}

int64_t PlannedDecoder::frameUs() const {
    const double rateHz = mSource.info().frameRateHz;
    return rateHz > 0.0 ? static_cast<int64_t>(1e6 / rateHz) : kUnknownFrameUs;
}

int64_t PlannedDecoder::endUs() const {
    const int64_t durationUs = mSource.info().durationUs;
    return mPlan.limitUs && (durationUs < 0 || *mPlan.limitUs < durationUs) ? *mPlan.limitUs
                                                                            : durationUs;
}

}  // namespace korvane::player
