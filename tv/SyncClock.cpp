// SPDX-License-Identifier: Apache-2.0
#include "tv/SyncClock.h"

#include "platform/Clock.h"

namespace korvane::tv {
namespace {

/// Pass-through holds frames due later than this; a panel needs far less lead.
constexpr int64_t kHoldAheadUs = 100'000;
/// Pass-through drops frames later than this, the same bound that the renderer has.
constexpr int64_t kDropLateUs = 40'000;

}  // namespace

const char* toString(Leader leader) {
    switch (leader) {
        case Leader::Nobody:
            return "nobody";
        case Leader::Video:
            return "video";
        case Leader::Audio:
            return "audio";
    }
    return "?";
}

bool SyncClock::mayAnchor(Leader by) const {
    switch (mode) {
        case MEDIA_SYNC_VMASTER:
            return true;
        case MEDIA_SYNC_AMASTER:
            return by == Leader::Audio;
        case MEDIA_SYNC_PCRMASTER:
            return !anchored() || leader == by;
    }
    return true;
}

void SyncClock::anchor(Leader by, int64_t mediaUs, int64_t realUs) {
    leader = by;
    anchorMediaUs = mediaUs;
    anchorRealUs = realUs;
    pausedMediaUs = mediaUs;
}

void SyncClock::setPause(bool pause, int64_t nowUs) {
    if (pause == paused) {
        return;
    }
    if (pause) {
        pausedMediaUs = mediaAt(nowUs);
    } else {
        anchorMediaUs = pausedMediaUs;
        anchorRealUs = nowUs;
    }
    paused = pause;
}

void SyncClock::reportTrack(int64_t mediaUs) {
    trackUs = mediaUs;
    hasTrack = true;
}

int64_t SyncClock::mediaAt(int64_t realUs) const {
    return paused ? pausedMediaUs
                  : saturatingAdd(anchorMediaUs, saturatingSub(realUs, anchorRealUs));
}

int64_t SyncClock::realFor(int64_t mediaUs, int64_t nowUs) const {
    return paused ? saturatingAdd(nowUs, saturatingSub(mediaUs, pausedMediaUs))
                  : saturatingAdd(anchorRealUs, saturatingSub(mediaUs, anchorMediaUs));
}

mediasync_video_policy SyncClock::decide(int64_t mediaUs, int64_t nowUs) const {
    const auto decision = [](video_policy policy, int64_t realUs) {
        return mediasync_video_policy{policy, 0, realUs, 0};
    };
    if (!anchored() || paused) {
        return decision(MEDIASYNC_VIDEO_HOLD, 0);
    }
    const int64_t realUs = realFor(mediaUs, nowUs);
    if (saturatingSub(realUs, nowUs) > kHoldAheadUs) {
        return decision(MEDIASYNC_VIDEO_HOLD, realUs);
    }
    if (saturatingSub(nowUs, realUs) > kDropLateUs) {
        return decision(MEDIASYNC_VIDEO_DROP, realUs);
    }
    return decision(MEDIASYNC_VIDEO_NORMAL_OUTPUT, realUs);
}

}  // namespace korvane::tv
