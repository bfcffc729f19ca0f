// SPDX-License-Identifier: Apache-2.0
#include "player/compare/Comparison.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <numeric>
#include <utility>

#include "player/base/Units.h"
#include "player/report/Words.h"

namespace korvane::player {
namespace {

/// What Matroska rounds media times to.
constexpr int64_t kSameTimeUs = 1'000;
/// A start falls anywhere in a vsync by chance: differences of up to this many vsyncs mean nothing.
constexpr double kChanceOfLipSync = 0.5;
constexpr double kChanceOfStart = 1.5;

bool sameFate(const LoggedFrame& a, const LoggedFrame& b) {
    return a.outcome == b.outcome && a.dropReason == b.dropReason && a.dwellVsyncs == b.dwellVsyncs;
}

void addPair(const LoggedFrame& a, const LoggedFrame& b, FrameDifference pair, Comparison* to) {
    ++to->common;
    if (a.queued && b.queued && !a.atOnce && !b.atOnce) {
        to->mostMovedUs = std::max(to->mostMovedUs, std::abs(a.presentUs - b.presentUs));
    }
    if (!sameFate(a, b)) {
        to->frames.push_back(pair);
    }
}

void align(const LoggedPlayback& a, const LoggedPlayback& b, Comparison* to) {
    const auto orderA = byMediaTime(a);
    const auto orderB = byMediaTime(b);
    size_t i = 0;
    size_t j = 0;
    while (i < orderA.size() || j < orderB.size()) {
        const LoggedFrame* inA = i < orderA.size() ? &a.frames[orderA[i]] : nullptr;
        const LoggedFrame* inB = j < orderB.size() ? &b.frames[orderB[j]] : nullptr;
        const int64_t apartUs = inA && inB ? inA->mediaTimeUs - inB->mediaTimeUs : 0;
        if (inA && inB && std::abs(apartUs) <= kSameTimeUs) {
            addPair(*inA, *inB, {inA->mediaTimeUs, orderA[i++], orderB[j++]}, to);
        } else if (inA && (!inB || apartUs < 0)) {
            ++to->onlyA;
            to->frames.push_back({inA->mediaTimeUs, orderA[i++], std::nullopt});
        } else {
            ++to->onlyB;
            to->frames.push_back({inB->mediaTimeUs, std::nullopt, orderB[j++]});
        }
    }
}

// ---- figures ----

double maxResume(const Summary& summary) {
    return static_cast<double>(summary.longestResume.us);
}

int64_t causeOf(const Summary& summary, BreakCause cause) {
    const auto found = summary.causes.find(cause);
    return found == summary.causes.end() ? 0 : found->second;
}

int64_t droppedFor(const Summary& summary, DropReason reason) {
    const auto found = summary.drops.find(reason);
    return found == summary.drops.end() ? 0 : found->second.runs.frames;
}

/// -1 unless a frame was heard.
double lipSync(const Summary& summary, int64_t LipSync::*member) {
    return summary.lipSync.samples == 0 ? -1.0
                                        : static_cast<double>(std::abs(summary.lipSync.*member));
}

double startOf(const Summary& summary, int64_t StretchReport::*member) {
    return summary.stretches.empty() ? -1.0 : static_cast<double>(summary.stretches[0].*member);
}

class FigureTable {
public:
    FigureTable(const ComparedRun& a, const ComparedRun& b) : mA(a), mB(b) {}

    void add(std::string key, FigureUnit unit,
             const std::function<double(const ComparedRun&)>& of) {
        const double a = valueOf(mA, key, of(mA));
        const double b = valueOf(mB, key, of(mB));
        mFigures.push_back({std::move(key), unit, a, b});
    }
    /// A count that is 0 in most playbacks: listed only if it is not.
    void addIfAny(const std::string& key, const std::function<int64_t(const Summary&)>& of) {
        const auto value = [&](const ComparedRun& run) {
            return run.told ? run.told->number(key).value_or(0.0)
                            : static_cast<double>(of(run.summary));
        };
        if (value(mA) != 0.0 || value(mB) != 0.0) {
            mFigures.push_back({key, FigureUnit::Count, value(mA), value(mB)});
        }
    }
    /// A figure that only summaries have.
    void addTold(const std::string& key, FigureUnit unit) {
        if (mA.told && mB.told && mA.told->number(key) && mB.told->number(key)) {
            mFigures.push_back({key, unit, *mA.told->number(key), *mB.told->number(key)});
        }
    }
    std::vector<Figure> take() { return std::move(mFigures); }

private:
    /// The summary's value if it has one. A value that the log could not measure stays unmeasured.
    static double valueOf(const ComparedRun& run, const std::string& key, double logged) {
        const auto told = run.told ? run.told->number(key) : std::nullopt;
        return told && logged >= 0.0 ? std::abs(*told) : logged;
    }

    const ComparedRun& mA;
    const ComparedRun& mB;
    std::vector<Figure> mFigures;
};

void addCounts(FigureTable* table) {
    table->add("frames_in", FigureUnit::Count,
               [](const auto& run) { return run.summary.framesIn; });
    for (int i = static_cast<int>(Outcome::Shown); i < kOutcomes; ++i) {
        const auto outcome = static_cast<Outcome>(i);
        const auto of = [outcome](const Summary& summary) { return summary.count(outcome); };
        const std::string key = std::string("frames_") + toString(outcome);
        if (outcome == Outcome::Shown || outcome == Outcome::Dropped) {
            table->add(key, FigureUnit::Count, [of](const auto& run) { return of(run.summary); });
        } else {
            table->addIfAny(key, of);
        }
    }
    for (int i = 0; i <= static_cast<int>(DropReason::Unknown); ++i) {
        const auto reason = static_cast<DropReason>(i);
        table->addIfAny(std::string("dropped_") + toString(reason),
                        [reason](const Summary& summary) { return droppedFor(summary, reason); });
    }
    table->add("dwells_unexpected", FigureUnit::Count,
               [](const auto& run) { return run.summary.unexpected; });
    for (int i = 0; i < kBreakCauses; ++i) {
        const auto cause = static_cast<BreakCause>(i);
        table->addIfAny(std::string("dwells_unexpected_") + toString(cause),
                        [cause](const Summary& summary) { return causeOf(summary, cause); });
    }
    table->addIfAny("frames_handed_in_late",
                    [](const Summary& summary) { return summary.sentLate; });
}

std::vector<Figure> figuresOf(const ComparedRun& a, const ComparedRun& b) {
    FigureTable table(a, b);
    table.add("content_hz", FigureUnit::Hertz,
              [](const auto& run) { return run.summary.contentHz; });
    table.add("display_hz", FigureUnit::Hertz,
              [](const auto& run) { return run.summary.displayHz; });
    addCounts(&table);
    const auto us = FigureUnit::Microseconds;
    table.add("lip_sync_median_us", us,
              [](const auto& run) { return lipSync(run.summary, &LipSync::medianUs); });
    table.add("lip_sync_p99_us", us,
              [](const auto& run) { return lipSync(run.summary, &LipSync::p99MagnitudeUs); });
    table.add("lip_sync_worst_us", us,
              [](const auto& run) { return lipSync(run.summary, &LipSync::worstUs); });
    table.add("lip_sync_seconds_outside_ebu", FigureUnit::Seconds,
              [](const auto& run) { return run.summary.lipSync.secondsOutsideEbu; });
    table.add("first_frame_us", us,
              [](const auto& run) { return startOf(run.summary, &StretchReport::firstFrameUs); });
    table.add("second_frame_us", us,
              [](const auto& run) { return startOf(run.summary, &StretchReport::secondFrameUs); });
    table.add("worst_first_frame_us", us, [](const auto& run) { return run.worstFirstFrameUs; });
    table.add("longest_resume_us", us, [](const auto& run) { return maxResume(run.summary); });
    table.add("longest_freeze_us", us,
              [](const auto& run) { return run.summary.judder.longestFreezeUs; });
    for (const char* key :
         {"buffers_kept", "pictures_overwritten_on_screen", "buffers_returned_again",
          "buffer_waits", "audio_underflows", "audio_reanchors", "passthrough_holds",
          "dwells_by_arithmetic", "sections"}) {
        table.addTold(key, FigureUnit::Count);
    }
    for (const char* key : {"buffer_longest_wait_us", "buffer_back_median_us", "buffer_back_p99_us",
                            "splice_lost_worst_us"}) {
        table.addTold(key, us);
    }
    return table.take();
}

// ---- judgement ----

/// A figure that decides, its name in the verdict, and the frames that it counts.
struct Criterion {
    const char* key;
    const char* what;
    bool (*isAbout)(const LoggedFrame&);
};

bool isUnaccounted(const LoggedFrame& frame) {
    return frame.outcome == Outcome::Lost || frame.outcome == Outcome::Refused;
}
bool isDropped(const LoggedFrame& frame) {
    return frame.outcome == Outcome::Dropped;
}
bool isSuperseded(const LoggedFrame& frame) {
    return frame.outcome == Outcome::Superseded;
}

/// What a viewer minds most comes first.
constexpr Criterion kCriteria[] = {
    {"frames_lost", "lost", isUnaccounted},
    {"frames_refused", "refused", isUnaccounted},
    {"buffers_kept", "never given back", nullptr},
    {"frames_dropped", "dropped", isDropped},
    {"frames_superseded", "superseded", isSuperseded},
    {"dwells_unexpected", "unexpected dwell", nullptr},
    {"lip_sync_p99_us", "lip-sync", nullptr},
    {"first_frame_us", "first frame", nullptr},
    {"worst_first_frame_us", "first frame after a seek", nullptr},
    {"longest_resume_us", "resume", nullptr},
};

const Figure* find(const std::vector<Figure>& figures, const std::string& key) {
    const auto found = std::find_if(figures.begin(), figures.end(),
                                    [&key](const Figure& figure) { return figure.key == key; });
    return found == figures.end() ? nullptr : &*found;
}

/// By how much B is worse; 0: the same, or not measured in both.
double worseBy(const Figure& figure, double vsyncUs) {
    const double by = figure.b - figure.a;
    if (figure.unit == FigureUnit::Count) {
        return by;
    }
    const double small =
        vsyncUs * (figure.key == "lip_sync_p99_us" ? kChanceOfLipSync : kChanceOfStart);
    return figure.a < 0.0 || figure.b < 0.0 || std::abs(by) <= small ? 0.0 : by;
}

/// ", first at 3.2 s": the media time of the first frame that counts in only one of the two.
std::string firstWhere(const ComparedRun& a, const ComparedRun& b, const Comparison& comparison,
                       bool (*isAbout)(const LoggedFrame&)) {
    for (const auto& pair : comparison.frames) {
        const bool inA = pair.a && (isAbout == nullptr || isAbout(a.log.frames[*pair.a]));
        const bool inB = pair.b && (isAbout == nullptr || isAbout(b.log.frames[*pair.b]));
        if (isAbout == nullptr ? inA && inB : inA != inB) {
            return ", first at " + seconds(pair.mediaTimeUs, 1);
        }
    }
    return "";
}

/// "12 frames more dropped, first at 3.2 s", "lip-sync 4.0 ms larger"
std::string tellChange(const Criterion& criterion, double by, const std::string& where) {
    const auto amount = static_cast<int64_t>(std::llround(std::abs(by)));
    const char* more = by > 0.0 ? "more" : "fewer";
    const std::string key = criterion.key;
    if (key == "lip_sync_p99_us") {
        return fmt::format("lip-sync {} {}", milliseconds(amount), by > 0.0 ? "worse" : "better");
    }
    if (criterion.isAbout != nullptr) {
        return fmt::format("{} {} {}{}", counted(amount, "frame"), more, criterion.what, where);
    }
    if (key == "buffers_kept") {
        return fmt::format("{} {} {}", counted(amount, "buffer"), more, criterion.what);
    }
    if (key == "dwells_unexpected") {
        return fmt::format("{} {}{}", counted(amount, criterion.what), more, where);
    }
    return fmt::format("{} {} {}", criterion.what, milliseconds(amount),
                       by > 0.0 ? "later" : "sooner");
}

struct Changes {
    std::vector<std::string> worse;
    std::vector<std::string> better;
    bool worseFirst = false;
};

Changes changesOf(const ComparedRun& a, const ComparedRun& b, const Comparison& comparison) {
    Changes changes;
    const double vsyncUs = 1e6 / std::min(a.summary.displayHz, b.summary.displayHz);
    for (const auto& criterion : kCriteria) {
        const Figure* figure = find(comparison.figures, criterion.key);
        const double by = figure != nullptr ? worseBy(*figure, vsyncUs) : 0.0;
        // The worst first frame is told only if it is not that of the start.
        const Figure* start = find(comparison.figures, "first_frame_us");
        const bool again = std::string(criterion.key) == "worst_first_frame_us" &&
                           start->a == figure->a && start->b == figure->b;
        if (by == 0.0 || again) {
            continue;
        }
        changes.worseFirst =
            changes.worse.empty() && changes.better.empty() ? by > 0.0 : changes.worseFirst;
        (by > 0.0 ? changes.worse : changes.better)
            .push_back(tellChange(criterion, by, firstWhere(a, b, comparison, criterion.isAbout)));
    }
    return changes;
}

std::string tellOthers(const Comparison& comparison) {
    std::string text;
    const auto add = [&text](int64_t frames, const char* where) {
        text += frames == 0 ? "" : fmt::format("; {} only in {}", counted(frames, "frame"), where);
    };
    add(comparison.onlyA, "A");
    add(comparison.onlyB, "B");
    return text;
}

void judgeChanges(const ComparedRun& a, const ComparedRun& b, Comparison* comparison) {
    const Changes changes = changesOf(a, b, *comparison);
    const bool none = changes.worse.empty() && changes.better.empty();
    const Grade grades[] = {a.grade(), b.grade()};
    if (none && grades[0] != grades[1]) {
        const bool worse = grades[1] < grades[0];
        comparison->result = worse ? ComparisonResult::Worse : ComparisonResult::Better;
        comparison->verdict =
            fmt::format("B is {}: {} instead of {}", worse ? "worse" : "better",
                        inWords(toString(grades[1])), inWords(toString(grades[0])));
        return;
    }
    if (none) {
        comparison->result = ComparisonResult::NeitherBetter;
        const auto frames = static_cast<int64_t>(comparison->frames.size());
        comparison->verdict =
            fmt::format("Neither is better: {} not the same, first at {}",
                        frames == 1 ? "1 frame is" : counted(frames, "frame") + " are",
                        seconds(comparison->frames.front().mediaTimeUs, 1));
        return;
    }
    const auto& main = changes.worseFirst ? changes.worse : changes.better;
    const auto& but = changes.worseFirst ? changes.better : changes.worse;
    comparison->result = changes.worseFirst ? ComparisonResult::Worse : ComparisonResult::Better;
    comparison->verdict =
        fmt::format("B is {}: {}{}{}", changes.worseFirst ? "worse" : "better",
                    fmt::join(main, "; "), but.empty() ? "" : "; but ", fmt::join(but, "; ")) +
        tellOthers(*comparison);
}

void judge(const ComparedRun& a, const ComparedRun& b, Comparison* comparison) {
    const auto inA = static_cast<int64_t>(a.log.frames.size());
    const auto inB = static_cast<int64_t>(b.log.frames.size());
    if (a.log.bytes == b.log.bytes && a.log.hash == b.log.hash) {
        comparison->result = ComparisonResult::SameBytes;
        comparison->verdict = "Same to the byte";
    } else if (comparison->common * 2 < std::min(inA, inB) || (inA == 0) != (inB == 0)) {
        comparison->result = ComparisonResult::Different;
        comparison->verdict = fmt::format("Different films: {} of {} media times in common",
                                          comparison->common, inA + comparison->onlyB);
    } else if (comparison->frames.empty() && a.grade() == b.grade() &&
               changesOf(a, b, *comparison).worse.empty() &&
               changesOf(a, b, *comparison).better.empty()) {
        comparison->result = ComparisonResult::SameDecisions;
        comparison->verdict =
            "Same decisions" +
            (comparison->mostMovedUs == 0
                 ? ""
                 : ", at times up to " + milliseconds(comparison->mostMovedUs) + " apart");
    } else {
        judgeChanges(a, b, comparison);
    }
}

}  // namespace

const char* toString(ComparisonResult result) {
    switch (result) {
        case ComparisonResult::SameBytes:
            return "same_bytes";
        case ComparisonResult::SameDecisions:
            return "same_decisions";
        case ComparisonResult::NeitherBetter:
            return "neither_better";
        case ComparisonResult::Better:
            return "better";
        case ComparisonResult::Worse:
            return "worse";
        case ComparisonResult::Different:
            break;
    }
    return "different_films";
}

std::vector<size_t> byMediaTime(const LoggedPlayback& log) {
    std::vector<size_t> order(log.frames.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&log](size_t left, size_t right) {
        return log.frames[left].mediaTimeUs < log.frames[right].mediaTimeUs;
    });
    return order;
}

Comparison compareRuns(const ComparedRun& a, const ComparedRun& b) {
    Comparison comparison;
    align(a.log, b.log, &comparison);
    comparison.figures = figuresOf(a, b);
    judge(a, b, &comparison);
    return comparison;
}

std::string tellFrame(const ComparedRun& run, const std::optional<size_t>& frame) {
    if (!frame) {
        return "-";
    }
    const LoggedFrame& logged = run.log.frames[*frame];
    if (logged.outcome == Outcome::Shown) {
        return "shown for " + counted(logged.dwellVsyncs, "vsync");
    }
    const std::string outcome = inWords(toString(logged.outcome));
    return logged.outcome == Outcome::Dropped
               ? fmt::format("{} ({})", outcome, inWords(toString(logged.dropReason)))
               : outcome;
}

std::string tellFigure(const Figure& figure, double value) {
    switch (figure.unit) {
        case FigureUnit::Count:
            return fmt::format("{:.0f}", value);
        case FigureUnit::Microseconds:
            return value < 0.0 ? "-" : milliseconds(std::llround(value));
        case FigureUnit::Seconds:
            return fmt::format("{:.3f} s", value);
        case FigureUnit::Hertz:
            break;
    }
    return rate(value) + " Hz";
}

}  // namespace korvane::player
