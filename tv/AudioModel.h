// SPDX-License-Identifier: Apache-2.0
// The audio side without its thread: a state machine that is told the time.
//
// In: packets, end of stream, pause, resume, flush, and the time. Out: what it does to its sync
// instance, and when it wants to be stepped next. Position follows from one reference (this media
// time came out at that real time) and the device's rate; the track time is that position cut to
// whole device periods. A step that comes late catches up and, at an underflow, acts for the moment
// at which it happened, so the thread's delays do not show in the clock.
//
//   state       leaves for    when
//   waiting     playing       first packet + start delay has passed and enough is buffered, or the
//                             stream has ended; an empty stream ends as soon as video's first frame
//                             holds the clock, and releases it
//   playing     underflow     what is buffered, or up to the next fault, has come out
//               ended         ... and the stream has ended
//   underflow   playing       the fault is over, enough is buffered or the stream has ended
//   ended       (flush)       the device plays silence: clock and track time go on for video
//
// Underflow and pause stop the sound: at once, or after what an external receiver still holds has
// drained; position, track time and clock go on until then. A step back moves the reference. After
// a latency jump the clock, not the position, is off, so the drift is not looked at until the
// correction is due.
//
// While playing or ended it looks at each step whether the clock is still its own, and takes it
// back if not. Pause freezes any state; flush leads to waiting and leaves the clock as it is.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tv/AudioOutput.h"

namespace korvane::tv {

/// All times are monotonic microseconds and must not go backwards from call to call. Not
/// thread-safe.
class AudioModel {
public:
    AudioModel(std::shared_ptr<SyncInstance> instance, const AudioConfig& config);

    void queue(int64_t mediaTimeUs, int64_t durationUs, int64_t nowUs);
    void endOfStream();
    void pause(int64_t nowUs);
    void resume(int64_t nowUs);
    void flush();

    /// Does what is due. To be called after every other operation, too.
    /// @return when to call it next; INT64_MAX: not before something else happens
    int64_t step(int64_t nowUs);

    AudioReport report() const;
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

    int64_t mReferenceMediaUs = 0;  ///< came out at mReferenceRealUs
    int64_t mReferenceRealUs = 0;
    int64_t mSteps = 0;      ///< device periods since the reference
    bool mDraining = false;  ///< stopped, but sounding until mSilentRealUs
    int64_t mSilentRealUs = 0;
    int64_t mStoppedMediaUs = 0;  ///< where it stands, or will, in underflow or pause
    int64_t mCorrectionRealUs;    ///< when a latency jump ends; INT64_MAX without one
    int64_t mFaultEndsUs = 0;
    AudioReport mReport;
};

}  // namespace korvane::tv
