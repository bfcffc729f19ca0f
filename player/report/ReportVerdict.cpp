// SPDX-License-Identifier: Apache-2.0
#include "player/report/ReportVerdict.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numeric>
#include <utility>
#include <vector>

#include "player/base/Units.h"
#include "player/report/Grade.h"
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

/// "late: 71", for each reason for which a frame should not have been dropped.
std::string describeDrops(const Summary& summary) {
    std::vector<std::string> drops;
    for (const auto& [reason, group] : summary.drops) {
        if (avoidable(reason)) {
            drops.push_back(fmt::format("{}: {}", inWords(toString(reason)), group.runs.frames));
        }
    }
    return fmt::format("{}", fmt::join(drops, ", "));
}

/// Unexpected dwells of stretches that held, before they did and after, but for those asked for.
std::string unexpectedDwells(const Summary& summary) {
    int64_t before = 0;
    int64_t after = 0;
    for (const auto& stretch : summary.stretches) {
        const CadenceResult& cadence = stretch.cadence;
        before += static_cast<int64_t>(cadence.held ? cadence.unexpectedBefore : 0);
        after +=
            static_cast<int64_t>(cadence.held ? cadence.unexpected - cadence.unexpectedBefore : 0);
    }
    // What the player asked for, it asked for once playback was in step.
    after = std::max<int64_t>(after - summary.askedFor, 0);
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

/// "10 frames a second skipped", "a long frame twice a second", "a short frame every 16.7 s"
std::string describeLimit(const RateLimit& limit) {
    using Kind = RateLimit::Kind;
    const auto perSecond = static_cast<int64_t>(std::lround(limit.perSecond));
    const bool often = limit.perSecond >= 0.95;
    const std::string every =
        often ? "" : "every " + seconds(static_cast<int64_t>(1e6 / limit.perSecond), 1);
    if (limit.kind == Kind::Skipped) {
        return often ? counted(perSecond, "frame") + " a second skipped"
                     : "a frame skipped " + every;
    }
    const std::string frame = limit.kind == Kind::Long ? "long frame" : "short frame";
    return !often           ? "a " + frame + " " + every
           : perSecond == 1 ? "a " + frame + " every second"
           : perSecond == 2 ? "a " + frame + " twice a second"
                            : counted(perSecond, frame) + " a second";
}

/// What the rates of the longest stretch demand, after `before`; empty: nothing to speak of.
std::string demanded(const Summary& summary, const char* before) {
    const RateLimit limit = rateLimit(longestStretch(summary).expected);
    return limit.kind == RateLimit::Kind::None ? "" : before + describeLimit(limit);
}

/// The pattern of the longest stretch, and what the others add.
std::string describeCadence(const Summary& summary) {
    const StretchReport& longest = longestStretch(summary);
    if (!longest.judged()) {
        return "too short to tell a pattern";
    }
    const std::string broken = unexpectedDwells(summary) + othersNeverHeld(summary, longest);
    const bool stayed = longest.cadence.held && broken.empty();
    return whatHeld(longest) + (stayed ? " and stayed" : broken);
}

/// ", 3 frames not shown (late: 2)"; empty when all were.
std::string notShown(const Summary& summary) {
    const int64_t frames = summary.count(Outcome::Dropped) + summary.count(Outcome::Superseded);
    const std::string drops = describeDrops(summary);
    return frames == 0 ? ""
                       : ", " + counted(frames, "frame") + " not shown" +
                             (drops.empty() ? "" : " (" + drops + ")");
}

double secondsShown(const Summary& summary) {
    double vsyncs = 0.0;
    for (const auto& [dwell, frames] : summary.dwells) {
        vsyncs += static_cast<double>(dwell) * static_cast<double>(frames);
    }
    return vsyncs / summary.displayHz;
}

/// " once", " 5 times", " 3 times a minute"; empty: no disturbance of its own.
std::string howOften(const Summary& summary) {
    constexpr int64_t kFew = 3;
    const int64_t count = summary.disturbances;
    const int64_t dwells = std::accumulate(
        summary.stretches.begin(), summary.stretches.end(), int64_t{0},
        [](int64_t sum, const auto& s) { return sum + static_cast<int64_t>(s.dwells); });
    if (summary.unexpected * 2 > dwells || avoidableDrops(summary) * 2 > summary.framesIn) {
        return " throughout";
    }
    const auto perMinute = static_cast<int64_t>(std::lround(summary.visibleBreaksPerMinute));
    return count == 0   ? ""
           : count == 1 ? " once"
           : count == 2 ? " twice"
           : count > kFew && secondsShown(summary) >= 60.0 && perMinute > 1
               ? fmt::format(" {} times a minute", perMinute)
               : fmt::format(" {} times", count);
}

/// ", because of dropped frames"; "mainly", if there are others; empty: the record does not tell.
std::string because(const Summary& summary) {
    const std::pair<const BreakCause, int64_t>* main = nullptr;
    size_t kinds = 0;
    for (const auto& cause : summary.causes) {
        if (!askedFor(cause.first)) {
            ++kinds;
            main = main == nullptr || cause.second > main->second ? &cause : main;
        }
    }
    return main == nullptr || main->first == BreakCause::Unexplained
               ? ""
               : fmt::format(", {}because of {}", kinds > 1 ? "mainly " : "",
                             describe(main->first));
}

std::string describeLipSync(const LipSync& sync) {
    return fmt::format("sound {} {} at worst, noticeable (ITU-R BT.1359-1) for {:.1f} of {:.1f} s",
                       milliseconds(std::abs(sync.worstUs)), sync.worstUs > 0 ? "early" : "late",
                       sync.secondsOutsideItuDetectable, sync.secondsJudged);
}

std::string describePlayback(const PlaybackRecord& record, const Summary& summary) {
    switch (summary.grade) {
        case Grade::NothingShown:
            return "Nothing was shown of " + counted(summary.framesIn, "frame") + " handed in";
        case Grade::Stalled:
            return "Stalled: nothing moved any more, so playback was stopped; until then " +
                   describeCadence(summary);
        case Grade::BrokenOff:
            return fmt::format("Broken off: the file ends at {}; until then {}",
                               seconds(record.brokeOffAtUs), describeCadence(summary));
        case Grade::Interrupted:
            return "Interrupted: until then " + describeCadence(summary);
        case Grade::Faulty:
            return "FAULT: " + faults(record, summary) + "; " + describeCadence(summary);
        case Grade::OutOfSync:
            return "Out of sync: " + describeLipSync(summary.lipSync) + "; " +
                   describeCadence(summary);
        case Grade::Uneven:
            return "Uneven" + howOften(summary) + because(summary) + ": " +
                   describeCadence(summary);
        case Grade::TooShort:
            return "Played; too short to tell a pattern";
        case Grade::AsRatesAllow:
            return "As even as the rates allow" + demanded(summary, ", ") + ": " +
                   describeCadence(summary);
        case Grade::Even:
            break;
    }
    return "Even: " + describeCadence(summary) +
           (summary.byArithmetic > 0 ? demanded(summary, " but for ") : "");
}

std::string verdictOf(const PlaybackRecord& record, const Summary& summary) {
    std::string text = describePlayback(record, summary);
    if (summary.grade != Grade::NothingShown) {
        text += notShown(summary);
    }
    if (summary.grade == Grade::NothingShown && !summary.complete) {
        text += fmt::format(" ({})", inWords(toString(record.end)));
    }
    if (summary.grade == Grade::Faulty) {
        return text + ".";
    }
    const std::string wrong = faults(record, summary);
    return wrong.empty() ? text + "; every frame accounted for, every buffer back."
                         : text + ". FAULT: " + wrong + ".";
}

}  // namespace

void giveVerdict(const PlaybackRecord& record, Summary* summary) {
    const int64_t sum =
        std::accumulate(summary->outcomes.begin(), summary->outcomes.end(), int64_t{0});
    summary->sumHolds = sum == summary->framesIn && summary->count(Outcome::Pending) == 0;
    summary->framesAccounted = summary->sumHolds && summary->count(Outcome::Lost) == 0;
    summary->buffersBack = record.buffersKept == 0 && record.pool.unknownReturned == 0;
    summary->visibleBreaksPerMinute =
        static_cast<double>(summary->disturbances) * 60.0 / std::max(secondsShown(*summary), 1.0);
    summary->even = isEven(*summary);
    summary->inSync = isInSync(summary->lipSync);
    summary->complete = isComplete(record.end);
    summary->grade = gradeOf(record, *summary);
    summary->verdict = verdictOf(record, *summary);
}

}  // namespace korvane::player
