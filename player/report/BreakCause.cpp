// SPDX-License-Identifier: Apache-2.0
#include "player/report/BreakCause.h"

#include <fmt/core.h>

#include <algorithm>
#include <cstdlib>

#include "player/base/Units.h"

namespace korvane::player {
namespace {

/// How long after its end a clock stop may still be the cause: playback needs time to get back into
/// step.
constexpr int64_t kAfterStopUs = 500'000;

/// Smaller differences between steps are rounding, to milliseconds at worst.
constexpr int64_t kRoundingUs = 2'000;
/// A clock that audio corrects moves by at least this much at once.
constexpr int64_t kClockMovedUs = 1'000;
/// How far from a break its cause is looked for: the longest cycle of a pattern.
constexpr size_t kNeighbours = 12;
/// A player that waited less for a buffer is not late because of that.
constexpr int64_t kWaitedNs = 1'000'000;

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
    {"lost", "frames unaccounted for"},
    {"late_frame", "frames handed in late"},
    {"no_buffer", "no free frame buffer"},
    {"fence", "release fences that came late or never"},
    {"refusal", "frames that the tunnel refused"},
    {"policy", "the pass-through policy"},
    {"late_on_screen", "frames on screen later than they were due"},
    {"source_gap", "frames missing in the source"},
    {"clock_moved", "a clock that was corrected"},
    {"timestamps", "irregular timestamps of the content"},
    {"start", "the start"},
    {"flush", "a flush"},
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

Lateness latenessOf(const FrameEntry& frame, Lateness before, const LateFence& fence) {
    if (!frame.sentLate || before != Lateness::None) {
        return frame.sentLate ? before : Lateness::None;
    }
    if (frame.waitedNs < kWaitedNs) {
        return Lateness::Decoded;
    }
    const bool fenced = fence.fromNs < frame.sentNs && fence.toNs > frame.sentNs - frame.waitedNs;
    return fenced ? Lateness::Fence : Lateness::NoBuffer;
}

DwellFacts dwellFacts(const FrameEntry& frame, Lateness late) {
    DwellFacts facts;
    facts.frameNo = frame.frameNo;
    facts.mediaTimeUs = frame.mediaTimeUs;
    facts.clockUs = frame.clockRealUs;
    facts.releasedUs = frame.record->releasedNs / 1000;
    facts.dwell = static_cast<int>(frame.record->dwellVsyncs);
    facts.shownUs = facts.dwell > 0 ? frame.record->firstVsync.timeNs / 1000 : facts.releasedUs;
    facts.presentationUs = frame.record->presentationTimeUs;
    facts.late = late;
    return facts;
}

void addNext(DwellFacts* facts, const FrameEntry& next, Lateness late, double contentHz,
             double displayHz) {
    facts->nextLate = facts->nextLate == Lateness::None ? late : facts->nextLate;
    if (next.outcome == Outcome::Dropped) {
        facts->nextDropped = facts->nextDropped.value_or(next.dropReason);
    }
    facts->nextLost = facts->nextLost || next.outcome == Outcome::Lost;
    facts->nextRefused = facts->nextRefused || next.refusedByTunnel();
    const int64_t mediaUs = next.mediaTimeUs - facts->mediaTimeUs;
    const auto frames = static_cast<double>(next.frameNo - facts->frameNo);
    facts->vsyncUs = 1e6 / displayHz;
    if (contentHz > 0.0) {
        facts->contentStepUs = 1e6 / contentHz;
        facts->sourceOffUs = mediaUs - static_cast<int64_t>(frames * facts->contentStepUs);
    }
    if (facts->clockUs && next.clockRealUs) {
        facts->clockMovedUs = *next.clockRealUs - *facts->clockUs - mediaUs;
    }
    if (!next.record) {
        return;
    }
    const int64_t presentationUs = next.record->presentationTimeUs;
    facts->nextUntimed = presentationUs <= 0;
    if (facts->nextUntimed) {
        return;
    }
    if (next.outcome == Outcome::Shown) {
        facts->nextLateUs = next.record->firstVsync.timeNs / 1000 - presentationUs -
                            static_cast<int64_t>(facts->vsyncUs);
    }
    if (facts->clockUs && next.clockRealUs) {
        facts->movedUs =
            presentationUs - facts->presentationUs - (*next.clockRealUs - *facts->clockUs);
    }
}

namespace {

BreakCause causeOf(Lateness late) {
    switch (late) {
        case Lateness::NoBuffer:
            return BreakCause::NoBuffer;
        case Lateness::Fence:
            return BreakCause::Fence;
        default:
            return BreakCause::LateFrame;
    }
}

/// The cause that the outcome of the next frames gives.
BreakCause causeByOutcome(const DwellFacts& facts) {
    if (facts.nextRefused || facts.nextLost) {
        return facts.nextRefused ? BreakCause::Refusal : BreakCause::Lost;
    }
    if (facts.nextUntimed || facts.nextDropped == DropReason::Policy) {
        return BreakCause::Policy;
    }
    return facts.nextDropped ? BreakCause::Drop : BreakCause::Unexplained;
}

/// The cause that the frame's own facts give.
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
    if (static_cast<double>(facts.sourceOffUs) < -facts.contentStepUs / 2) {
        return BreakCause::Timestamps;
    }
    const Lateness late = facts.nextLate != Lateness::None ? facts.nextLate : facts.late;
    if (late != Lateness::None) {
        return causeOf(late);
    }
    if (const BreakCause cause = causeByOutcome(facts); cause != BreakCause::Unexplained) {
        return cause;
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

/// Looks for a frame with a cause, at the break first, then farther and farther from it; at the
/// same distance, before the break first.
/// @param tells  gives the cause that a frame has, if it is so far from the break
template <typename Tells>
FoundCause nearestCause(const std::deque<DwellFacts>& frames, size_t at, Tells tells) {
    for (size_t away = 0; away <= kNeighbours; ++away) {
        for (const size_t i : {at - away, at + away}) {
            const BreakCause cause =
                i < frames.size() ? tells(frames[i], away) : BreakCause::Unexplained;
            if (cause != BreakCause::Unexplained) {
                return {cause, frames[i], ""};
            }
        }
    }
    return {};
}

}  // namespace

FoundCause causeOfBreak(const std::deque<DwellFacts>& frames, size_t at,
                        const BreakSurroundings& around) {
    const DwellFacts& own = frames[at];
    FoundCause told = nearestCause(frames, at, [&](const DwellFacts& facts, size_t away) {
        const BreakCause cause = causeAt(facts, around.stops);
        // A pause explains only the frame that it holds on screen.
        return away > 0 && askedFor(cause) ? BreakCause::Unexplained : cause;
    });
    if (told.cause != BreakCause::Unexplained) {
        return told;
    }
    if (own.shownUs <= around.start.atUs + kAfterStopUs) {
        return {around.start.cause, own, ""};
    }
    FoundCause moved = nearestCause(frames, at, [&](const DwellFacts& facts, size_t) {
        return std::abs(static_cast<double>(facts.movedUs)) < facts.vsyncUs / 2
                   ? BreakCause::Unexplained
               : around.passthrough           ? BreakCause::Policy
               : !around.wrongPattern.empty() ? BreakCause::WrongPattern
                                              : BreakCause::Renderer;
    });
    moved.wrongPattern = around.wrongPattern;
    return moved;
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
        case BreakCause::NoBuffer:
        case BreakCause::Fence:
            return fmt::format("frame {} was handed in late{}",
                               facts.nextLate == Lateness::None ? facts.frameNo : facts.frameNo + 1,
                               found.cause == BreakCause::NoBuffer ? ": no buffer was free"
                               : found.cause == BreakCause::Fence  ? ": a fence kept its buffer"
                                                                   : "");
        case BreakCause::Refusal:
            return fmt::format("the tunnel refused the frame after {}", facts.frameNo);
        case BreakCause::SourceGap:
            return fmt::format("the source has a gap of {} after frame {}",
                               milliseconds(facts.sourceOffUs), facts.frameNo);
        case BreakCause::ClockMoved:
            return fmt::format("the clock moved by {} after frame {}",
                               signedMilliseconds(facts.clockMovedUs), facts.frameNo);
        case BreakCause::LateOnScreen:
            return fmt::format("the frame after {} was {} late on screen", facts.frameNo,
                               milliseconds(facts.nextLateUs));
        case BreakCause::WrongPattern:
            return fmt::format("{} is in force, which the content does not have",
                               found.wrongPattern);
        case BreakCause::Renderer:
            return fmt::format("the renderer moved the frame after {} by {}", facts.frameNo,
                               signedMilliseconds(facts.movedUs));
        default:
            return describe(found.cause);
    }
}

}  // namespace korvane::player
