// SPDX-License-Identifier: Apache-2.0
// Progress on standard error: on a terminal a line that is redrawn in place, elsewhere a new line
// every few seconds. One thread draws. Whatever else writes to standard error clears the line
// first; the next update draws it again below. With --live a terminal gets a whole screen of
// figures above the line. Its last state stays, so that the report follows it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "player/playback/Playback.h"
#include "player/screen/LiveView.h"

namespace korvane::player {

class Progress {
public:
    /// @param live  the figures to draw above the line on a terminal; null: none
    explicit Progress(bool enabled, const LiveView* live = nullptr);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Draws if the interval since the last line is over.
    void update(const PlaybackProgress& state, int64_t nowNs);
    /// Playback has ended: leaves the last figures, and nothing else.
    void end();

private:
    void drawLive() const;

    const bool mEnabled;
    const bool mTerminal;
    const LiveView* const mLive;  ///< null without a terminal
    int64_t mNextNs = 0;
    PlaybackProgress mState;
};

/// Clears what is redrawn, if there is anything, before something else is written. Any thread.
void clearProgress();

/// The line to draw, shorter than `columns`: the bar is left out before text is cut off.
std::string progressLine(const PlaybackProgress& state, size_t columns);

}  // namespace korvane::player
