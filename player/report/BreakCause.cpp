// SPDX-License-Identifier: Apache-2.0
#include "player/report/BreakCause.h"

#include <fmt/core.h>

#include <algorithm>

namespace korvane::player {
namespace {

/// How long after its end a clock stop may still be the cause: playback has to find its step again.
constexpr int64_t kAfterStopUs = 500'000;

bool touches(const ClockStop& stop, const DwellFacts& facts) {
    const bool ended = stop.toUs != 0;
    return (!ended || facts.shownUs <= stop.toUs + kAfterStopUs) &&
           stop.fromUs <= std::max(facts.releasedUs, facts.shownUs);
}

}  // namespace

DwellFacts dwellFacts(const FrameEntry& frame, const FrameEntry* next) {
    DwellFacts facts;
    facts.frameNo = frame.frameNo;
    facts.mediaTimeUs = frame.mediaTimeUs;
    facts.releasedUs = frame.record->releasedNs / 1000;
    facts.dwell = static_cast<int>(frame.record->dwellVsyncs);
    facts.shownUs = facts.dwell > 0 ? frame.record->firstVsync.timeNs / 1000 : facts.releasedUs;
    facts.sentLate = frame.sentLate;
    if (next != nullptr) {
        facts.nextSentLate = next->sentLate;
        if (next->outcome == Outcome::Dropped) {
            facts.nextDropped = next->dropReason;
        }
    }
    return facts;
}

std::string causeOfBreak(const DwellFacts& facts, const std::vector<ClockStop>& stops) {
    const auto stop =
        std::find_if(stops.begin(), stops.end(),
                     [&facts](const ClockStop& candidate) { return touches(candidate, facts); });
    if (stop != stops.end()) {
        return stop->byPlayer ? "the clock stood still: pause"
                              : "the clock stood still: audio underflow";
    }
    if (facts.nextDropped) {
        return fmt::format("the next frame was dropped: {}", toString(*facts.nextDropped));
    }
    if (facts.sentLate || facts.nextSentLate) {
        return fmt::format("frame {} was handed in late",
                           facts.sentLate ? facts.frameNo : facts.frameNo + 1);
    }
    return "";
}

}  // namespace korvane::player
