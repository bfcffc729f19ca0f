// SPDX-License-Identifier: Apache-2.0
#include "player/report/ReportVerdict.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "player/base/Units.h"
#include "player/report/Words.h"

namespace korvane::player {
namespace {

/// What went wrong with the accounts, or empty.
std::string faults(const PlaybackRecord& record, const Summary& summary) {
    std::vector<std::string> found;
    const auto add = [&found](int64_t count, const char* one, const char* what) {
        if (count > 0) {
            found.push_back(counted(count, one) + what);
        }
    };
    add(summary.count(Outcome::Lost), "frame", " without an account");
    add(record.buffersKept, "buffer", " never came back");
    add(record.pool.unknownReturned, "buffer", " came back that was not ours");
    add(record.overwrittenOnScreen, "picture", " overwritten on screen");
    return fmt::format("{}", fmt::join(found, "; "));
}

/// Frames dropped before audio, by a flush or by the sync policy are not shown by intention.
bool avoidable(DropReason reason) {
    return reason == DropReason::Late || reason == DropReason::UnderflowCatchUp ||
           reason == DropReason::Unknown;
}

/// "late: 71", for each reason for which a frame should not have been dropped.
std::string avoidableDrops(const Summary& summary) {
    std::vector<std::string> drops;
    for (const auto& [reason, group] : summary.drops) {
        if (avoidable(reason)) {
            drops.push_back(fmt::format("{}: {}", inWords(toString(reason)), group.runs.frames));
        }
    }
    return fmt::format("{}", fmt::join(drops, ", "));
}

/// Unexpected dwells of stretches that held, before they did and after.
std::string unexpectedDwells(const Summary& summary) {
    int64_t before = 0;
    int64_t after = 0;
    for (const auto& stretch : summary.stretches) {
        const CadenceResult& cadence = stretch.cadence;
        before += static_cast<int64_t>(cadence.held ? cadence.unexpectedBefore : 0);
        after +=
            static_cast<int64_t>(cadence.held ? cadence.unexpected - cadence.unexpectedBefore : 0);
    }
    if (before == 0) {
        return after == 0 ? "" : ", then " + counted(after, "unexpected dwell");
    }
    return ", " + counted(before, "unexpected dwell") + " before it held" +
           (after == 0 ? "" : fmt::format(" and {} after", after));
}

/// Stretches that never held, other than the one that the verdict is about anyway.
std::string othersNeverHeld(const Summary& summary, const StretchReport& longest) {
    int64_t stretches = 0;
    size_t frames = 0;
    for (const auto& stretch : summary.stretches) {
        if (stretch.judged() && !stretch.cadence.held && &stretch != &longest) {
            ++stretches;
            frames += stretch.dwells;
        }
    }
    if (stretches == 0) {
        return "";
    }
    return fmt::format(", {} never in step ({})",
                       stretches == 1 ? "a stretch" : fmt::format("{} stretches", stretches),
                       counted(static_cast<int64_t>(frames), "frame"));
}

std::string whatHeld(const StretchReport& stretch) {
    const std::string name = stretch.expected.name();
    if (stretch.cadence.held) {
        return name + " " + whenHeld(stretch);
    }
    return stretch.seen.empty() || stretch.seen == name
               ? name + " never held"
               : stretch.seen + " seen where " + name + " was due";
}

const StretchReport& longestStretch(const Summary& summary) {
    return *std::max_element(
        summary.stretches.begin(), summary.stretches.end(),
        [](const auto& left, const auto& right) { return left.dwells < right.dwells; });
}

/// Every stretch that is long enough to tell held its pattern, every break from the first frame to
/// the last was by arithmetic, and no frame was dropped that could have been shown.
bool isEven(const Summary& summary) {
    if (summary.stretches.empty() || summary.variableRate || summary.expected.pattern.empty()) {
        return false;
    }
    const StretchReport& longest = longestStretch(summary);
    return longest.judged() && longest.cadence.held &&
           (unexpectedDwells(summary) + othersNeverHeld(summary, longest)).empty() &&
           avoidableDrops(summary).empty();
}

std::string patternVerdict(const Summary& summary) {
    if (summary.variableRate || summary.expected.pattern.empty()) {
        return "Played; the content's rate varies, so there is no pattern to keep";
    }
    const StretchReport& longest = longestStretch(summary);
    if (!longest.judged()) {
        return "Played; too short to tell a pattern";
    }
    const std::string broken = unexpectedDwells(summary) + othersNeverHeld(summary, longest);
    const bool stayed = longest.cadence.held && broken.empty();
    const bool explained = summary.unexpected > 0 && summary.explained == summary.unexpected;
    return (summary.even ? "Even: " : "Uneven: ") + whatHeld(longest) +
           (stayed ? " and stayed" : broken) + (explained ? ", with a cause" : "");
}

/// ", 3 frames not shown (late: 2)"; empty when all were.
std::string notShown(const Summary& summary) {
    const int64_t frames = summary.count(Outcome::Dropped) + summary.count(Outcome::Superseded);
    const std::string drops = avoidableDrops(summary);
    return frames == 0 ? ""
                       : ", " + counted(frames, "frame") + " not shown" +
                             (drops.empty() ? "" : " (" + drops + ")");
}

std::string verdictOf(const PlaybackRecord& record, const Summary& summary) {
    std::string text =
        summary.stretches.empty()
            ? "Nothing was shown of " + counted(summary.framesIn, "frame") + " handed in"
            : patternVerdict(summary) + notShown(summary);
    if (record.end == EndCause::Stalled) {
        text = "Stalled: nothing moved any more, so playback was stopped. " + text;
    }
    const std::string wrong = faults(record, summary);
    return wrong.empty() ? text + "; every frame accounted for, every buffer back."
                         : "FAULT: " + wrong + ". " + text + ".";
}

}  // namespace

void giveVerdict(const PlaybackRecord& record, Summary* summary) {
    const int64_t sum =
        std::accumulate(summary->outcomes.begin(), summary->outcomes.end(), int64_t{0});
    summary->sumHolds = sum == summary->framesIn && summary->count(Outcome::Pending) == 0;
    summary->framesAccounted = summary->sumHolds && summary->count(Outcome::Lost) == 0;
    summary->buffersBack = record.buffersKept == 0 && record.pool.unknownReturned == 0;
    summary->even = isEven(*summary);
    summary->verdict = verdictOf(record, *summary);
}

}  // namespace korvane::player
