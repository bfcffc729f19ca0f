// SPDX-License-Identifier: Apache-2.0
// The report as text: the verdict, then a labelled line or two for each question.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "player/base/FrameRate.h"
#include "player/base/Text.h"
#include "player/base/Units.h"
#include "player/report/LipSync.h"
#include "player/report/Report.h"
#include "player/report/StreamText.h"
#include "player/report/Words.h"

namespace korvane::player {
namespace {

/// Breaks listed one by one; the CSV has them all.
constexpr size_t kListedBreaks = 20;

void line(std::ostream& out, const std::string& label, const std::string& text) {
    out << fmt::format("{:<9} {}\n", label, text);
}

std::string describeMedia(const PlaybackRecord& record) {
    const MediaInfo& media = record.media;
    const std::string audio = record.withAudio ? media.audioCodec
                              : media.hasAudio ? "audio left out"
                                               : "no sound";
    return fmt::format("{} {}x{}, {}{}", media.videoCodec, media.width, media.height, audio,
                       record.passthrough ? ", pass-through" : "");
}

/// "23.976 fps = 24000/1001", where the decimals mean that fraction; else "24 fps".
std::string describeRate(double hz, const char* unit) {
    constexpr double kRounding = 1e-9;
    const FrameRate taken = nominalRate(hz);
    const std::string decimals = fmt::format("{} {}", rate(hz), unit);
    const bool exact = std::abs(taken.hz() - hz) <= kRounding * hz;
    return exact && toString(taken) != rate(hz) ? decimals + " = " + toString(taken) : decimals;
}

void printRates(std::ostream& out, const PlaybackRecord& record, const Summary& summary) {
    const std::string played = rate(summary.expected.contentHz);
    const bool drifts = !summary.expected.pattern.empty() && played != rate(summary.contentHz);
    line(out, "rates",
         fmt::format("content {}{} ({}){}, display {}", describeRate(summary.contentHz, "fps"),
                     summary.variableRate ? " and other rates" : "", describeMedia(record),
                     drifts ? ", " + played + " with audio" : "",
                     describeRate(summary.displayHz, "Hz")));
}

void printStreams(std::ostream& out, const MediaInfo& media) {
    std::string label = "streams";
    for (const auto& text : streamLines(media)) {
        line(out, label, text);
        label.clear();
    }
}

std::string describePattern(const StretchReport& stretch) {
    std::string text = !stretch.judged()      ? "too few frames to tell"
                       : stretch.seen.empty() ? "none seen"
                                              : stretch.seen + " seen";
    if (!stretch.expected.pattern.empty()) {
        text += ", " + stretch.expected.name() + " expected";
    }
    if (stretch.cadence.held) {
        text += fmt::format("; {}, {}; {} in step", whenHeld(stretch),
                            stretch.cadence.stayed() ? "stayed" : "broke",
                            counted(static_cast<int64_t>(stretch.cadence.inStep), "frame"));
    }
    return text;
}

void printPatterns(std::ostream& out, const Summary& summary) {
    for (size_t i = 0; i < summary.stretches.size(); ++i) {
        const StretchReport& stretch = summary.stretches[i];
        line(out,
             i == 0                                      ? "pattern"
             : stretch.begin == StretchBegin::ModeChange ? "  at " + rate(stretch.displayHz)
             : stretch.begin == StretchBegin::RateChange ? rate(stretch.expected.contentHz) + " fps"
                                                         : "  flushed",
             describePattern(stretch));
    }
}

std::string describeDwells(const std::map<int, int64_t>& dwells) {
    std::vector<std::string> texts;
    texts.reserve(dwells.size());
    for (const auto& [vsyncs, frames] : dwells) {
        texts.push_back(fmt::format("{} for {}", counted(frames, "frame"), vsyncs));
    }
    return fmt::format("{}", fmt::join(texts, ", "));
}

/// "one vsync less every 16.7 s, in up to 5 steps"
std::string describeSlips(const ExpectedCadence& expected) {
    const double perSlip = expected.secondsPerSlip();
    if (perSlip == 0.0) {
        return "none";
    }
    const size_t steps = expected.pattern.size();
    return fmt::format("one vsync {} every {}{}", expected.slipPerFrame > 0 ? "more" : "less",
                       seconds(static_cast<int64_t>(perSlip * 1e6), 1),
                       steps > 1 ? fmt::format(" in up to {} steps", steps) : "");
}

/// " = drop 3 + pause 1", the causes of unexpected dwells.
std::string describeCauses(const Summary& summary) {
    std::vector<std::string> texts;
    for (const auto& [cause, dwells] : summary.causes) {
        texts.push_back(fmt::format("{} {}", inWords(toString(cause)), dwells));
    }
    return texts.empty() ? "" : fmt::format(" = {}", fmt::join(texts, " + "));
}

void printDwell(std::ostream& out, const Summary& summary) {
    const std::string text = describeDwells(summary.dwells);
    line(out, "dwell", (text.empty() ? "nothing shown" : text + " (vsyncs)"));
    line(
        out, "",
        fmt::format("by arithmetic: {}, {} seen; unexpected: {}{}", describeSlips(summary.expected),
                    summary.byArithmetic, summary.unexpected, describeCauses(summary)));
    if (!summary.unjudged.empty()) {
        line(out, "",
             "not judged (waited for audio, a flush or the end, or too few): " +
                 describeDwells(summary.unjudged));
    }
}

void printBreaks(std::ostream& out, const Summary& summary) {
    size_t listed = 0;
    for (const auto& stretch : summary.stretches) {
        for (const auto& found : stretch.breaks) {
            if (listed == kListedBreaks) {
                break;
            }
            ++listed;
            line(out, "",
                 fmt::format("  frame {} at {}: {} instead of {}{}", found.frameNo,
                             seconds(found.mediaTimeUs), found.dwell, found.expected,
                             found.cause.empty() ? "" : " (" + found.cause + ")"));
        }
    }
    if (static_cast<int64_t>(listed) < summary.unexpected) {
        line(out, "",
             fmt::format("  and {} more; --csv FILE has every frame",
                         summary.unexpected - static_cast<int64_t>(listed)));
    }
}

void printJudder(std::ostream& out, const Summary& summary) {
    const JudderReport& judder = summary.judder;
    if (judder.durations == 0) {
        return;
    }
    line(out, "judder",
         fmt::format(
             "times on screen are off by {} on average; {:.1f} visible breaks a minute; {}",
             milliseconds(judder.meanErrorUs), summary.visibleBreaksPerMinute,
             judder.longestFreezeFrame < 0
                 ? "no freeze"
                 : fmt::format("longest freeze {} at frame {}",
                               milliseconds(judder.longestFreezeUs), judder.longestFreezeFrame)));
    line(
        out, "",
        fmt::format("as Android counts: freeze score {}, rate {:.2g}; judder score {}, rate {:.2g}",
                    judder.freezeScore, judder.freezeRate, judder.judderScore, judder.judderRate));
}

void printStart(std::ostream& out, const PlaybackRecord& record, const Summary& summary) {
    for (size_t i = 0; i < summary.stretches.size(); ++i) {
        const StretchReport& stretch = summary.stretches[i];
        if (stretch.begin != StretchBegin::Section) {
            continue;
        }
        const auto soughtUs = record.sections[static_cast<size_t>(stretch.section)].soughtUs;
        std::string text = fmt::format("first frame {} after {}", seconds(stretch.firstFrameUs),
                                       i == 0 ? "start" : "the flush");
        if (stretch.secondFrameUs >= 0) {
            text += fmt::format(", second {} later", seconds(stretch.secondFrameUs));
        }
        line(out, i == 0 ? "start" : "  flushed",
             text + (soughtUs ? fmt::format(" (seek to {})", seconds(*soughtUs)) : ""));
    }
}

/// The splice that a frame came after is the last one before its media time.
bool describesSplice(const MediaChange& change, const SpliceReport& splice,
                     const MediaInfo& media) {
    return change.mediaTimeUs <= splice.mediaTimeUs &&
           std::none_of(media.changes.begin(), media.changes.end(), [&](const MediaChange& other) {
               return other.splice && other.mediaTimeUs > change.mediaTimeUs &&
                      other.mediaTimeUs <= splice.mediaTimeUs;
           });
}

/// One line for each splice: what the file does, and what that costs on screen.
void printSplices(std::ostream& out, const PlaybackRecord& record, const Summary& summary) {
    constexpr size_t kListedSplices = 10;
    size_t listed = 0;
    for (const MediaChange& change : record.media.changes) {
        if (!change.splice || ++listed > kListedSplices) {
            continue;
        }
        // After a seek back it is passed again.
        const SpliceReport* worst = nullptr;
        for (const SpliceReport& splice : summary.splices) {
            if (describesSplice(change, splice, record.media) &&
                (worst == nullptr || splice.lostUs > worst->lostUs)) {
                worst = &splice;
            }
        }
        line(out, listed == 1 ? "splices" : "",
             fmt::format("at {}: {}; {}", seconds(change.mediaTimeUs), change.what,
                         worst == nullptr ? "not passed on screen"
                         : worst->lostUs == 0
                             ? "no time lost on screen"
                             : fmt::format("{} lost on screen before frame {}",
                                           milliseconds(worst->lostUs), worst->frame.frameNo)));
    }
    if (listed > kListedSplices) {
        line(out, "", "and " + counted(static_cast<int64_t>(listed - kListedSplices), "more"));
    }
}

void printSound(std::ostream& out, const PlaybackRecord& record) {
    /// Streams of one film begin less than this apart.
    constexpr int64_t kAtOnceUs = 500'000;
    if (record.withAudio && record.soundFromUs < 0) {
        line(out, "", "no sound: not one packet of the audio stream came");
    } else if (record.withAudio && record.soundFromUs > kAtOnceUs) {
        line(out, "", fmt::format("sound begins at {}", seconds(record.soundFromUs)));
    }
}

/// "EBU R37 (+40 to -60 ms) 1.983 s".
std::string describeBand(const char* name, const LipSyncBand& band, double secondsOutside) {
    return fmt::format("{} (+{} to {} ms) {:.3f} s", name, band.mostUs / 1000, band.leastUs / 1000,
                       secondsOutside);
}

void printLipSync(std::ostream& out, const PlaybackRecord& record, const Summary& summary) {
    if (!record.withAudio) {
        return;
    }
    const LipSync& sync = summary.lipSync;
    if (sync.samples == 0) {
        line(out, "lip-sync", "no frame came on screen while sound was heard");
        return;
    }
    line(out, "lip-sync",
         fmt::format("picture against the sound heard: median {}, p99 {}, worst {} at frame {}",
                     signedMilliseconds(sync.medianUs), milliseconds(sync.p99MagnitudeUs),
                     signedMilliseconds(sync.worstUs), sync.worst.frameNo));
    line(out, "",
         fmt::format("(positive: sound early; pictures waited {} for their vsync, median)",
                     milliseconds(sync.displayMedianUs)));
    line(
        out, "",
        fmt::format("{} of {} shown judged, {:.3f} s with sound; of these outside {}", sync.samples,
                    counted(summary.count(Outcome::Shown), "frame"), sync.secondsJudged,
                    describeBand("EBU R37", kEbuBand, sync.secondsOutsideEbu)));
    line(out, "",
         "  " +
             describeBand("ITU-R BT.1359-1: detectable", kItuDetectableBand,
                          sync.secondsOutsideItuDetectable) +
             ", " +
             describeBand("acceptable", kItuAcceptableBand, sync.secondsOutsideItuAcceptable));
}

void printOffset(std::ostream& out, const PlaybackRecord& record, const Summary& summary) {
    const Spread& offset = summary.offset.us;
    if (offset.samples == 0) {
        line(out, "clock", "no frame could be compared with the sync clock");
        return;
    }
    line(out, "clock",
         fmt::format("picture against the sync clock: median {}, p99 {}, worst {}",
                     signedMilliseconds(offset.median), milliseconds(offset.p99),
                     signedMilliseconds(offset.worst)));
    if (record.audioUnderflows > 0 || record.audioReanchors > 0) {
        line(out, "",
             counted(record.audioUnderflows, "audio underflow") + ", " +
                 counted(record.audioReanchors, "correction") + " of the clock by audio");
    }
}

std::string describeDrops(DropReason reason, const DropGroup& group) {
    return fmt::format("dropped, {}: {} in {}, longest {} (reason from {})",
                       inWords(toString(reason)), group.runs.frames,
                       counted(group.runs.runs, "run"), group.runs.longest,
                       group.fromLog == group.runs.frames ? "the library's log"
                       : group.fromLog == 0               ? "the clock's values"
                                                          : "its log or the clock's values");
}

void printFrames(std::ostream& out, const Summary& summary) {
    std::vector<std::string> counts;
    for (int i = 0; i < kOutcomes; ++i) {
        const auto outcome = static_cast<Outcome>(i);
        const bool always = outcome == Outcome::Shown || outcome == Outcome::Superseded ||
                            outcome == Outcome::Dropped;
        if (always || summary.count(outcome) > 0) {
            counts.push_back(
                fmt::format("{} {}", summary.count(outcome), inWords(toString(outcome))));
        }
    }
    line(out, "frames", fmt::format("{} in = {}", summary.framesIn, fmt::join(counts, " + ")));
    for (const auto& [reason, group] : summary.drops) {
        line(out, "", describeDrops(reason, group));
    }
}

void printBuffers(std::ostream& out, const PlaybackRecord& record, const Summary& summary) {
    const PoolReport& pool = record.pool;
    line(out, "buffers",
         fmt::format("{}; {} returned by callback, {} taken back at stop, {} handed back twice; {}",
                     pool.buffers, pool.returnedByCallback, pool.takenBackAtStop,
                     pool.returnedAgain, summary.buffersBack ? "all back" : "NOT ALL BACK"));
    const Spread& back = summary.backToPlayerNs;
    line(out, "",
         counted(summary.fences, "release fence") +
             (back.samples == 0
                  ? ""
                  : fmt::format(
                        "; back with the player {} after leaving the screen (median), p99 {}",
                        milliseconds(back.median / 1000), milliseconds(back.p99 / 1000))));
    line(out, "",
         fmt::format("player waited {} for a free buffer, longest {}; {} handed in too late",
                     counted(pool.waits, "time"), milliseconds(pool.longestWaitNs / 1000),
                     summary.sentLate));
}

std::string describeEnd(const PlaybackRecord& record) {
    switch (record.end) {
        case EndCause::Complete:
            return "played to the end";
        case EndCause::BrokenOff:
            return fmt::format(
                "the file breaks off at {}{}; played up to there", seconds(record.brokeOffAtUs),
                record.media.durationUs > 0 ? " of " + seconds(record.media.durationUs) : "");
        case EndCause::Interrupted:
            return "interrupted; this is what was played until then";
        case EndCause::Stopped:
            return "stopped at the time asked for";
        case EndCause::Stalled:
            break;
    }
    return "stopped because nothing moved any more";
}

void printEnd(std::ostream& out, const PlaybackRecord& record, const tv::TraceReport& trace) {
    line(out, "end", describeEnd(record) + "; stop took " + milliseconds(record.stopTookNs / 1000));
    if (record.decodeErrors > 0) {
        line(out, "",
             counted(record.decodeErrors, "packet") + " came damaged or could not be decoded");
    }
    if (record.seeksBeyondEnd > 0) {
        line(out, "",
             counted(record.seeksBeyondEnd, "seek") + " went beyond the end: nothing is there");
    }
    if (record.failedSeeks > 0) {
        line(out, "", counted(record.failedSeeks, "seek") + " refused: the input cannot seek");
    }
    if (!trace.path.empty()) {
        line(out, "trace",
             fmt::format("{} events in {}, {} lost", trace.written, printable(trace.path),
                         trace.lost));
    }
}

}  // namespace

void printReport(std::ostream& out, const PlaybackRecord& record, const Summary& summary,
                 const tv::TraceReport& trace, bool verdictOnly) {
    line(out, "verdict", summary.verdict);
    if (verdictOnly) {
        return;
    }
    printRates(out, record, summary);
    printStreams(out, record.media);
    printPatterns(out, summary);
    printDwell(out, summary);
    printBreaks(out, summary);
    printJudder(out, summary);
    printStart(out, record, summary);
    printSplices(out, record, summary);
    printSound(out, record);
    printLipSync(out, record, summary);
    printOffset(out, record, summary);
    printFrames(out, summary);
    printBuffers(out, record, summary);
    printEnd(out, record, trace);
}

}  // namespace korvane::player
