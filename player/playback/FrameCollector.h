// SPDX-License-Identifier: Apache-2.0
// Moves frames on while playback runs: the tunnel's finished records into the ledger, and frames
// with a final outcome out of the ledger to the listeners. Player's thread.
#pragma once

#include <vector>

#include "player/playback/FrameLedger.h"
#include "player/playback/Playback.h"

namespace korvane::player {

class FrameCollector {
public:
    /// All must outlive the collector.
    FrameCollector(const std::vector<PlaybackListener*>& listeners, FrameLedger* ledger,
                   PlaybackRecord* record)
        : mListeners(listeners), mLedger(*ledger), mRecord(*record) {}

    void collect(tv::Tunnel& tunnel, int tunnelId);
    /// Passes on every frame that is left. Call once the library has stopped for good.
    void finish();

private:
    void passOn(const std::vector<FrameEntry>& frames);

    const std::vector<PlaybackListener*>& mListeners;
    FrameLedger& mLedger;
    PlaybackRecord& mRecord;
};

}  // namespace korvane::player
