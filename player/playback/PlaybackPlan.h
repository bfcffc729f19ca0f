// SPDX-License-Identifier: Apache-2.0
// The plan of a playback: the TV and its faults, the audio side, how the player behaves and what it
// does when.
//
// `play` makes it from its options, `run` from a scenario. Times are microseconds; "playback time"
// counts from the library's `start`.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "tv/AudioOutput.h"
#include "tv/Tv.h"

namespace korvane::player {

/// Upper half of `init`'s argument: tuner pass-through, with the media-sync id in the lower half.
inline constexpr int kPassthroughInit = 0x10000;

/// A jump in the middle of playback.
struct SeekAction {
    int64_t atUs = 0;         ///< playback time
    int64_t toUs = 0;         ///< media time to go to
    bool inPlace = false;     ///< flush only: go on with the next picture and ignore `toUs`
    bool atPosition = false;  ///< `atUs` is a media time: seek once it is shown
};

/// Pictures stop coming, as with bad reception: the library runs out of them.
struct VideoStall {
    int64_t atUs = 0;  ///< before the first picture at or after this media time
    int64_t durationUs = 0;
};

/// A span of playback time in which the decoder delivers nothing.
struct DecoderGap {
    int64_t atUs = 0;
    int64_t untilUs = 0;
};

/// The TV's faults that can be switched while it plays.
struct TvFaults {
    tv::TunnelFaults tunnel;
    bool reportFails = false;
    std::optional<int32_t> reportedPeriodNs;  ///< reported instead of the true one
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

    /// Enough for the renderer's lead, two in the tunnel and one on screen, with a reserve.
    int buffers = 16;
    /// Frames in the library's queue at `start`. The library needs two; the rest is a reserve for a
    /// decoder that starts slowly.
    int prebufferFrames = 8;
    Peek peek = Peek::None;
    /// What `setFrameRate` is told, in hundredths. It is not called without a rate, or with one
    /// that the library does not take, such as 0.
    std::optional<int> toldFrameRate;

    std::vector<SeekAction> seeks;   ///< by time
    std::vector<VideoStall> stalls;  ///< by time
    std::vector<DecoderGap> gaps;    ///< by time
    int64_t decodeUs = 0;            ///< each frame takes this long
    int64_t callbackTakesUs = 0;
    int callbackAnswers = 0;
    std::optional<int64_t> limitUs;   ///< media sent
    std::optional<int64_t> stopAtUs;  ///< playback time
    /// Playback time of a stop and a new start, with the same renderer if `reuseRenderer`.
    std::optional<int64_t> restartAtUs;
    bool reuseRenderer = false;

    /// The longest time for which the plan itself keeps everything still. Playback counts as
    /// stalled when nothing moves for that long and 5 s more.
    int64_t longestWaitUs = 0;
};

}  // namespace korvane::player
