// SPDX-License-Identifier: Apache-2.0
#include "player/command/Progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "player/base/Units.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::player {
namespace {

constexpr int64_t kTerminalIntervalNs = 100'000'000;
constexpr int64_t kPlainIntervalNs = 5'000'000'000;
/// In virtual time a second takes milliseconds.
constexpr int64_t kVirtualIntervalNs = 30'000'000'000;
constexpr size_t kLongestBar = 30;
/// Below this there is only the text.
constexpr size_t kShortestBar = 5;
/// Of a terminal that does not report its size.
constexpr size_t kUsualColumns = 80;

/// Process-wide, as standard error is; any thread may clear the bar.
std::atomic<bool> gBarOnScreen{false};

size_t terminalColumns() {
    winsize size{};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : kUsualColumns;
}

std::string describe(const PlaybackProgress& state) {
    std::string text = seconds(std::max<int64_t>(state.positionUs, 0), 1);
    if (state.endUs > 0) {
        text += " of " + seconds(state.endUs, 1);
    }
    text += ", " + std::to_string(state.frames) + " frames handed in";
    return state.note.empty() ? text : text + ", " + state.note;
}

/// "[=====>    ]" filled to a share of 0 to 1.
std::string progressBar(double share, size_t width) {
    const auto filled =
        static_cast<size_t>(std::clamp(share, 0.0, 1.0) * static_cast<double>(width));
    std::string bar(width, ' ');
    std::fill_n(bar.begin(), filled, '=');
    if (filled < width) {
        bar[filled] = '>';
    }
    return "[" + bar + "]";
}

}  // namespace

std::string progressLine(const PlaybackProgress& state, size_t columns) {
    const std::string text = describe(state);
    // Some terminals wrap when the last column is filled.
    const size_t room = std::max<size_t>(columns, 1) - 1;
    const size_t besideBar = text.size() + std::string("[] ").size();
    if (room < besideBar + kShortestBar) {
        return text.substr(0, room);
    }
    const double share =
        state.endUs > 0 ? static_cast<double>(state.positionUs) / static_cast<double>(state.endUs)
                        : 0.0;
    return progressBar(share, std::min(room - besideBar, kLongestBar)) + " " + text;
}

void clearProgress() {
    if (gBarOnScreen.exchange(false)) {
        std::fputs("\r\033[K", stderr);
    }
}

Progress::Progress(bool enabled)
    : mEnabled(enabled), mTerminal(enabled && isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    clearProgress();
}

void Progress::update(const PlaybackProgress& state, int64_t nowNs) {
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
    // To the start of the line; clear the rest of an earlier, longer text.
    std::fprintf(stderr, "\r%s\033[K", progressLine(state, terminalColumns()).c_str());
    gBarOnScreen = true;
}

}  // namespace korvane::player
