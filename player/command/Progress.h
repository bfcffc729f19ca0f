// SPDX-License-Identifier: Apache-2.0
// Progress on stderr: one line that redraws itself on a terminal, a plain line every few seconds
// elsewhere, nothing when switched off. One thread draws; whoever else writes to standard error
// clears the redrawn line first, and it comes back below.
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

    /// Draws if it is time to.
    void update(const PlaybackProgress& state, int64_t nowNs);

private:
    const bool mEnabled;
    const bool mTerminal;
    int64_t mNextNs = 0;
};

/// Clears the redrawn line, if there is one, so that what is written next has a line of its own.
/// Any thread.
void clearProgress();

/// What is drawn, in fewer columns than the terminal has: the bar gives way before the text does.
std::string progressLine(const PlaybackProgress& state, size_t columns);

}  // namespace korvane::player
