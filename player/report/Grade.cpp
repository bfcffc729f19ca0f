// SPDX-License-Identifier: Apache-2.0
#include "player/report/Grade.h"

#include <algorithm>
#include <cmath>

namespace korvane::player {
namespace {

/// Nobody minds glitches that are rarer than one in 8 s.
constexpr double kRareGlitchesPerSecond = 1.0 / 8.0;
constexpr double kOutsideSeconds = 1.0;
constexpr double kOutsideShare = 0.001;
constexpr double kOutsideShareOfShort = 0.05;

bool hasPattern(const StretchReport& stretch) {
    return stretch.judged() && !stretch.expected.pattern.empty();
}

bool judged(const Summary& summary) {
    return std::any_of(summary.stretches.begin(), summary.stretches.end(), hasPattern);
}

bool heldThroughout(const Summary& summary) {
    return std::all_of(summary.stretches.begin(), summary.stretches.end(), [](const auto& stretch) {
        return !hasPattern(stretch) || stretch.cadence.held;
    });
}

/// The rates of a stretch make it visibly uneven. Rare skips count only where there were some.
bool limited(const StretchReport& stretch) {
    const RateLimit limit = rateLimit(stretch.expected);
    return stretch.judged() && (limit.visible || (limit.kind == RateLimit::Kind::Skipped &&
                                                  stretch.cadence.byArithmetic > 0));
}

}  // namespace

const char* toString(Grade grade) {
    switch (grade) {
        case Grade::NothingShown:
            return "nothing_shown";
        case Grade::Stalled:
            return "stalled";
        case Grade::BrokenOff:
            return "broken_off";
        case Grade::Interrupted:
            return "interrupted";
        case Grade::Faulty:
            return "faulty";
        case Grade::OutOfSync:
            return "out_of_sync";
        case Grade::Uneven:
            return "uneven";
        case Grade::TooShort:
            return "too_short";
        case Grade::AsRatesAllow:
            return "as_rates_allow";
        case Grade::Even:
            break;
    }
    return "even";
}

RateLimit rateLimit(const ExpectedCadence& expected) {
    if (expected.pattern.empty()) {
        return {};
    }
    using Kind = RateLimit::Kind;
    const double vsyncsPerFrame = expected.displayHz / expected.contentHz;
    const double slips = expected.secondsPerSlip() > 0.0 ? 1.0 / expected.secondsPerSlip() : 0.0;
    if (vsyncsPerFrame < 1.0) {
        const double skipped = expected.contentHz - expected.displayHz;
        return {slips == 0.0 && skipped * 86'400.0 < 1.0 ? Kind::None : Kind::Skipped, skipped,
                skipped > kRareGlitchesPerSecond};
    }
    // In a cycle of one or two frames the dwells are regular, and only slips stand out.
    if (expected.pattern.size() <= 2) {
        return {slips == 0.0                  ? Kind::None
                : expected.slipPerFrame > 0.0 ? Kind::Long
                                              : Kind::Short,
                slips, slips > kRareGlitchesPerSecond};
    }
    const double longer = vsyncsPerFrame - std::floor(vsyncsPerFrame);
    return longer < 0.5 ? RateLimit{Kind::Long, longer * expected.contentHz, true}
                        : RateLimit{Kind::Short, (1.0 - longer) * expected.contentHz, true};
}

bool avoidable(DropReason reason) {
    return reason == DropReason::Late || reason == DropReason::UnderflowCatchUp ||
           reason == DropReason::Unknown;
}

int64_t avoidableDrops(const Summary& summary) {
    int64_t frames = 0;
    for (const auto& [reason, group] : summary.drops) {
        frames += avoidable(reason) ? group.runs.frames : 0;
    }
    return frames;
}

const StretchReport& longestStretch(const Summary& summary) {
    return *std::max_element(
        summary.stretches.begin(), summary.stretches.end(),
        [](const auto& left, const auto& right) { return left.dwells < right.dwells; });
}

bool isEven(const Summary& summary) {
    return judged(summary) && heldThroughout(summary) && summary.unexpected == summary.askedFor &&
           avoidableDrops(summary) == 0;
}

std::optional<bool> isInSync(const LipSync& sync) {
    if (sync.secondsJudged <= 0.0) {
        return std::nullopt;
    }
    const double share = sync.secondsOutsideItuDetectable / sync.secondsJudged;
    return share <= kOutsideShareOfShort &&
           (sync.secondsOutsideItuDetectable <= kOutsideSeconds || share <= kOutsideShare);
}

bool isComplete(EndCause end) {
    return end == EndCause::Complete || end == EndCause::Stopped;
}

Grade gradeOf(const PlaybackRecord& record, const Summary& summary) {
    const EndCause end = record.end;
    if (summary.stretches.empty()) {
        return Grade::NothingShown;
    }
    if (end == EndCause::Stalled) {
        return Grade::Stalled;
    }
    if (end == EndCause::BrokenOff) {
        return Grade::BrokenOff;
    }
    if (end == EndCause::Interrupted) {
        return Grade::Interrupted;
    }
    if (!summary.accounted() || record.overwrittenOnScreen > 0) {
        return Grade::Faulty;
    }
    if (!isInSync(summary.lipSync).value_or(true)) {
        return Grade::OutOfSync;
    }
    if (!isEven(summary)) {
        const bool broken = judged(summary) || avoidableDrops(summary) > 0;
        return broken ? Grade::Uneven : Grade::TooShort;
    }
    const bool asAllowed = std::any_of(summary.stretches.begin(), summary.stretches.end(), limited);
    return asAllowed ? Grade::AsRatesAllow : Grade::Even;
}

}  // namespace korvane::player
