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
// The tunnel needs two vsyncs and 5 ms to have a buffer on screen at its time; viewers tolerate a
// picture 40 ms behind the sound. A frame exactly at either limit is shown now.
#pragma once

#include <cstdint>

#include "platform/Clock.h"

namespace korvane {

/// How long before its presentation time a frame is queued to the tunnel, on top of two vsyncs.
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

/// The tracker's corrected time, or the media-sync clock's time when the tracker gave none: its
/// result is then below one vsync period.
inline int64_t usableRealTimeUs(int64_t trackerUs, int64_t mediaSyncUs, int32_t vsyncPeriodNs) {
    return trackerUs < vsyncPeriodNs / 1000 ? mediaSyncUs : trackerUs;
}

/// Track times at which audio was last known to stand still.
struct AudioClockMarks {
    int64_t anchorUs;  ///< media time at which this renderer last anchored the clock
    int64_t pauseUs;   ///< track time read while the clock was paused
};

/// Audio plays once its track time differs from both marks.
inline bool audioClockMoves(int64_t trackUs, const AudioClockMarks& marks) {
    return trackUs != marks.anchorUs && trackUs != marks.pauseUs;
}

/// After an underflow: is this frame still too far behind audio to be shown?
inline bool behindAudio(int64_t trackUs, const AudioClockMarks& marks, int64_t frameUs) {
    return !audioClockMoves(trackUs, marks) || saturatingSub(trackUs, kCatchUpLimitUs) >= frameUs;
}

/// A long hold is logged at the 110th query and at every tenth after that.
inline bool reportsHold(int32_t holdCount) {
    return holdCount > 100 && holdCount % 10 == 0;
}

}  // namespace korvane
