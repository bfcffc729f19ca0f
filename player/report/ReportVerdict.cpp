// SPDX-License-Identifier: Apache-2.0
#include "player/report/ReportVerdict.h"

#include <algorithm>

#include "player/base/Units.h"

namespace korvane::player {
namespace {

/// What went wrong with the accounts, or empty.
std::string faults(const PlaybackRecord& record, const Summary& summary) {
    std::string text;
    if (summary.count(Outcome::Lost) > 0) {
        text += counted(summary.count(Outcome::Lost), "frame") + " without an account; ";
    }
    if (record.buffersKept > 0) {
        text += counted(record.buffersKept, "buffer") + " never came back; ";
    }
    if (record.pool.unknownReturned > 0) {
        text += counted(record.pool.unknownReturned, "buffer") + " came back that was not ours; ";
    }
    if (record.overwrittenOnScreen > 0) {
        text += counted(record.overwrittenOnScreen, "picture") + " overwritten on screen; ";
    }
    return text.empty() ? text : text.substr(0, text.size() - 2);
}

/// Frames dropped before audio, by a flush or by the sync policy are not shown by intention.
bool avoidable(DropReason reason) {
    return reason == DropReason::Late || reason == DropReason::UnderflowCatchUp ||
           reason == DropReason::Unknown;
}

/// "late: 71", for each reason for which a frame should not have been dropped.
std::string avoidableDrops(const Summary& summary) {
    std::string text;
    for (const auto& [reason, group] : summary.drops) {
        if (avoidable(reason)) {
            std::string name = toString(reason);
            std::replace(name.begin(), name.end(), '_', ' ');
            text += (text.empty() ? "" : ", ") + name + ": " + std::to_string(group.runs.frames);
        }
    }
    return text;
}

/// Unexpected dwells of stretches that held, before they did and after.
std::string unexpectedDwells(const Summary& summary) {
    size_t before = 0;
    size_t after = 0;
    for (const auto& section : summary.sections) {
        const CadenceResult& cadence = section.cadence;
        before += cadence.held ? cadence.unexpectedBefore : 0;
        after += cadence.held ? cadence.unexpected - cadence.unexpectedBefore : 0;
    }
    if (before == 0) {
        return after == 0 ? ""
                          : ", then " + counted(static_cast<int64_t>(after), "unexpected dwell");
    }
    return ", " + counted(static_cast<int64_t>(before), "unexpected dwell") + " before it held" +
           (after == 0 ? "" : " and " + std::to_string(after) + " after");
}

/// Stretches that never held, other than the one that the verdict is about anyway.
std::string othersNeverHeld(const Summary& summary, const StretchReport& longest) {
    size_t stretches = 0;
    size_t frames = 0;
    for (const auto& section : summary.sections) {
        if (section.judged() && !section.cadence.held && &section != &longest) {
            ++stretches;
            frames += section.dwells;
        }
    }
    if (stretches == 0) {
        return "";
    }
    return ", " + (stretches == 1 ? "a stretch" : std::to_string(stretches) + " stretches") +
           " never in step (" + counted(static_cast<int64_t>(frames), "frame") + ")";
}

std::string whatHeld(const StretchReport& section) {
    const std::string name = section.expected.name();
    if (section.cadence.held) {
        return name + " held " + seconds(section.heldAfterUs, 2) +
               (section.afterAudio ? " after audio start" : " after the first frame");
    }
    return section.seen.empty() || section.seen == name
               ? name + " never held"
               : section.seen + " seen where " + name + " was due";
}

/// Even: every stretch that is long enough to tell held its pattern, nothing but arithmetic broke
/// it from the first frame to the last, and no frame was dropped that could have been shown.
std::string patternVerdict(const Summary& summary) {
    if (summary.variableRate || summary.expected.pattern.empty()) {
        return "Played; the content's rate varies, so there is no pattern to keep";
    }
    const StretchReport& longest = *std::max_element(
        summary.sections.begin(), summary.sections.end(),
        [](const auto& left, const auto& right) { return left.dwells < right.dwells; });
    if (!longest.judged()) {
        return "Played; too short to tell a pattern";
    }
    const std::string broken = unexpectedDwells(summary) + othersNeverHeld(summary, longest);
    const bool stayed = longest.cadence.held && broken.empty();
    const bool explained = summary.unexpected > 0 && summary.explained == summary.unexpected;
    return (stayed && avoidableDrops(summary).empty() ? "Even: " : "Uneven: ") + whatHeld(longest) +
           (stayed ? " and stayed" : broken) + (explained ? ", with a cause" : "");
}

std::string verdictOf(const PlaybackRecord& record, const Summary& summary) {
    const std::string wrong = faults(record, summary);
    std::string text;
    const int64_t unshown = summary.count(Outcome::Dropped) + summary.count(Outcome::Superseded);
    if (summary.sections.empty()) {
        text = "Nothing was shown of " + counted(summary.framesIn, "frame") + " handed in";
    } else {
        text = patternVerdict(summary);
        if (unshown > 0) {
            const std::string drops = avoidableDrops(summary);
            text += ", " + counted(unshown, "frame") + " not shown" +
                    (drops.empty() ? "" : " (" + drops + ")");
        }
    }
    if (record.end == EndCause::Stalled) {
        text = "Stalled: nothing moved any more, so playback was stopped. " + text;
    }
    return wrong.empty() ? text + "; every frame accounted for, every buffer back."
                         : "FAULT: " + wrong + ". " + text + ".";
}

}  // namespace

void Runs::add(int64_t frameNo) {
    mCurrent = frameNo == mLast + 1 ? mCurrent + 1 : 1;
    runs += mCurrent == 1 ? 1 : 0;
    longest = std::max(longest, mCurrent);
    mLast = frameNo;
    ++frames;
}

void giveVerdict(const PlaybackRecord& record, Summary* summary) {
    int64_t sum = 0;
    for (const int64_t count : summary->outcomes) {
        sum += count;
    }
    summary->sumHolds = sum == summary->framesIn && summary->count(Outcome::Pending) == 0;
    summary->framesAccounted = summary->sumHolds && summary->count(Outcome::Lost) == 0;
    summary->buffersBack = record.buffersKept == 0 && record.pool.unknownReturned == 0;
    summary->verdict = verdictOf(record, *summary);
}

}  // namespace korvane::player
