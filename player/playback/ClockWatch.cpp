// SPDX-License-Identifier: Apache-2.0
#include "player/playback/ClockWatch.h"

namespace korvane::player {

std::optional<tv::AudioState> ClockWatch::see(const tv::AudioReport& audio, int64_t nowNs) {
    if (audio.startedRealUs >= 0) {
        mRecord.sections.back().audioStartedRealUs = audio.startedRealUs;
    }
    auto& stops = mRecord.clockStops;
    const bool stopOpen = !stops.empty() && stops.back().toUs == 0;
    const bool paused = audio.state == tv::AudioState::Paused;
    const bool stands = paused || audio.state == tv::AudioState::Underflow;
    if (stands && !stopOpen) {
        stops.push_back({(paused ? mSwitchedNs.load() : nowNs) / 1000, 0, paused});
    } else if (!stands && stopOpen) {
        stops.back().toUs = (stops.back().byPlayer ? mSwitchedNs.load() : nowNs) / 1000;
    }
    if (audio.state == mState) {
        return std::nullopt;
    }
    mState = audio.state;
    return mState;
}

void ClockWatch::heldOrReleased(bool held, int64_t nowNs) {
    if (held) {
        mRecord.clockStops.push_back({nowNs / 1000, 0, true});
    } else {
        end(nowNs);
    }
}

void ClockWatch::end(int64_t nowNs) {
    auto& stops = mRecord.clockStops;
    if (!stops.empty() && stops.back().toUs == 0) {
        stops.back().toUs = nowNs / 1000;
    }
}

}  // namespace korvane::player
