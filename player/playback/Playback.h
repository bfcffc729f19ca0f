// SPDX-License-Identifier: Apache-2.0
// One playback: drives the library as a TV's player does, and records what happened.
//
//   decoder -> buffer from the pool -> sendVideoFrame -> (library, tunnel, display) -> callback ->
//   pool
//
// The calling thread is the player's thread: it decodes, waits for free buffers (this is the
// back-pressure; the library itself never refuses a frame), flushes, seeks, and watches for the
// end. The library's callbacks, on its own threads, note what came back and free the buffer. Audio
// packets have a thread of their own (AudioFeeder).
//
//   FeedSchedule      what the player's thread does next: a decision from values
//   ViewerControl     what keys of a viewer's remote make it do: so is this
//   PlaybackSession   carries both out: set-up, loop, end
//   PlannedDecoder    pictures from the source
//   LibraryCalls      what is called in the library; LibraryCallbacks: what comes back from it
//   PlannedAudio      audio, if there is any; ClockWatch: when the clock stood still
//   FrameLedger       one outcome per frame; FrameCollector hands finished frames to the listeners
//   FramesUnderway    where the frames sent are, and when they are due
//
// Listeners get the frames in order while playback runs, so that the memory does not grow with its
// length. Playback ends when every frame has left the library and the last one has been on screen
// for its time; when it is interrupted; or when nothing has moved for longer than any wait that the
// plan asks for. Then the library stops, and the rest of the TV's record is read.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "player/media/FrameSource.h"
#include "player/playback/Event.h"
#include "player/playback/FrameLedger.h"
#include "player/playback/PlaybackPlan.h"
#include "player/playback/PlaybackRecord.h"
#include "player/playback/Remote.h"
#include "player/playback/ScreenFeed.h"
#include "tv/Log.h"

namespace korvane::player {

/// Receives what happens in a playback. Frames come in the order of their numbers, each once, some
/// time after they were sent. All calls but `onAction` come on the player's thread. A listener that
/// throws ends the playback; `play` throws the exception again.
class PlaybackListener {
public:
    virtual ~PlaybackListener() = default;
    /// The library is about to start: `soFar.startNs` is set.
    virtual void onStart(const PlaybackRecord& soFar) { static_cast<void>(soFar); }
    virtual void onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) = 0;
    /// What the player did or noticed; on any of its threads.
    virtual void onAction(const Event& action) { static_cast<void>(action); }
    /// No later call of `onFrame` reports anything from before this time.
    virtual void onFinalUpTo(int64_t timeNs) { static_cast<void>(timeNs); }
};

/// How far a playback has come.
struct PlaybackProgress {
    int64_t positionUs = 0;
    int64_t endUs = -1;  ///< -1: unknown
    int64_t frames = 0;  ///< sent
    std::string note;    ///< what playback waits for; empty while it runs
    /// Who holds how many buffers. A frame between two holders may count with neither.
    struct Buffers {
        int64_t library = 0;
        int64_t tunnel = 0;  ///< on screen, too
        int64_t player = 0;
    } buffers = {};
    int64_t dropped = 0;  ///< returned by the library without being shown
};

/// What the caller of a playback may hook into it. All are optional; an exception from any of them
/// ends the playback like a listener's.
struct PlaybackHooks {
    std::vector<PlaybackListener*> listeners;
    std::vector<ScreenListener*> screens;
    /// Receives each line that anything logs, on the thread that logs it.
    std::function<void(const tv::LogLine&)> onLogLine;
    /// Called often on the player's thread, with the monotonic time; must be quick.
    std::function<void(const PlaybackProgress&, int64_t nowNs)> onProgress;
    /// Called often on the player's thread: whether to end now; must be quick.
    std::function<bool()> interrupted;
    /// What a viewer asks for; null: nobody does.
    Remote* remote = nullptr;
};

/// Plays what the sources hold. `audio` is null when the plan has none.
/// @throws InputError when not one picture can be decoded
/// @throws std::system_error when the TV or the buffers cannot be created
/// @throws std::runtime_error when the library gives no renderer or no tunnel
PlaybackRecord play(const PlaybackPlan& plan, FrameSource& video,
                    std::unique_ptr<PacketSource> audio, const PlaybackHooks& hooks);

}  // namespace korvane::player
