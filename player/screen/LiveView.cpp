// SPDX-License-Identifier: Apache-2.0
#include "player/screen/LiveView.h"

#include <fmt/format.h>

#include <algorithm>

#include "player/base/Units.h"
#include "player/report/Cadence.h"

namespace korvane::player {
namespace {

/// The last dwells that are kept; the pattern is read from the last of them.
constexpr size_t kKeptDwells = 120;
constexpr size_t kLivePatternDwells = 24;

/// As many of the last dwells as fit, and the one still counting.
std::string dwellStrip(const LiveFigures& figures, size_t room) {
    std::string strip = figures.now.frameNo >= 0 ? fmt::format("{}..", figures.now.dwell) : "";
    for (auto dwell = figures.dwells.rbegin(); dwell != figures.dwells.rend(); ++dwell) {
        std::string longer = fmt::format("{} {}", *dwell, strip);
        if (longer.size() > room) {
            break;
        }
        strip = std::move(longer);
    }
    return strip;
}

}  // namespace

void LiveView::onVsync(const ScreenMoment& moment, const tv::SoundRecord& /*sound*/) {
    const std::lock_guard<std::mutex> guard(mLock);
    const bool same = mNow.frameNo == moment.frameNo && moment.dwell > 1;
    if (!same && mNow.frameNo >= 0) {
        mDwells.push_back(static_cast<int>(mNow.dwell));
        if (mDwells.size() > kKeptDwells) {
            mDwells.pop_front();
        }
    }
    mNow = {moment.frameNo, moment.vsync.index, moment.dwell, 0, "", moment.offsetUs};
}

LiveFigures LiveView::figures() const {
    LiveFigures figures;
    {
        const std::lock_guard<std::mutex> guard(mLock);
        figures = {mNow, {mDwells.begin(), mDwells.end()}};
    }
    const auto& dwells = figures.dwells;
    const auto last = static_cast<std::ptrdiff_t>(std::min(dwells.size(), kLivePatternDwells));
    figures.now.pattern = seenPatternName({dwells.end() - last, dwells.end()});
    return figures;
}

std::vector<std::string> liveLines(const LiveFigures& figures, const PlaybackProgress& progress,
                                   size_t columns) {
    constexpr size_t kLabel = 9;
    const Figures& now = figures.now;
    const size_t room = columns > kLabel + 1 ? columns - kLabel - 1 : 0;
    const auto& held = progress.buffers;
    std::vector<std::string> lines{
        now.frameNo >= 0 ? fmt::format("screen   frame {} at vsync {}", now.frameNo, now.vsync)
                         : fmt::format("screen   black at vsync {}", now.vsync),
        "dwell    " + dwellStrip(figures, room),
        "pattern  " + (now.pattern.empty() ? "none seen yet" : now.pattern + " seen"),
        "offset   " + (now.offsetUs ? signedMilliseconds(*now.offsetUs) + " from the sync clock"
                                    : "not known"),
        fmt::format("queue    library {:2}  tunnel {:2}  player {:2}", held.library, held.tunnel,
                    held.player),
        fmt::format("drops    {}", progress.dropped)};
    for (auto& line : lines) {
        line.resize(std::min(line.size(), std::max<size_t>(columns, 1) - 1));
    }
    return lines;
}

}  // namespace korvane::player
