// One playback: drives the library as a TV's player does, and keeps the record of it.
//
//   decoder -> buffer from the pool -> sendVideoFrame -> (library, tunnel, display) -> callback ->
//   pool
//
// The calling thread is the player's: it decodes, waits for free buffers (that is the
// back-pressure; the library itself never refuses a frame), performs flushes and seeks, and watches
// for the end. The library's callbacks, on its own threads, only take note and give the buffer back
// to the pool. Audio packets go their own way (AudioFeeder).
//
// Playback ends when every frame handed in has been given an account and the last one has been on
// screen for its time; when it was interrupted; or when nothing has moved for so long that it
// cannot be a wait that was asked for. Then `stop`, and the TV's record is read.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "player/BufferPool.h"
#include "player/FrameLedger.h"
#include "player/MediaSource.h"
#include "player/PlayOptions.h"
#include "tv/Platform.h"

namespace korvane::player {

/// A stretch of playback without a flush in it.
struct Section {
    int64_t beganNs = 0;  ///< start of playback, or the flush
    int64_t audioStartedRealUs = -1;
};

/// A time in which the sync clock stood still because audio had run dry, real microseconds.
struct ClockStop {
    int64_t fromUs = 0;
    int64_t toUs = 0;
};

enum class EndCause { Complete, BrokenOff, Interrupted, Stalled };

/// All that is known after a playback.
struct PlaybackRecord {
    MediaInfo media;
    bool withAudio = false;
    bool passthrough = false;
    double displayHz = 0.0;
    std::vector<FrameEntry> frames;
    std::vector<Section> sections;
    std::vector<ClockStop> clockStops;
    EndCause end = EndCause::Complete;
    int64_t brokeOffAtUs = -1;  ///< media time up to which the file could be read
    int64_t startNs = 0;        ///< when the library's `start` was called
    int64_t stopNs = 0;         ///< when its `stop` had returned
    int64_t stopTookNs = 0;
    PoolReport pool;
    int64_t buffersKept = 0;  ///< taken out of the tunnel by the library and never handed back
    tv::SyncCounters sync;
    int64_t audioUnderflows = 0;
    int64_t audioReanchors = 0;
    int64_t decodeErrors = 0;
    int64_t failedSeeks = 0;
    int64_t foreignPictures = 0;  ///< tunnel entries whose picture bears no number of ours
    int64_t overwrittenOnScreen = 0;
    tv::TraceReport trace;
};

/// Plays what the reader holds. `interrupted` is asked often and must be quick.
/// @throws InputError when not one picture can be decoded
/// @throws std::system_error when the TV or buffers cannot be had
PlaybackRecord play(const PlayOptions& options, VideoReader& reader,
                    const std::function<bool()>& interrupted);

}  // namespace korvane::player
