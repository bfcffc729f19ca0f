// SPDX-License-Identifier: Apache-2.0
// What a playback is to be: the TV, its faults, the audio side, the player's habits and actions.
//
// Both commands come down to it: `play` makes one from its options, `run` from a scenario. Times
// are microseconds; "playback time" counts from the library's `start`.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "tv/AudioOutput.h"
#include "tv/Tv.h"

namespace korvane::player {

/// A jump in the middle of playback.
struct SeekAction {
    int64_t atUs = 0;         ///< playback time
    int64_t toUs = 0;         ///< media time at which to go on
    bool inPlace = false;     ///< flush only: go on with the next picture, `toUs` is not used
    bool atPosition = false;  ///< `atUs` is the media time that has been shown
};

/// A gap in the supply of pictures, as a bad reception or a slow decoder makes it.
struct VideoStall {
    int64_t atUs = 0;  ///< before the first picture at or after this media time
    int64_t durationUs = 0;
};

/// A stretch of playback time in which the decoder delivers nothing.
struct DecoderGap {
    int64_t atUs = 0;
    int64_t untilUs = 0;
};

/// Everything about the TV that can be switched while it plays.
struct TvFaults {
    tv::TunnelFaults tunnel;
    bool reportFails = false;
    std::optional<int32_t> reportedPeriodNs;  ///< what the display says instead of its period
    bool audioPaused = false;
};

/// From `atUs` (playback time) until the next entry.
struct TimedFaults {
    int64_t atUs = 0;
    TvFaults faults;
};

struct ModeChange {
    int64_t atUs = 0;  ///< playback time
    double rateHz = 60.0;
};

enum class Peek {
    None,
    Marked,  ///< the first frame, and the first after a flush, is sent with the mark
    Called   ///< `peekFirstFrame` is called while the first frame is the only one sent
};

struct PlaybackPlan {
    tv::TvConfig tv;
    std::vector<ModeChange> modeChanges;  ///< by time
    std::vector<TimedFaults> faults;      ///< by time

    bool withAudio = false;
    tv::AudioConfig audio;

    bool passthrough = false;
    /// Called with the playback's clock before the renderer starts; may be empty.
    std::function<void(const std::shared_ptr<tv::SyncInstance>&)> prepareClock;

    /// Enough for the renderer's lead, the tunnel's own two and the panel's, with a reserve.
    int buffers = 16;
    /// Frames that wait in the library's queue at `start`. It waits for its second frame itself;
    /// the rest is a reserve for a slow start of the decoder.
    int prebufferFrames = 8;
    Peek peek = Peek::None;
    /// What `setFrameRate` is told, in hundredths. It is not called without a rate, or with one that
    /// the library does not take, such as 0.
    std::optional<int> toldFrameRate;

    std::vector<SeekAction> seeks;   ///< by time
    std::vector<VideoStall> stalls;  ///< by time
    std::vector<DecoderGap> gaps;    ///< by time
    int64_t decodeUs = 0;            ///< each frame takes this long
    int64_t callbackTakesUs = 0;
    int callbackAnswers = 0;
    std::optional<int64_t> limitUs;   ///< media handed in
    std::optional<int64_t> stopAtUs;  ///< playback time
    /// Playback time of a stop and a new start; with the same renderer when `reuseRenderer`.
    std::optional<int64_t> restartAtUs;
    bool reuseRenderer = false;

    /// The longest time for which nothing moves because it was asked for; beyond that and a few
    /// seconds more, playback counts as stalled.
    int64_t longestWaitUs = 0;
};

}  // namespace korvane::player
