// SPDX-License-Identifier: Apache-2.0
#include "player/report/BreakCause.h"

#include <fmt/core.h>

#include <algorithm>
#include <cstdlib>

#include "player/base/Units.h"

namespace korvane::player {
namespace {

/// How long after its end a clock stop may still be the cause: playback has to find its step again.
constexpr int64_t kAfterStopUs = 500'000;

/// Steps that differ by less do so by rounding, to milliseconds at worst.
constexpr int64_t kRoundingUs = 2'000;
/// A clock that audio corrects moves by at least this much at once.
constexpr int64_t kClockMovedUs = 1'000;
/// How far from a break its cause is looked for: the longest cycle of a pattern.
constexpr size_t kNeighbours = 12;

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
    {"lost", "frames without an account"},
    {"late_frame", "frames handed in late"},
    {"late_on_screen", "frames on screen later than they were due"},
    {"source_gap", "frames missing in the source"},
    {"clock_moved", "a clock that was corrected"},
    {"timestamps", "irregular timestamps of the content"},
    {"start", "the start, before the pattern held"},
    {"flush", "a flush, until the pattern held again"},
    {"mode_change", "a change of the display's rate"},
    {"rate_change", "a change of the content's rate"},
    {"renderer", "the renderer's choice of vsyncs"},
    {"wrong_pattern", "a pattern in force that the content does not have"}};

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

DwellFacts dwellFacts(const FrameEntry& frame) {
    DwellFacts facts;
    facts.frameNo = frame.frameNo;
    facts.mediaTimeUs = frame.mediaTimeUs;
    facts.clockUs = frame.clockRealUs;
    facts.releasedUs = frame.record->releasedNs / 1000;
    facts.dwell = static_cast<int>(frame.record->dwellVsyncs);
    facts.shownUs = facts.dwell > 0 ? frame.record->firstVsync.timeNs / 1000 : facts.releasedUs;
    facts.sentLate = frame.sentLate;
    return facts;
}

void addNext(DwellFacts* facts, const FrameEntry& next, double contentHz, double displayHz) {
    facts->nextSentLate = facts->nextSentLate || next.sentLate;
    if (next.outcome == Outcome::Dropped) {
        facts->nextDropped = facts->nextDropped.value_or(next.dropReason);
    }
    facts->nextLost = facts->nextLost || next.outcome == Outcome::Lost;
    const int64_t mediaUs = next.mediaTimeUs - facts->mediaTimeUs;
    const auto frames = static_cast<double>(next.frameNo - facts->frameNo);
    facts->contentStepUs = 1e6 / contentHz;
    facts->sourceOffUs = mediaUs - static_cast<int64_t>(frames * facts->contentStepUs);
    if (facts->clockUs && next.clockRealUs) {
        facts->clockMovedUs = *next.clockRealUs - *facts->clockUs - mediaUs;
    }
    if (next.outcome == Outcome::Shown) {
        facts->nextLateUs = next.record->firstVsync.timeNs / 1000 -
                            next.record->presentationTimeUs - static_cast<int64_t>(1e6 / displayHz);
    }
}

namespace {

/// What the frame's own facts tell.
BreakCause causeAt(const DwellFacts& facts, const std::vector<ClockStop>& stops) {
    const auto stop =
        std::find_if(stops.begin(), stops.end(),
                     [&facts](const ClockStop& candidate) { return touches(candidate, facts); });
    if (stop != stops.end()) {
        const bool over = ended(*stop) && facts.shownUs > stop->toUs;
        return !stop->byPlayer ? BreakCause::Underflow
               : over          ? BreakCause::Resume
                               : BreakCause::Pause;
    }
    if (facts.nextDropped || facts.nextLost) {
        return facts.nextDropped ? BreakCause::Drop : BreakCause::Lost;
    }
    if (facts.sentLate || facts.nextSentLate) {
        return BreakCause::LateFrame;
    }
    if (static_cast<double>(facts.sourceOffUs) > facts.contentStepUs / 2) {
        return BreakCause::SourceGap;
    }
    if (std::abs(facts.clockMovedUs) >= kClockMovedUs) {
        return BreakCause::ClockMoved;
    }
    if (facts.nextLateUs > kRoundingUs) {
        return BreakCause::LateOnScreen;
    }
    return std::abs(facts.sourceOffUs) > kRoundingUs ? BreakCause::Timestamps
                                                     : BreakCause::Unexplained;
}

}  // namespace

FoundCause causeOfBreak(const std::deque<DwellFacts>& frames, size_t at,
                        const std::vector<ClockStop>& stops, const StretchStart& start) {
    const DwellFacts& own = frames[at];
    for (size_t away = 0; away <= kNeighbours; ++away) {
        // What came before is the likelier cause.
        for (const size_t i : {at - away, at + away}) {
            const BreakCause cause =
                i < frames.size() ? causeAt(frames[i], stops) : BreakCause::Unexplained;
            // A pause is no fault of the frame that it holds on screen, but of no other's either.
            if (cause != BreakCause::Unexplained && (away == 0 || !askedFor(cause))) {
                return {cause, frames[i]};
            }
        }
    }
    if (own.shownUs <= start.atUs + kAfterStopUs) {
        return {start.cause, own};
    }
    return {own.clockUs ? BreakCause::Renderer : BreakCause::Unexplained, own};
}

std::string tellCause(const FoundCause& found) {
    const DwellFacts& facts = found.where;
    switch (found.cause) {
        case BreakCause::Unexplained:
            return "";
        case BreakCause::Pause:
            return "the clock stood still: pause";
        case BreakCause::Resume:
            return "the clock had stood still: pause";
        case BreakCause::Underflow:
            return "the clock stood still: audio underflow";
        case BreakCause::Drop:
            return fmt::format("the frame after {} was dropped: {}", facts.frameNo,
                               toString(*facts.nextDropped));
        case BreakCause::LateFrame:
            return fmt::format("frame {} was handed in late",
                               facts.sentLate ? facts.frameNo : facts.frameNo + 1);
        case BreakCause::SourceGap:
            return fmt::format("the source has a gap of {} after frame {}",
                               milliseconds(facts.sourceOffUs), facts.frameNo);
        case BreakCause::ClockMoved:
            return fmt::format("the clock moved by {} after frame {}",
                               signedMilliseconds(facts.clockMovedUs), facts.frameNo);
        case BreakCause::LateOnScreen:
            return fmt::format("the frame after {} was {} late on screen", facts.frameNo,
                               milliseconds(facts.nextLateUs));
        default:
            return describe(found.cause);
    }
}

}  // namespace korvane::player
