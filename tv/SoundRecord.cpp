// SPDX-License-Identifier: Apache-2.0
#include "tv/SoundRecord.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace korvane::tv {
namespace {

constexpr int64_t kGoesOn = std::numeric_limits<int64_t>::max();

}  // namespace

int64_t SoundRecord::Stretch::mediaAt(int64_t realUs) const {
    return fromMediaUs + std::llround(static_cast<double>(realUs - fromRealUs) * speed);
}

int64_t SoundRecord::Stretch::realAt(int64_t mediaUs) const {
    return fromRealUs + std::llround(static_cast<double>(mediaUs - fromMediaUs) / speed);
}

void SoundRecord::begin(int64_t realUs, int64_t mediaUs, double speed) {
    constexpr int64_t kRoundingUs = 1;
    if (!mStretches.empty() && mStretches.back().toRealUs == kGoesOn) {
        const Stretch& last = mStretches.back();
        if (last.speed == speed && std::llabs(last.mediaAt(realUs) - mediaUs) <= kRoundingUs) {
            return;
        }
        end(realUs);
    }
    mStretches.push_back({realUs, kGoesOn, mediaUs, speed});
    if (mStretches.size() > kStretches) {
        mStretches.pop_front();
    }
}

void SoundRecord::end(int64_t realUs) {
    if (mStretches.empty() || mStretches.back().toRealUs != kGoesOn) {
        return;
    }
    if (realUs <= mStretches.back().fromRealUs) {
        mStretches.pop_back();
    } else {
        mStretches.back().toRealUs = realUs;
    }
}

const SoundRecord::Stretch* SoundRecord::at(int64_t realUs) const {
    const auto later = std::upper_bound(
        mStretches.begin(), mStretches.end(), realUs,
        [](int64_t us, const Stretch& stretch) { return us < stretch.fromRealUs; });
    if (later == mStretches.begin()) {
        return nullptr;
    }
    const Stretch& stretch = *std::prev(later);
    return stretch.covers(realUs) ? &stretch : nullptr;
}

std::optional<int64_t> SoundRecord::mediaAt(int64_t realUs) const {
    const Stretch* stretch = at(realUs);
    return stretch != nullptr ? std::optional(stretch->mediaAt(realUs)) : std::nullopt;
}

std::optional<int64_t> SoundRecord::realTimeOf(int64_t mediaUs, int64_t seenUs) const {
    const Stretch* now = at(seenUs);
    if (now == nullptr) {
        return std::nullopt;
    }
    const int64_t onTheLineUs = now->realAt(mediaUs);
    if (now->covers(onTheLineUs)) {
        return onTheLineUs;
    }
    std::optional<int64_t> nearest;
    for (const Stretch& stretch : mStretches) {
        const int64_t realUs = stretch.realAt(mediaUs);
        const int64_t awayUs = std::llabs(realUs - seenUs);
        if (stretch.covers(realUs) && awayUs <= kNearUs &&
            (!nearest || awayUs < std::llabs(*nearest - seenUs))) {
            nearest = realUs;
        }
    }
    return nearest ? nearest : onTheLineUs;
}

int64_t SoundRecord::audibleUs(int64_t fromRealUs, int64_t toRealUs) const {
    int64_t audibleUs = 0;
    for (const Stretch& stretch : mStretches) {
        audibleUs += std::max<int64_t>(
            0, std::min(toRealUs, stretch.toRealUs) - std::max(fromRealUs, stretch.fromRealUs));
    }
    return audibleUs;
}

}  // namespace korvane::tv
