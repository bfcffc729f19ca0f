#include "player/Report.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "player/Units.h"

namespace korvane::player {
namespace {

/// The file's rate is believed when the timestamps agree with it this well.
constexpr double kRateAgreement = 0.01;
/// Timestamps of a constant rate are rounded by at most a millisecond each way.
constexpr int64_t kTimestampRoundingUs = 2'000;
/// A dwell is put down to a clock stop that ended this much before it at most.
constexpr int64_t kAfterStopUs = 500'000;

/// Media time from each frame to the next of the same section.
std::vector<int64_t> frameSteps(const std::vector<FrameEntry>& frames) {
    std::vector<int64_t> steps;
    for (size_t i = 1; i < frames.size(); ++i) {
        if (frames[i].section == frames[i - 1].section) {
            steps.push_back(frames[i].mediaTimeUs - frames[i - 1].mediaTimeUs);
        }
    }
    return steps;
}

void findContentRate(const PlaybackRecord& record, Summary* summary) {
    summary->contentHz = record.media.frameRateHz;
    const auto steps = frameSteps(record.frames);
    if (steps.size() < kSteadyRunFrames) {
        return;
    }
    int64_t total = 0;
    for (const int64_t step : steps) {
        total += step;
    }
    const double meanUs = static_cast<double>(total) / static_cast<double>(steps.size());
    const auto off = std::count_if(steps.begin(), steps.end(), [meanUs](int64_t step) {
        return std::abs(static_cast<double>(step) - meanUs) > kTimestampRoundingUs;
    });
    // A lost picture here and there leaves the rate constant; one step in twenty does not.
    summary->variableRate = static_cast<size_t>(off) * 20 > steps.size();
    const double measuredHz = 1e6 / meanUs;
    if (std::abs(measuredHz - summary->contentHz) > kRateAgreement * measuredHz) {
        summary->contentHz = measuredHz;
    }
}

/// The frames of a section that took part in the display's cadence, in order. The last one on
/// screen stayed until the flush or stop, and one shown at once before audio until audio came:
/// their dwell says nothing about the cadence.
std::vector<const FrameEntry*> cadenceFrames(const PlaybackRecord& record, int section) {
    std::vector<const FrameEntry*> frames;
    for (const auto& frame : record.frames) {
        const bool inTunnel =
            frame.outcome == Outcome::Shown || frame.outcome == Outcome::Superseded;
        if (frame.section == section && inTunnel && !frame.record->atOnce) {
            frames.push_back(&frame);
        }
    }
    while (!frames.empty() && frames.back()->outcome == Outcome::Superseded) {
        frames.pop_back();
    }
    if (!frames.empty()) {
        frames.pop_back();
    }
    return frames;
}

std::string causeOf(const PlaybackRecord& record, const FrameEntry& frame) {
    const int64_t shownUs = frame.record->firstVsync.timeNs / 1000;
    const int64_t gone = frame.record->releasedNs / 1000;
    for (const auto& stop : record.clockStops) {
        if (shownUs <= stop.toUs + kAfterStopUs && stop.fromUs <= std::max(gone, shownUs)) {
            return "the clock stood still: audio underflow";
        }
    }
    const auto next = static_cast<size_t>(frame.frameNo) + 1;
    if (next < record.frames.size() && record.frames[next].outcome == Outcome::Dropped) {
        return std::string("the next frame was dropped: ") +
               toString(record.frames[next].dropReason);
    }
    for (size_t i = static_cast<size_t>(frame.frameNo); i <= next && i < record.frames.size();
         ++i) {
        if (record.frames[i].sentLate) {
            return "frame " + std::to_string(i) + " was handed in late";
        }
    }
    return "";
}

/// First and second frame on screen in a section.
void findFirstFrames(const PlaybackRecord& record, int section, SectionReport* report) {
    int64_t firstNs = -1;
    for (const auto& frame : record.frames) {
        if (frame.section != section || frame.outcome != Outcome::Shown) {
            continue;
        }
        const int64_t shownNs = frame.record->firstVsync.timeNs;
        if (firstNs >= 0) {
            report->secondFrameUs = (shownNs - firstNs) / 1000;
            return;
        }
        firstNs = shownNs;
        const int64_t beganNs = record.sections[static_cast<size_t>(section)].beganNs;
        report->firstFrameUs = (firstNs - beganNs) / 1000;
    }
}

void findPattern(const PlaybackRecord& record, int section, const Summary& summary,
                 SectionReport* report) {
    const auto frames = cadenceFrames(record, section);
    std::vector<int> dwells;
    dwells.reserve(frames.size());
    for (const auto* frame : frames) {
        dwells.push_back(static_cast<int>(frame->record->dwellVsyncs));
    }
    const auto seen = seenPattern(dwells);
    report->seen =
        samePattern(seen, summary.expected.pattern) ? summary.expected.name() : patternName(seen);
    report->cadence = analyseCadence(dwells, summary.expected);
    if (!report->cadence.held) {
        return;
    }
    const size_t from = report->cadence.heldFrom;
    report->framesInStep =
        static_cast<int64_t>(dwells.size() - from - report->cadence.breaks.size());
    const int64_t audioUs = record.sections[static_cast<size_t>(section)].audioStartedRealUs;
    report->afterAudio = audioUs >= 0;
    const int64_t heldUs = frames[from]->record->firstVsync.timeNs / 1000;
    const int64_t sinceUs =
        report->afterAudio ? audioUs : frames.front()->record->firstVsync.timeNs / 1000;
    report->heldAfterUs = std::max<int64_t>(heldUs - sinceUs, 0);
    for (const auto& found : report->cadence.breaks) {
        const FrameEntry& frame = *frames[found.index];
        report->breaks.push_back({frame.frameNo, frame.mediaTimeUs, found.dwell, found.expected,
                                  found.byArithmetic,
                                  found.byArithmetic ? "" : causeOf(record, frame)});
    }
}

void reportSections(const PlaybackRecord& record, Summary* summary) {
    for (size_t i = 0; i < record.sections.size(); ++i) {
        SectionReport section;
        findFirstFrames(record, static_cast<int>(i), &section);
        if (section.firstFrameUs < 0) {
            continue;
        }
        findPattern(record, static_cast<int>(i), *summary, &section);
        summary->byArithmetic += static_cast<int64_t>(section.cadence.byArithmetic);
        summary->unexpected += static_cast<int64_t>(section.cadence.unexpected);
        for (const auto& found : section.breaks) {
            summary->explained += found.cause.empty() ? 0 : 1;
        }
        summary->sections.push_back(section);
    }
}

void countFrames(const PlaybackRecord& record, Summary* summary) {
    std::vector<int64_t> offsets;
    std::vector<int64_t> back;
    for (const auto& frame : record.frames) {
        ++summary->outcomes[static_cast<size_t>(frame.outcome)];
        summary->sentLate += frame.sentLate ? 1 : 0;
        if (frame.outcome == Outcome::Dropped) {
            DropGroup& group = summary->drops[frame.dropReason];
            group.runs.add(frame.frameNo);
            group.fromLog += frame.dropEvidence == DropEvidence::LogLine ? 1 : 0;
        }
        if (frame.outcome != Outcome::Shown) {
            continue;
        }
        ++summary->dwells[static_cast<int>(frame.record->dwellVsyncs)];
        summary->fences += frame.record->fenceSignalNs != 0 ? 1 : 0;
        if (frame.clockRealUs && !frame.record->atOnce) {
            offsets.push_back(frame.record->firstVsync.timeNs / 1000 - *frame.clockRealUs);
        }
        if (frame.returns > 0 && frame.record->releasedNs > 0) {
            back.push_back(frame.returnedNs - frame.record->releasedNs);
        }
    }
    summary->offsetUs = spreadOf(offsets);
    summary->backToPlayerNs = spreadOf(back);
}

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

std::string patternVerdict(const Summary& summary) {
    if (summary.variableRate || summary.expected.pattern.empty()) {
        return "Played; the content's rate varies, so there is no pattern to keep";
    }
    const SectionReport& first = summary.sections.front();
    const std::string name = summary.expected.name();
    if (!first.cadence.held) {
        return first.seen.empty() ? "Uneven: " + name + " never held"
                                  : "Uneven: " + first.seen + " seen where " + name + " was due";
    }
    const std::string held = name + " held " + seconds(first.heldAfterUs, 2) +
                             (first.afterAudio ? " after audio start" : " after the first frame");
    if (summary.unexpected == 0) {
        return "Even: " + held + " and stayed";
    }
    const bool explained = summary.explained == summary.unexpected;
    return "Uneven: " + held + ", then " + counted(summary.unexpected, "unexpected dwell") +
           (explained ? ", with a cause" : "") + " (listed below)";
}

std::string verdictOf(const PlaybackRecord& record, const Summary& summary) {
    const std::string wrong = faults(record, summary);
    std::string text;
    if (summary.sections.empty()) {
        text = "Nothing was shown";
    } else {
        text = patternVerdict(summary);
    }
    if (record.end == EndCause::Stalled) {
        text = "Stalled: nothing moved any more, so playback was stopped. " + text;
    }
    const int64_t unshown = summary.count(Outcome::Dropped) + summary.count(Outcome::Superseded);
    if (unshown > 0) {
        text += ", " + counted(unshown, "frame") + " not shown";
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

Spread spreadOf(std::vector<int64_t> values) {
    Spread spread;
    if (values.empty()) {
        return spread;
    }
    std::sort(values.begin(), values.end());
    spread.samples = static_cast<int64_t>(values.size());
    // Nearest rank: the smallest value that so many per cent do not exceed.
    const auto rank = [&values](size_t percent) {
        return values[(values.size() * percent + 99) / 100 - 1];
    };
    spread.median = rank(50);
    spread.p99 = rank(99);
    spread.worst =
        std::abs(values.front()) > std::abs(values.back()) ? values.front() : values.back();
    return spread;
}

Summary summarise(const PlaybackRecord& record) {
    Summary summary;
    summary.displayHz = record.displayHz;
    summary.framesIn = static_cast<int64_t>(record.frames.size());
    findContentRate(record, &summary);
    if (!summary.variableRate) {
        summary.expected = expectedCadence(summary.contentHz, summary.displayHz);
    }
    countFrames(record, &summary);
    reportSections(record, &summary);
    int64_t sum = 0;
    for (const int64_t count : summary.outcomes) {
        sum += count;
    }
    summary.framesAccounted = sum == summary.framesIn && summary.count(Outcome::Lost) == 0 &&
                              summary.count(Outcome::Pending) == 0;
    summary.buffersBack = record.buffersKept == 0 && record.pool.unknownReturned == 0;
    summary.verdict = verdictOf(record, summary);
    return summary;
}

}  // namespace korvane::player
