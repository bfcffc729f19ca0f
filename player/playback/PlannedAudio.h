// SPDX-License-Identifier: Apache-2.0
// Playback's audio as the session sees it, whether it has any or not. The record receives when
// audio started and when the clock stood still: with audio that is up to audio, without it the
// clock stands while the player withholds frames, and all else here does nothing. Player's thread,
// but for `pauseOrResume` and `sound`.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "player/media/FrameSource.h"
#include "player/playback/AudioFeeder.h"
#include "player/playback/ClockWatch.h"
#include "player/playback/PlaybackPlan.h"
#include "player/playback/PlaybackRecord.h"

namespace korvane::player {

class PlannedAudio {
public:
    /// The plan and the record must outlive the object.
    /// @param source  null when the plan has no audio
    PlannedAudio(const PlaybackPlan& plan, std::unique_ptr<PacketSource> source,
                 PlaybackRecord* record)
        : mPlan(plan), mRecord(*record), mSource(std::move(source)), mWatch(record) {}

    /// Call once the clock is known, before all below.
    /// @return the feeder; null: there is no audio
    const AudioFeeder* create(std::shared_ptr<tv::SyncInstance> clock);
    /// As the feeder's.
    void start(int64_t pictureUs);
    void hold();
    void restart(int64_t pictureUs);
    /// Stops or resumes audio, and with it the clock. Without audio the caller withholds frames or
    /// goes on. Any thread.
    void pauseOrResume(bool paused);
    /// Ends audio, and completes the record.
    void end(int64_t nowNs);

    /// The device on which a viewer hears it drifts.
    void followDevice(double driftPpm);
    /// Takes in what audio does.
    /// @return its state, when that is another than at the last look
    std::optional<tv::AudioState> look();
    /// At the last look: what audio waits for; empty while it runs, or has ended.
    std::string note() const;
    /// What was audible until now. Any thread.
    tv::SoundRecord sound() const;

private:
    const PlaybackPlan& mPlan;
    PlaybackRecord& mRecord;
    std::unique_ptr<PacketSource> mSource;  ///< until the feeder has it
    std::unique_ptr<AudioFeeder> mFeeder;   ///< null: no audio
    ClockWatch mWatch;
    double mDeviceDriftPpm = 0.0;
};

}  // namespace korvane::player
