// SPDX-License-Identifier: Apache-2.0
// Notes in a playback's record when audio started and when the sync clock stood still.
//
// The player's thread passes what the audio side reports, every few milliseconds. Of an underflow
// only the time at which it was seen is known; of a pause the exact time, which whoever pauses
// passes.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "player/playback/PlaybackRecord.h"
#include "tv/AudioOutput.h"

namespace korvane::player {

class ClockWatch {
public:
    /// @param record  receives the notes; must outlive the watch
    explicit ClockWatch(PlaybackRecord* record) : mRecord(*record) {}

    /// The player pauses or resumes audio. Any thread.
    void pausedOrResumed(int64_t nowNs) { mSwitchedNs = nowNs; }
    /// The player without audio withholds frames, or goes on.
    void heldOrReleased(bool held, int64_t nowNs);
    /// Takes in the audio side's report.
    /// @return its state, when that is another than at the last report
    std::optional<tv::AudioState> see(const tv::AudioReport& audio, int64_t nowNs);
    /// Playback has ended: a clock that stands still did so up to here.
    void end(int64_t nowNs);

    tv::AudioState audioState() const { return mState; }

private:
    PlaybackRecord& mRecord;
    std::atomic<int64_t> mSwitchedNs{0};
    tv::AudioState mState = tv::AudioState::Waiting;
};

}  // namespace korvane::player
