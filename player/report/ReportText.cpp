// SPDX-License-Identifier: Apache-2.0
// The report as text: the verdict, then a labelled line or two for each question.
#include <algorithm>
#include <ostream>
#include <string>

#include "player/base/Units.h"
#include "player/report/Report.h"
#include "player/report/StreamText.h"

namespace korvane::player {
namespace {

/// Breaks listed one by one; the CSV has them all.
constexpr size_t kListedBreaks = 20;

std::string number(int64_t value) {
    return std::to_string(value);
}

void line(std::ostream& out, const std::string& label, const std::string& text) {
    std::string padded = label;
    padded.resize(10, ' ');
    out << padded << text << "\n";
}

std::string describeMedia(const PlaybackRecord& record) {
    const MediaInfo& media = record.media;
    std::string text = media.videoCodec + " " + number(media.width) + "x" + number(media.height);
    if (record.withAudio) {
        text += ", " + media.audioCodec;
    } else {
        text += media.hasAudio ? ", audio left out" : ", no audio";
    }
    return text + (record.passthrough ? ", pass-through" : "");
}

void printRates(std::ostream& out, const PlaybackRecord& record, const Summary& summary) {
    const std::string content = rate(summary.contentHz);
    const std::string played = rate(summary.expected.contentHz);
    const bool drifts = !summary.expected.pattern.empty() && played != content;
    line(out, "rates",
         "content " + content + " fps" + (summary.variableRate ? " on average, varying" : "") +
             " (" + describeMedia(record) + ")" + (drifts ? ", " + played + " with audio" : "") +
             ", display " + rate(summary.displayHz) + " Hz");
}

void printStreams(std::ostream& out, const MediaInfo& media) {
    std::string label = "streams";
    for (const auto& text : streamLines(media)) {
        line(out, label, text);
        label.clear();
    }
}

void printPattern(std::ostream& out, const Summary& summary) {
    for (size_t i = 0; i < summary.sections.size(); ++i) {
        const StretchReport& section = summary.sections[i];
        std::string text = !section.judged()      ? "too few frames to tell"
                           : section.seen.empty() ? "none seen"
                                                  : section.seen + " seen";
        if (!section.expected.pattern.empty()) {
            text += ", " + section.expected.name() + " expected";
        }
        if (section.cadence.held) {
            text += "; held " + seconds(section.heldAfterUs, 2) +
                    (section.afterAudio ? " after audio start" : " after the first frame") +
                    (section.cadence.stayed() ? ", stayed" : ", broke") + "; " +
                    counted(section.framesInStep, "frame") + " in step";
        }
        line(out,
             i == 0               ? std::string("pattern")
             : section.modeChange ? "  at " + rate(section.displayHz)
                                  : std::string("  flushed"),
             text);
    }
}

std::string describeDwells(const std::map<int, int64_t>& dwells) {
    std::string text;
    for (const auto& [vsyncs, frames] : dwells) {
        text += (text.empty() ? "" : ", ") + counted(frames, "frame") + " for " + number(vsyncs);
    }
    return text;
}

/// "one vsync less every 16.7 s, in up to 5 steps"
std::string describeSlips(const ExpectedCadence& expected) {
    const double perSlip = expected.secondsPerSlip();
    if (perSlip == 0.0) {
        return "none";
    }
    const size_t steps = expected.pattern.size();
    return "one vsync " + std::string(expected.slipPerFrame > 0 ? "more" : "less") + " every " +
           seconds(static_cast<int64_t>(perSlip * 1e6), 1) +
           (steps > 1 ? " in up to " + number(static_cast<int64_t>(steps)) + " steps" : "");
}

void printDwell(std::ostream& out, const Summary& summary) {
    const std::string text = describeDwells(summary.dwells);
    line(out, "dwell", (text.empty() ? "nothing shown" : text + " (vsyncs)"));
    line(out, "",
         "by arithmetic: " + describeSlips(summary.expected) + ", " + number(summary.byArithmetic) +
             " seen; unexpected: " + number(summary.unexpected));
    if (!summary.unjudged.empty()) {
        line(out, "",
             "not judged (waited for audio, a flush or the end, or too few): " +
                 describeDwells(summary.unjudged));
    }
}

void printBreaks(std::ostream& out, const Summary& summary) {
    size_t listed = 0;
    for (const auto& section : summary.sections) {
        for (const auto& found : section.breaks) {
            if (found.byArithmetic || listed == kListedBreaks) {
                continue;
            }
            ++listed;
            out << "            frame " << found.frameNo << " at " << seconds(found.mediaTimeUs)
                << ": " << found.dwell << " instead of " << found.expected
                << (found.cause.empty() ? "" : " (" + found.cause + ")") << "\n";
        }
    }
    if (static_cast<int64_t>(listed) < summary.unexpected) {
        out << "            and " << summary.unexpected - static_cast<int64_t>(listed)
            << " more; --csv FILE has every frame\n";
    }
}

void printStart(std::ostream& out, const Summary& summary) {
    for (size_t i = 0; i < summary.sections.size(); ++i) {
        const StretchReport& section = summary.sections[i];
        if (section.modeChange) {
            continue;
        }
        std::string text = "first frame " + seconds(section.firstFrameUs) +
                           (i == 0 ? " after start" : " after the flush");
        if (section.secondFrameUs >= 0) {
            text += ", second " + seconds(section.secondFrameUs) + " later";
        }
        line(out, i == 0 ? "start" : "  flushed", text);
    }
}

void printOffset(std::ostream& out, const PlaybackRecord& record, const Summary& summary) {
    const char* what = record.withAudio ? "audio" : "clock";
    if (summary.offsetUs.samples == 0) {
        line(out, what, "no frame could be compared with the clock");
        return;
    }
    line(out, what,
         "picture against the sync clock: median " + signedMilliseconds(summary.offsetUs.median) +
             ", p99 " + signedMilliseconds(summary.offsetUs.p99) + ", worst " +
             signedMilliseconds(summary.offsetUs.worst));
    line(out, "", "(positive: sound early; broadcasters allow +40 to -60 ms, EBU R37)");
    if (record.audioUnderflows > 0 || record.audioReanchors > 0) {
        line(out, "",
             counted(record.audioUnderflows, "audio underflow") + ", " +
                 counted(record.audioReanchors, "correction") + " of the clock by audio");
    }
}

void printFrames(std::ostream& out, const Summary& summary) {
    std::string text = number(summary.framesIn) + " in =";
    bool first = true;
    for (int i = 0; i < kOutcomes; ++i) {
        const auto outcome = static_cast<Outcome>(i);
        const bool always = outcome == Outcome::Shown || outcome == Outcome::Superseded ||
                            outcome == Outcome::Dropped;
        if (!always && summary.count(outcome) == 0) {
            continue;
        }
        std::string name = toString(outcome);
        std::replace(name.begin(), name.end(), '_', ' ');
        text += std::string(first ? " " : " + ") + number(summary.count(outcome)) + " " + name;
        first = false;
    }
    line(out, "frames", text);
    for (const auto& [reason, group] : summary.drops) {
        std::string name = toString(reason);
        std::replace(name.begin(), name.end(), '_', ' ');
        line(out, "",
             "dropped, " + name + ": " + number(group.runs.frames) + " in " +
                 counted(group.runs.runs, "run") + ", longest " + number(group.runs.longest) +
                 " (reason from " +
                 (group.fromLog == group.runs.frames ? "the library's log)"
                  : group.fromLog == 0               ? "the clock's values)"
                                                     : "its log or the clock's values)"));
    }
}

void printBuffers(std::ostream& out, const PlaybackRecord& record, const Summary& summary) {
    const PoolReport& pool = record.pool;
    line(out, "buffers",
         number(pool.buffers) + "; " + number(pool.returnedByCallback) + " returned by callback, " +
             number(pool.takenBackAtStop) + " taken back at stop, " + number(pool.returnedAgain) +
             " handed back twice" + (summary.buffersBack ? "; all back" : "; NOT ALL BACK"));
    line(out, "",
         counted(summary.fences, "release fence") + "; back with the player " +
             milliseconds(summary.backToPlayerNs.median / 1000) +
             " after leaving the screen (median), p99 " +
             milliseconds(summary.backToPlayerNs.p99 / 1000));
    line(out, "",
         "player waited " + counted(pool.waits, "time") + " for a free buffer, longest " +
             milliseconds(pool.longestWaitNs / 1000) + "; " + number(summary.sentLate) +
             " handed in too late");
}

void printEnd(std::ostream& out, const PlaybackRecord& record, const tv::TraceReport& trace) {
    const std::string took = "; stop took " + milliseconds(record.stopTookNs / 1000);
    switch (record.end) {
        case EndCause::Complete:
            line(out, "end", "played to the end" + took);
            break;
        case EndCause::BrokenOff:
            line(out, "end",
                 "the file breaks off at " + seconds(record.brokeOffAtUs) +
                     (record.media.durationUs > 0 ? " of " + seconds(record.media.durationUs)
                                                  : std::string()) +
                     "; played up to there" + took);
            break;
        case EndCause::Interrupted:
            line(out, "end", "interrupted; this is what was played until then" + took);
            break;
        case EndCause::Stopped:
            line(out, "end", "stopped at the time asked for" + took);
            break;
        case EndCause::Stalled:
            line(out, "end", "stopped because nothing moved any more" + took);
            break;
    }
    if (record.decodeErrors > 0) {
        line(out, "",
             counted(record.decodeErrors, "packet") + " came damaged or could not be decoded");
    }
    if (record.failedSeeks > 0) {
        line(out, "", counted(record.failedSeeks, "seek") + " failed: the input cannot seek");
    }
    if (!trace.path.empty()) {
        line(out, "trace",
             number(trace.written) + " events in " + trace.path + ", " + number(trace.lost) +
                 " lost");
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
    printPattern(out, summary);
    printDwell(out, summary);
    printBreaks(out, summary);
    printStart(out, summary);
    printOffset(out, record, summary);
    printFrames(out, summary);
    printBuffers(out, record, summary);
    printEnd(out, record, trace);
}

}  // namespace korvane::player
