// SPDX-License-Identifier: Apache-2.0
#include "player/Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "player/Units.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::player {
namespace {

constexpr int64_t kTerminalIntervalNs = 100'000'000;
constexpr int64_t kPlainIntervalNs = 5'000'000'000;
/// In virtual time seconds go by in milliseconds.
constexpr int64_t kVirtualIntervalNs = 30'000'000'000;
constexpr int kBarWidth = 30;

std::string describe(const ProgressState& state) {
    std::string text = seconds(std::max<int64_t>(state.positionUs, 0), 1);
    if (state.endUs > 0) {
        text += " of " + seconds(state.endUs, 1);
    }
    text += ", " + std::to_string(state.frames) + " frames handed in";
    return state.note.empty() ? text : text + ", " + state.note;
}

}  // namespace

std::string progressBar(double share, int width) {
    const int filled = static_cast<int>(std::clamp(share, 0.0, 1.0) * width);
    std::string bar(static_cast<size_t>(width), ' ');
    std::fill_n(bar.begin(), filled, '=');
    if (filled < width) {
        bar[static_cast<size_t>(filled)] = '>';
    }
    return "[" + bar + "]";
}

Progress::Progress(bool enabled)
    : mEnabled(enabled), mTerminal(enabled && isatty(STDERR_FILENO) == 1) {}

void Progress::update(const ProgressState& state, int64_t nowNs) {
    if (!mEnabled || nowNs < mNextNs) {
        return;
    }
    const bool first = mNextNs == 0;
    mNextNs = nowNs + (tv::VirtualTime::active() ? kVirtualIntervalNs
                       : mTerminal               ? kTerminalIntervalNs
                                                 : kPlainIntervalNs);
    if (!mTerminal) {
        if (!first) {
            std::fprintf(stderr, "played %s\n", describe(state).c_str());
        }
        return;
    }
    const double share =
        state.endUs > 0 ? static_cast<double>(state.positionUs) / static_cast<double>(state.endUs)
                        : 0.0;
    // Back to the start of the line, and clear what an earlier, longer text left behind it.
    std::fprintf(stderr, "\r%s %s\033[K", progressBar(share, kBarWidth).c_str(),
                 describe(state).c_str());
    mLineOpen = true;
}

void Progress::finish() {
    if (mLineOpen) {
        std::fputs("\r\033[K", stderr);
        mLineOpen = false;
    }
}

}  // namespace korvane::player
