// SPDX-License-Identifier: Apache-2.0
// Where the frames are that the player has sent, and when they are due: the ledger knows those in
// the library, the tunnel's record those behind it, and the clock has a time for each. Player's
// thread, from the renderer's creation on.
#pragma once

#include <cstdint>
#include <optional>

#include "player/playback/FrameLedger.h"
#include "player/playback/LibraryCalls.h"
#include "tv/Tv.h"

namespace korvane::player {

class FramesUnderway {
public:
    /// Both must outlive the object.
    /// @param frameUs  a frame's time
    FramesUnderway(const FrameLedger* ledger, const LibraryCalls* library, int64_t frameUs)
        : mLedger(*ledger), mLibrary(*library), mFrameUs(frameUs) {}

    /// When the library's oldest frame is due; 0: it has none, or its clock stands still.
    int64_t nextDueNs() const;
    /// Media time from which on frames have not been handed to the tunnel; empty: all have been.
    std::optional<int64_t> notHandedFromUs(tv::Tv& tv) const;
    /// Whether the last frame that reached the tunnel has been on screen for a frame's time.
    bool lastHasBeenShown(tv::Tv& tv) const;
    /// Whether a frame of the present section that is sent now is too late (see isTooLate).
    bool isLate(tv::Tv& tv, int64_t mediaTimeUs) const;
    /// Waits until a flush has emptied the library. The next frame sent ends the flush; if it came
    /// before the library's thread has seen the flush, that thread would go on with the old frame
    /// that it holds.
    void awaitFlush(int64_t beganNs) const;

private:
    const FrameLedger& mLedger;
    const LibraryCalls& mLibrary;
    const int64_t mFrameUs;
};

}  // namespace korvane::player
