// SPDX-License-Identifier: Apache-2.0
// The drain thread's decisions, from values to a verdict. Nothing here reads a clock or a member.
//
// When a frame is due at `final` and it is `now` (microseconds, monotonic):
//
//   final - now                        verdict
//   more than 2 vsyncs + 5000 us       wait until just that long before it is due, then show
//   -40000 us to 2 vsyncs + 5000 us    show now (drop while an underflow is being made up for)
//   less than -40000 us                drop
//
// Two vsyncs and 5 ms are what the tunnel needs to have a buffer on screen at its time; 40 ms is
// what a viewer bears between sound and a late picture. Both ends are inclusive on the side of
// showing at once.
#pragma once

#include <cstdint>

#include "platform/Clock.h"

namespace korvane {

/// How long before its presentation time a frame is handed to the tunnel, beside two vsyncs.
inline constexpr int64_t kShowAheadUs = 5000;
/// A frame later than this is dropped.
inline constexpr int64_t kLateLimitUs = 40000;
/// Video this far behind audio is still dropped after an underflow.
inline constexpr int64_t kCatchUpLimitUs = 15000;

enum class FrameVerdict { WaitThenShow, ShowNow, Drop };

struct FrameDecision {
    FrameVerdict verdict;
    int64_t earlyUs;  ///< due time minus now; negative when late
    int64_t waitUs;   ///< how long to wait; 0 unless the verdict is to wait
};

/// @param vsyncPeriodNs  the display's period, above 0
inline FrameDecision decideFrame(int64_t finalRealTimeUs, int64_t nowUs, int32_t vsyncPeriodNs) {
    const int64_t earlyUs = saturatingSub(finalRealTimeUs, nowUs);
    const int64_t aheadUs = vsyncPeriodNs / 500 + kShowAheadUs;
    if (earlyUs > aheadUs) {
        return {FrameVerdict::WaitThenShow, earlyUs, earlyUs - aheadUs};
    }
    if (earlyUs < -kLateLimitUs) {
        return {FrameVerdict::Drop, earlyUs, 0};
    }
    return {FrameVerdict::ShowNow, earlyUs, 0};
}

/// The time that the tracker corrected, or, when it had nothing usable to say (less than one vsync
/// period, as the 0 that it was given), the time of the media-sync clock.
inline int64_t usableRealTimeUs(int64_t trackerUs, int64_t mediaSyncUs, int32_t vsyncPeriodNs) {
    return trackerUs < vsyncPeriodNs / 1000 ? mediaSyncUs : trackerUs;
}

/// Where the audio clock stands as the renderer last saw or set it.
struct AudioClockMarks {
    int64_t anchorUs;  ///< media time that this renderer last anchored the clock at
    int64_t pauseUs;   ///< track time read while the clock was paused
};

/// Audio's track time says something new only once it differs from both marks.
inline bool audioClockMoves(int64_t trackUs, const AudioClockMarks& marks) {
    return trackUs != marks.anchorUs && trackUs != marks.pauseUs;
}

/// After an underflow: is this frame still to be given up for the sake of sound?
inline bool behindAudio(int64_t trackUs, const AudioClockMarks& marks, int64_t frameUs) {
    return !audioClockMoves(trackUs, marks) || saturatingSub(trackUs, kCatchUpLimitUs) >= frameUs;
}

/// A hold that goes on is reported from the 110th question on, every tenth.
inline bool reportsHold(int32_t holdCount) {
    return holdCount > 100 && holdCount % 10 == 0;
}

}  // namespace korvane
