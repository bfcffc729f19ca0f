// SPDX-License-Identifier: Apache-2.0
// What is known of a playback beside its frames: values, filled in by the player's thread while it
// plays and complete at its end.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "player/media/FrameSource.h"
#include "player/playback/BufferPool.h"
#include "tv/MediaSyncService.h"

namespace korvane::player {

/// Playback up to the next flush, seek or restart.
struct Section {
    int64_t beganNs = 0;  ///< start of playback, or the flush
    int64_t audioStartedRealUs = -1;
    std::optional<int64_t> soughtUs = {};  ///< media time that the seek asked for that began it
};

/// A time during which the sync clock stood still, real microseconds.
struct ClockStop {
    int64_t fromUs = 0;
    int64_t toUs = 0;       ///< 0: it still does
    bool byPlayer = false;  ///< true: a pause; false: an audio underflow
};

/// A frame and a time since the library's `start`.
struct FrameAt {
    int64_t frameNo = -1;  ///< -1: none
    int64_t atUs = -1;
};

enum class EndCause { Complete, BrokenOff, Interrupted, Stopped, Stalled };
const char* toString(EndCause cause);

struct PlaybackRecord {
    MediaInfo media;
    bool withAudio = false;
    bool passthrough = false;
    double displayHz = 0.0;
    std::vector<Section> sections;
    std::vector<ClockStop> clockStops;
    EndCause end = EndCause::Complete;
    int64_t brokeOffAtUs = -1;  ///< media time up to which the file could be read
    int64_t startNs = 0;        ///< when the library's `start` was called
    int64_t stopNs = 0;         ///< when its `stop` returned
    int64_t stopTookNs = 0;
    PoolReport pool;
    int64_t buffersKept = 0;  ///< the library took them out of the tunnel and never returned them
    FrameAt firstKept;
    tv::SyncCounters sync;
    int64_t soundFromUs = -1;  ///< media time of the first audio packet; -1: none came
    int64_t audioUnderflows = 0;
    int64_t audioReanchors = 0;
    int64_t decodeErrors = 0;
    int64_t failedSeeks = 0;
    int64_t seeksBeyondEnd = 0;
    /// Tunnel entries whose picture has none of this playback's frame numbers.
    int64_t foreignPictures = 0;
    int64_t overwrittenOnScreen = 0;
};

}  // namespace korvane::player
