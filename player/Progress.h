// SPDX-License-Identifier: Apache-2.0
// Progress on stderr: one line that redraws itself on a terminal, a plain line every few seconds
// elsewhere, nothing when switched off. One thread.
#pragma once

#include <cstdint>
#include <string>

namespace korvane::player {

struct ProgressState {
    int64_t positionUs = 0;
    int64_t endUs = -1;  ///< -1: unknown
    int64_t frames = 0;
    int64_t buffersOut = 0;
    std::string note;  ///< what playback waits for; empty while it runs
};

class Progress {
public:
    explicit Progress(bool enabled);
    /// Draws if it is time to.
    void update(const ProgressState& state, int64_t nowNs);
    /// Ends the redrawn line, so that what follows starts on a line of its own.
    void finish();

private:
    const bool mEnabled;
    const bool mTerminal;
    int64_t mNextNs = 0;
    bool mLineOpen = false;
};

/// "[=====>    ]" filled to a share of 0 to 1.
std::string progressBar(double share, int width);

}  // namespace korvane::player
