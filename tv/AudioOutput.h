// SPDX-License-Identifier: Apache-2.0
// The audio side: an actor that plays a stream of audio packets against a sync instance.
//
// It waits until enough is buffered and its start delay has passed, takes the instance's clock
// (track and starting media time, anchor, mode 1, resume: in this order, so that video never sees
// audio's clock half taken), then advances its track time in steps of one device period. When what
// was queued runs out before the end of stream it underflows: the clock is paused where it stands,
// and once enough is buffered again it goes on from there. Its crystal may drift against the
// monotonic clock; when the anchor is off by more than the instance's update threshold it
// re-anchors.
//
// The clock stays audio's while it plays: when a renderer's flush has set mode 0, or its first
// frame has paused a clock that was already going, audio takes it back at its next step, at most
// one device period later. So flush audio before the renderer when seeking: audio that still plays
// would release the renderer's new first frame at the old position. An audio stream that ended goes
// on as silence, so that the clock runs for the rest of the video.
//
// What real outputs do wrong it does on request: it starves (`underflows`), its position steps back
// (`stepBacks`), its latency is told wrong after a resume (`latencyJumpUs`), an external receiver
// sounds on after it stopped (`drainUs`).
//
//   waiting --(buffered and delay over)--> playing --(nothing left)--> underflow --> playing
//   playing <--> paused (pause, resume), playing --(end of stream reached)--> ended
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tv/MediaSyncService.h"

namespace korvane::tv {

struct AudioConfig {
    /// From the first packet until sound comes out.
    int64_t startDelayUs = 50'000;
    /// Buffered media needed to start and to go on after an underflow.
    int64_t prebufferUs = 100'000;
    /// How far the track time moves at a time: one device period. 1024 samples at 48 kHz.
    int64_t stepUs = 21'333;
    /// How much faster than the monotonic clock the device plays, parts per million.
    double driftPpm = 0.0;
    bool neverStarts = false;
    /// Faults: when the track reaches `atMediaUs`, act for `durationUs` as if nothing was buffered.
    struct Underflow {
        int64_t atMediaUs;
        int64_t durationUs;
    };
    std::vector<Underflow> underflows;
    /// When the track reaches `atMediaUs`, the reported position steps back by `byUs`, once, and
    /// goes on from there; the clock follows if that is more than its update threshold.
    struct StepBack {
        int64_t atMediaUs;
        int64_t byUs;
    };
    std::vector<StepBack> stepBacks;
    /// After a resume from pause or underflow the clock is anchored this much off (positive: late,
    /// as when the latency is reported too large), and re-anchored rightly after
    /// `latencyJumpForUs`. The track time is right throughout.
    int64_t latencyJumpUs = 0;
    int64_t latencyJumpForUs = 500'000;
    /// How long an external receiver sounds on after a pause or an underflow, but not past what was
    /// queued: the clock goes on until then, stands still there, and goes on from there. A resume
    /// or the end of an underflow before that stops nothing.
    int64_t drainUs = 0;
};

enum class AudioState { Waiting, Playing, Paused, Underflow, Ended };
const char* toString(AudioState state);

/// What the audio side did, in real and media time (microseconds; -1: not yet, or not yet again
/// since the last flush). Counts are since construction.
struct AudioReport {
    AudioState state = AudioState::Waiting;
    int64_t startedRealUs = -1;
    int64_t startedMediaUs = -1;
    int64_t positionUs = -1;
    int64_t underflows = 0;
    int64_t reanchors = 0;
};

/// Owns one thread from construction to `stop`. Operations may be called from any thread.
class AudioOutput {
public:
    AudioOutput(std::shared_ptr<SyncInstance> instance, const AudioConfig& config);
    ~AudioOutput();
    AudioOutput(const AudioOutput&) = delete;
    AudioOutput& operator=(const AudioOutput&) = delete;

    /// Hands in one packet; never blocks.
    void queue(int64_t mediaTimeUs, int64_t durationUs);
    void endOfStream();
    void pause();
    void resume();
    /// Forgets what is buffered and waits to start afresh (seek). The clock is left as it is until
    /// then.
    void flush();
    /// Ends the thread; the clock is left as it is. Idempotent.
    void stop();

    AudioReport report() const;
    /// State in words, for people.
    std::string dump() const;

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

}  // namespace korvane::tv
