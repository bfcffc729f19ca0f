// SPDX-License-Identifier: Apache-2.0
#include "player/report/BreakCause.h"

#include <fmt/core.h>

#include <algorithm>

namespace korvane::player {
namespace {

/// How long after its end a clock stop may still be the cause: playback has to find its step again.
constexpr int64_t kAfterStopUs = 500'000;

bool ended(const ClockStop& stop) {
    return stop.toUs != 0;
}

bool touches(const ClockStop& stop, const DwellFacts& facts) {
    return (!ended(stop) || facts.shownUs <= stop.toUs + kAfterStopUs) &&
           stop.fromUs <= std::max(facts.releasedUs, facts.shownUs);
}

struct CauseWords {
    const char* name;
    const char* description;
};
/// In the order of the enumeration.
constexpr CauseWords kCauseWords[kBreakCauses] = {
    {"unexplained", "what the record does not tell"},
    {"pause", "a pause"},
    {"resume", "the way back into step after a pause"},
    {"underflow", "audio that ran dry"},
    {"drop", "dropped frames"},
    {"late_frame", "frames handed in late"}};

}  // namespace

const char* toString(BreakCause cause) {
    return kCauseWords[static_cast<size_t>(cause)].name;
}

const char* describe(BreakCause cause) {
    return kCauseWords[static_cast<size_t>(cause)].description;
}

bool askedFor(BreakCause cause) {
    return cause == BreakCause::Pause;
}

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

BreakCause causeOfBreak(const DwellFacts& facts, const std::vector<ClockStop>& stops) {
    const auto stop =
        std::find_if(stops.begin(), stops.end(),
                     [&facts](const ClockStop& candidate) { return touches(candidate, facts); });
    if (stop != stops.end()) {
        const bool over = ended(*stop) && facts.shownUs > stop->toUs;
        return !stop->byPlayer ? BreakCause::Underflow
               : over          ? BreakCause::Resume
                               : BreakCause::Pause;
    }
    if (facts.nextDropped) {
        return BreakCause::Drop;
    }
    return facts.sentLate || facts.nextSentLate ? BreakCause::LateFrame : BreakCause::Unexplained;
}

std::string tellCause(BreakCause cause, const DwellFacts& facts) {
    switch (cause) {
        case BreakCause::Pause:
            return "the clock stood still: pause";
        case BreakCause::Resume:
            return "the clock had stood still: pause";
        case BreakCause::Underflow:
            return "the clock stood still: audio underflow";
        case BreakCause::Drop:
            return fmt::format("the next frame was dropped: {}", toString(*facts.nextDropped));
        case BreakCause::LateFrame:
            return fmt::format("frame {} was handed in late",
                               facts.sentLate ? facts.frameNo : facts.frameNo + 1);
        case BreakCause::Unexplained:
            break;
    }
    return "";
}

}  // namespace korvane::player
