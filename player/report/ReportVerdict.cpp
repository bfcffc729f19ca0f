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

/// Which frames and buffers are unaccounted for; empty: none.
std::string faults(const PlaybackRecord& record, const Summary& summary) {
    std::vector<std::string> found;
    const auto add = [&found](int64_t count, const char* one, const char* what) {
        if (count > 0) {
            found.push_back(counted(count, one) + what);
        }
    };
    const int64_t refused = summary.refusedByTunnel;
    add(summary.count(Outcome::Lost) - refused, "frame", " unaccounted for");
    add(refused, "frame", " refused by the tunnel and never given back");
    add(record.buffersKept, "buffer", " never came back");
    add(record.pool.unknownReturned, "buffer", " came back that is not the player's");
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

/// What is to be said of a playback with too few frames to tell a pattern.
std::string describeShort(const Summary& summary) {
    const int64_t shown = summary.count(Outcome::Shown);
    const int longest = summary.dwells.empty() ? 0 : summary.dwells.rbegin()->first;
    const double longestSeconds = longest / summary.displayHz;
    return counted(shown, "frame") + " shown, too few to tell a pattern" +
           (longestSeconds < 1.0 ? ""
                                 : fmt::format("; {} stood for {:.1f} s", shown == 1 ? "it" : "one",
                                               longestSeconds));
}

/// The pattern of the longest stretch, and what the others add.
std::string describeCadence(const Summary& summary) {
    const StretchReport& longest = longestStretch(summary);
    if (!longest.judged()) {
        return describeShort(summary);
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

/// "5 odd frames a second", "a long frame every 1.2 s": of a fault that goes on, how often it
/// shows.
std::string describeOngoing(const BreakSpan& span) {
    const double perSecond =
        static_cast<double>(span.breaks) * 1e6 / static_cast<double>(span.lengthUs());
    const std::string frame = span.longer == span.breaks ? "long frame"
                              : span.longer == 0         ? "short frame"
                                                         : "odd frame";
    return perSecond < 1.5 ? fmt::format("a {} every {:.1f} s", frame, 1.0 / perSecond)
                           : counted(std::lround(perSecond), frame) + " a second";
}

/// Of a fault that goes on: " throughout, 5 odd frames a second", " from 12.0 s on, ..."
std::string whileItGoesOn(const Summary& summary) {
    constexpr double kNearlyAll = 0.9;
    const BreakSpan& span = summary.ongoing;
    const bool throughout =
        static_cast<double>(span.lengthUs()) * 1e-6 > kNearlyAll * secondsShown(summary);
    const std::string when = throughout   ? " throughout"
                             : span.toEnd ? fmt::format(" from {} on", seconds(span.fromUs, 1))
                                          : fmt::format(" from {} to {}", seconds(span.fromUs, 1),
                                                        seconds(span.toUs, 1));
    return when + ", " + describeOngoing(span);
}

/// All that was uneven came soon after the start, and began before the pattern held.
bool onlyAtStart(const Summary& summary) {
    constexpr int64_t kSoonUs = 3'000'000;
    const StretchReport& first = summary.stretches.front();
    return first.cadence.held && first.cadence.unexpectedBefore > 0 &&
           first.disturbances == summary.disturbances && first.lastBreakUs <= kSoonUs;
}

/// " once, at 12.0 s", " 5 times", " 3 times a minute"; empty: no disturbance of its own.
std::string howOften(const Summary& summary) {
    constexpr int64_t kFew = 3;
    constexpr int64_t kTenthUs = 100'000;
    const int64_t count = summary.disturbances;
    const int64_t dwells = std::accumulate(
        summary.stretches.begin(), summary.stretches.end(), int64_t{0},
        [](int64_t sum, const auto& s) { return sum + static_cast<int64_t>(s.dwells); });
    if (summary.ongoing.breaks > 0) {
        return whileItGoesOn(summary);
    }
    if (summary.unexpected * 2 > dwells || avoidableDrops(summary) * 2 > summary.framesIn) {
        return " throughout";
    }
    if (onlyAtStart(summary)) {
        return " only in the first " + seconds(summary.stretches.front().lastBreakUs + kTenthUs, 1);
    }
    const auto perMinute = static_cast<int64_t>(std::lround(summary.visibleBreaksPerMinute));
    return count == 0   ? ""
           : count == 1 ? " once, at " + seconds(summary.firstBreakUs, 1)
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
    if (main == nullptr || main->first == BreakCause::Unexplained) {
        return "";
    }
    if (main->first == BreakCause::Start && kinds == 1 && onlyAtStart(summary)) {
        return "";  // the verdict says so already
    }
    const char* mainly = kinds > 1 ? "mainly " : "";
    if (main->first == BreakCause::WrongPattern) {
        return fmt::format(
            ", {}because the pattern {} is in force, which the content does not have", mainly,
            summary.wrongPattern);
    }
    return fmt::format(", {}because of {}", mainly, describe(main->first));
}

/// ", longest freeze 2.0 s"; empty: none that long.
std::string longFreeze(const Summary& summary) {
    constexpr int64_t kLongUs = 500'000;
    const int64_t freezeUs = summary.judder.longestFreezeUs;
    return freezeUs < kLongUs || !longestStretch(summary).judged()
               ? ""
               : ", longest freeze " + seconds(freezeUs, 1);
}

/// Pictures wait for sound.
std::string soundNeverStarted(const PlaybackRecord& record) {
    const bool started =
        std::any_of(record.sections.begin(), record.sections.end(),
                    [](const Section& section) { return section.audioStartedRealUs >= 0; });
    return record.withAudio && !started ? "; the sound never started" : "";
}

std::string describeLipSync(const LipSync& sync) {
    return fmt::format("sound {} {} at worst, noticeable (ITU-R BT.1359-1) for {:.1f} of {:.1f} s",
                       std::abs(sync.worstUs) < 1'000'000 ? milliseconds(std::abs(sync.worstUs))
                                                          : seconds(std::abs(sync.worstUs), 1),
                       sync.worstUs > 0 ? "early" : "late", sync.secondsOutsideItuDetectable,
                       sync.secondsJudged);
}

std::string describePlayback(const PlaybackRecord& record, const Summary& summary) {
    switch (summary.grade) {
        case Grade::NothingShown:
            return "Nothing was shown of " + counted(summary.framesIn, "frame") + " handed in" +
                   soundNeverStarted(record);
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
                   describeCadence(summary) + longFreeze(summary);
        case Grade::TooShort:
            return "Played; " + describeShort(summary) + soundNeverStarted(record);
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
