// SPDX-License-Identifier: Apache-2.0
// Progress on standard error: on a terminal a line that is redrawn in place, elsewhere a new line
// every few seconds. One thread draws. Whatever else writes to standard error clears the line
// first; the next update draws it again below.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "player/playback/Playback.h"

namespace korvane::player {

class Progress {
public:
    explicit Progress(bool enabled);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Draws if the interval since the last line is over.
    void update(const PlaybackProgress& state, int64_t nowNs);

private:
    const bool mEnabled;
    const bool mTerminal;
    int64_t mNextNs = 0;
};

/// Clears the redrawn line, if there is one, before something else is written. Any thread.
void clearProgress();

/// The line to draw, shorter than `columns`: the bar is left out before text is cut off.
std::string progressLine(const PlaybackProgress& state, size_t columns);

}  // namespace korvane::player
