// SPDX-License-Identifier: Apache-2.0
// The audio side as a state machine without a thread; time is an argument.
//
// In: packets, end of stream, pause, resume, flush, and the time. Out: calls on the sync instance,
// and when to step next. Position = reference (this media time came out at that real time) + time
// since then at the device's rate. The track time is the position rounded down to whole device
// periods. A late step catches up, and an underflow takes effect at the time at which it happened,
// so delays of the caller's thread do not show in the clock.
//
//   state       leaves for    when
//   waiting     playing       the start delay since the first packet has passed and enough is
//                             buffered, or the stream has ended
//               ended         the stream has no packet and video's first frame holds the clock,
//                             which is then released
//   playing     underflow     what is buffered, or the media up to the next fault, has come out
//               ended         ... and the stream has ended
//   underflow   playing       the fault is over, and enough is buffered or the stream has ended
//   ended       (flush)       the device plays silence: clock and track time run on for video
//
// Start, and going on after an underflow or a pause, take the clock: track time, starting time,
// anchor, mode 1 and resume in one step, so that video never sees a half-taken clock. Underflow and
// pause stop the sound, at once or after an external receiver has drained; position, track time and
// clock run until then. A step back moves the reference. After a latency jump the clock is wrong
// and the position right, so drift is ignored until the correction is due. When the anchor is off
// by more than the instance's update threshold (the crystal drifts), audio re-anchors.
//
// While playing or ended, audio takes the clock back at the next step, at most one device period
// later, if a renderer's flush set mode 0 or its first frame paused the clock. So flush audio
// before the renderer when seeking: audio that still plays would release the renderer's new first
// frame at the old position. Pause freezes any state. Flush leads to waiting and leaves the clock.
//
// What is audible is recorded apart from what is reported of it. A latency jump moves the clock and
// not the sound. Nor does a step back: what steps back is the reported position, as when a device
// corrects its count of samples, and the samples that it has queued come out as before. So from
// then until a flush the sound is ahead of the position, and reaches the end of the stream before
// it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tv/MediaSyncService.h"
#include "tv/SoundRecord.h"

namespace korvane::tv {

struct AudioConfig {
    /// From the first packet until sound comes out.
    int64_t startDelayUs = 50'000;
    /// Buffered media needed to start and to continue after an underflow.
    int64_t prebufferUs = 100'000;
    /// Step of the track time: one device period, here 1024 samples at 48 kHz.
    int64_t stepUs = 21'333;
    /// How much faster than the monotonic clock the device plays, parts per million.
    double driftPpm = 0.0;
    bool neverStarts = false;
    /// Fault: at `atMediaUs`, acts for `durationUs` as if nothing were buffered. Each happens once.
    struct Underflow {
        int64_t atMediaUs;
        int64_t durationUs;
    };
    std::vector<Underflow> underflows;
    /// Fault: at `atMediaUs`, the reported position steps back by `byUs`, once, and continues from
    /// there. The clock follows if that is more than its update threshold.
    struct StepBack {
        int64_t atMediaUs;
        int64_t byUs;
    };
    std::vector<StepBack> stepBacks;
    /// Fault: after a pause or an underflow the clock is anchored with this error (positive: late,
    /// as when the reported latency is too large) and corrected after `latencyJumpForUs`. The track
    /// time is always right.
    int64_t latencyJumpUs = 0;
    int64_t latencyJumpForUs = 500'000;
    /// Fault: an external receiver keeps sounding this long after a pause or an underflow, but not
    /// past what was queued. The clock runs until then, stops there and later continues from there.
    /// If sound is due again earlier, the clock does not stop.
    int64_t drainUs = 0;
};

enum class AudioState { Waiting, Playing, Paused, Underflow, Ended };
const char* toString(AudioState state);

/// What the audio side did. Times are microseconds; -1: not since the last flush. Counts are since
/// construction.
struct AudioReport {
    AudioState state = AudioState::Waiting;
    int64_t startedRealUs = -1;
    int64_t startedMediaUs = -1;
    int64_t positionUs = -1;
    int64_t underflows = 0;
    int64_t reanchors = 0;
};

/// Times are monotonic microseconds that never decrease from call to call. Not thread-safe.
class AudioModel {
public:
    AudioModel(std::shared_ptr<SyncInstance> instance, const AudioConfig& config);

    void queue(int64_t mediaTimeUs, int64_t durationUs, int64_t nowUs);
    void endOfStream();
    void pause(int64_t nowUs);
    void resume(int64_t nowUs);
    void flush(int64_t nowUs);
    /// Changes the rate of the device, from its last step on.
    void setDriftPpm(double driftPpm, int64_t nowUs);

    /// Does what is due. Call it after every other operation, too.
    /// @return when to call it next; INT64_MAX: after the next operation
    int64_t step(int64_t nowUs);

    AudioReport report() const;
    /// What was audible, up to the last step.
    const SoundRecord& sound() const { return mSound; }
    /// State in words, for people.
    std::string dump() const;

private:
    int64_t mediaAt(int64_t realUs) const;
    int64_t realAt(int64_t mediaUs) const;
    bool enoughBuffered(int64_t fromMediaUs) const;
    int64_t limitUs() const;
    const AudioConfig::Underflow* nextFault() const;

    int64_t stepState(int64_t nowUs);
    int64_t stepWaiting(int64_t nowUs);
    int64_t stepPlaying(int64_t nowUs);
    int64_t stepEmpty(int64_t nowUs);
    int64_t stepUnderflow(int64_t nowUs);
    void begin(int64_t mediaUs, int64_t nowUs, int64_t clockOffUs = 0);
    void goOn(int64_t nowUs);
    void underflow(int64_t atMediaUs, int64_t atRealUs);
    void stopSound(int64_t mediaUs, int64_t realUs);
    void recordSound(int64_t nowUs);
    void recordSilence(int64_t fromRealUs);
    int64_t stepDraining(int64_t nowUs);
    int64_t stepBack(int64_t nowUs);
    int64_t advanceTrack(int64_t nowUs);
    void reportTrack(int64_t trackUs, int64_t nowUs);
    bool driftedAway(int64_t nowUs) const;
    void reanchor(int64_t nowUs);

    const std::shared_ptr<SyncInstance> mInstance;
    AudioConfig mConfig;  ///< faults that have happened are removed from it
    AudioState mState = AudioState::Waiting;
    bool mPaused = false;

    bool mHasPackets = false;
    bool mEndOfStream = false;
    int64_t mFirstPacketRealUs = 0;
    int64_t mFirstMediaUs = 0;
    int64_t mBufferedEndUs = 0;

    int64_t mReferenceMediaUs = 0;  ///< came out at `mReferenceRealUs`
    int64_t mReferenceRealUs = 0;
    int64_t mSteps = 0;      ///< device periods since the reference
    bool mDraining = false;  ///< stopped, but sounding until `mSilentRealUs`
    int64_t mSilentRealUs = 0;
    int64_t mStoppedMediaUs = 0;  ///< where the sound stops in underflow or pause
    int64_t mCorrectionRealUs;    ///< when a latency jump ends; INT64_MAX without one
    int64_t mFaultEndsUs = 0;
    int64_t mSoundAheadUs = 0;  ///< of the position: the steps back since the last flush
    SoundRecord mSound;
    AudioReport mReport;
};

}  // namespace korvane::tv
