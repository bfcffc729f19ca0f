// SPDX-License-Identifier: Apache-2.0
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
// While it plays, finished frames leave the ledger in order and are told to the listeners, so that
// playback of any length needs the same memory. Playback ends when every frame handed in has been
// given an account and the last one has been on screen for its time; when it was interrupted; or
// when nothing has moved for so long that it cannot be a wait that was asked for. Then `stop`, and
// the rest of the TV's record is read.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "player/media/FrameSource.h"
#include "player/playback/BufferPool.h"
#include "player/playback/Event.h"
#include "player/playback/FrameLedger.h"
#include "player/playback/PlaybackPlan.h"
#include "tv/Platform.h"

namespace korvane::player {

/// A stretch of playback without a flush in it.
struct Section {
    int64_t beganNs = 0;  ///< start of playback, or the flush
    int64_t audioStartedRealUs = -1;
};

/// A time in which the sync clock stood still, real microseconds; `toUs` 0: it still does.
struct ClockStop {
    int64_t fromUs = 0;
    int64_t toUs = 0;
    bool byPlayer = false;  ///< pause; else audio had run dry
};

/// A frame and a moment, since the library's `start`, to look at.
struct FrameAt {
    int64_t frameNo = -1;  ///< -1: there is none
    int64_t atUs = -1;
};

enum class EndCause { Complete, BrokenOff, Interrupted, Stopped, Stalled };
const char* toString(EndCause cause);

/// All that is known after a playback, but for its frames, which listeners have been told.
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
    int64_t stopNs = 0;         ///< when its `stop` had returned
    int64_t stopTookNs = 0;
    PoolReport pool;
    int64_t buffersKept = 0;  ///< taken out of the tunnel by the library and never handed back
    FrameAt firstKept;
    tv::SyncCounters sync;
    int64_t audioUnderflows = 0;
    int64_t audioReanchors = 0;
    int64_t decodeErrors = 0;
    int64_t failedSeeks = 0;
    int64_t foreignPictures = 0;  ///< tunnel entries whose picture bears no number of ours
    int64_t overwrittenOnScreen = 0;
};

/// Is told what happens. Frames come in the order of their numbers, each once, some time after they
/// were handed in; all calls but `onAction` come on the player's thread.
class PlaybackListener {
public:
    virtual ~PlaybackListener() = default;
    /// The library has been started: `soFar.startNs` is set.
    virtual void onStart(const PlaybackRecord& soFar) { static_cast<void>(soFar); }
    virtual void onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) = 0;
    /// What the player did or noticed, on any of its threads.
    virtual void onAction(const Event& action) { static_cast<void>(action); }
    /// No frame that is still to come has anything to tell from before this moment.
    virtual void onSettledUpTo(int64_t timeNs) { static_cast<void>(timeNs); }
};

/// How far a playback has come.
struct PlaybackProgress {
    int64_t positionUs = 0;
    int64_t endUs = -1;  ///< -1: unknown
    int64_t frames = 0;  ///< handed in
    std::string note;    ///< what playback waits for; empty while it runs
};

/// Who takes part in a playback from outside.
struct PlaybackHooks {
    std::vector<PlaybackListener*> listeners;
    /// Each line that anything logs, on the thread that does; may be empty.
    std::function<void(const tv::LogLine&)> onLogLine;
    /// Called often on the player's thread, with the monotonic time; must be quick; may be empty.
    std::function<void(const PlaybackProgress&, int64_t nowNs)> onProgress;
    /// Asked often whether to end, and must be quick; may be empty.
    std::function<bool()> interrupted;
};

/// Plays what the sources hold. `audio` is null when the plan is without.
/// @throws InputError when not one picture can be decoded
/// @throws std::system_error when the TV or buffers cannot be had
PlaybackRecord play(const PlaybackPlan& plan, FrameSource& video,
                    std::unique_ptr<PacketSource> audio, const PlaybackHooks& hooks);

}  // namespace korvane::player
