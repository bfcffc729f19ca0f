// SPDX-License-Identifier: Apache-2.0
#include "player/command/Progress.h"

#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>

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

constexpr size_t kUsualRows = 24;
/// Of the machine's time, whichever clock plays.
constexpr int64_t kLiveIntervalNs = 50'000'000;

/// Process-wide, as standard error is; any thread may clear what is drawn.
std::atomic<int> gRowsOnScreen{0};

struct TerminalSize {
    size_t rows = kUsualRows;
    size_t columns = kUsualColumns;
};

TerminalSize terminalSize() {
    winsize size{};
    const bool known =
        ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0;
    return known ? TerminalSize{size.ws_row, size.ws_col} : TerminalSize{};
}

/// A terminal that lines can be redrawn on.
bool standardErrorRedraws() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment.
    const char* kind = std::getenv("TERM");
    return isatty(STDERR_FILENO) == 1 && (kind == nullptr || std::string_view(kind) != "dumb");
}

/// The machine's monotonic time, in virtual time too.
int64_t machineNs() {
    timespec time{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

/// To the beginning of what was drawn last.
std::string toFirstRow(int rows) {
    return rows > 1 ? "\r\033[" + std::to_string(rows - 1) + "A" : "\r";
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
    if (const int rows = gRowsOnScreen.exchange(0); rows > 0) {
        std::fputs((toFirstRow(rows) + (rows > 1 ? "\033[J" : "\033[K")).c_str(), stderr);
    }
}

Progress::Progress(bool enabled, const LiveView* live)
    : mEnabled(enabled),
      mTerminal(enabled && standardErrorRedraws()),
      mLive(mTerminal ? live : nullptr) {}

Progress::~Progress() {
    clearProgress();
}

void Progress::update(const PlaybackProgress& state, int64_t nowNs) {
    if (mLive != nullptr) {
        mState = state;
        nowNs = machineNs();
    }
    if (!mEnabled || nowNs < mNextNs) {
        return;
    }
    if (mLive != nullptr) {
        mNextNs = nowNs + kLiveIntervalNs;
        drawLive();
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
    std::fprintf(stderr, "\r%s\033[K", progressLine(state, terminalSize().columns).c_str());
    gRowsOnScreen = 1;
}

/// In one write, over what was there before, so that nothing flickers. The cursor is left as it
/// is: a kill at any moment leaves a terminal in order.
void Progress::drawLive() const {
    const TerminalSize size = terminalSize();
    auto lines = liveLines(mLive->figures(), mState, size.columns);
    lines.push_back(progressLine(mState, size.columns));
    lines.resize(std::min(lines.size(), size.rows));
    std::string text = toFirstRow(gRowsOnScreen);
    for (size_t i = 0; i < lines.size(); ++i) {
        text += (i > 0 ? "\r\n" : "") + lines[i] + "\033[K";
    }
    std::fputs((text + "\033[J").c_str(), stderr);
    gRowsOnScreen = static_cast<int>(lines.size());
}

void Progress::end() {
    if (mLive != nullptr) {
        drawLive();
        std::fputs("\r\n", stderr);
        gRowsOnScreen = 0;
    }
    clearProgress();
}

}  // namespace korvane::player
