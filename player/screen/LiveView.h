// SPDX-License-Identifier: Apache-2.0
// Live figures of a playback, from the vsyncs so far: the frame on screen, the last dwells, the
// pattern that they follow, the offset from the sync clock. `--live` prints it and the window
// overlays it.
#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "player/playback/Playback.h"
#include "player/screen/FigureBar.h"

namespace korvane::player {

struct LiveFigures {
    Figures now;
    std::vector<int> dwells;  ///< of the last frames that have left the screen, oldest first
};

/// Quick enough for the display's thread in real time.
class LiveView final : public ScreenListener {
public:
    void onVsync(const ScreenMoment& moment, const tv::SoundRecord& sound) override;
    void onScreenEnd(const tv::SoundRecord& /*sound*/) override {}

    /// Any thread.
    LiveFigures figures() const;

private:
    mutable std::mutex mLock;
    Figures mNow KORVANE_GUARDED_BY(mLock);
    std::deque<int> mDwells KORVANE_GUARDED_BY(mLock);
};

/// One screen of text, each line shorter than `columns`.
std::vector<std::string> liveLines(const LiveFigures& figures, const PlaybackProgress& progress,
                                   size_t columns);

}  // namespace korvane::player
