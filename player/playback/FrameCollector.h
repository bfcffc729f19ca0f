// SPDX-License-Identifier: Apache-2.0
// Moves frames on while playback runs: the tunnel's finished records into the ledger, and frames
// with a final outcome out of the ledger to the listeners, each with what was heard at its time.
// Player's thread.
#pragma once

#include <cstdint>
#include <vector>

#include "player/playback/AudioFeeder.h"
#include "player/playback/FrameLedger.h"
#include "player/playback/Playback.h"

namespace korvane::player {

class FrameCollector {
public:
    /// All must outlive the collector.
    FrameCollector(const std::vector<PlaybackListener*>& listeners, FrameLedger* ledger,
                   PlaybackRecord* record)
        : mListeners(listeners), mLedger(*ledger), mRecord(*record) {}

    /// @param audio  null: playback has none
    void setAudio(const AudioFeeder* audio) { mAudio = audio; }
    void collect(tv::Tunnel& tunnel, int tunnelId);
    /// Does so once a second.
    void collectIfDue(tv::Tunnel& tunnel, int tunnelId, int64_t nowNs);
    /// Passes on every frame that is left. Call once the library has stopped for good.
    void finish();

private:
    void passOn(std::vector<FrameEntry> frames);

    const std::vector<PlaybackListener*>& mListeners;
    FrameLedger& mLedger;
    PlaybackRecord& mRecord;
    const AudioFeeder* mAudio = nullptr;
    int64_t mCollectedNs = 0;  ///< when it was due last
};

}  // namespace korvane::player
