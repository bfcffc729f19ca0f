// SPDX-License-Identifier: Apache-2.0
// The report as files for scripts: frames as CSV, the summary as flat JSON.
#include <iomanip>
#include <ostream>
#include <sstream>
#include <string>

#include "player/report/Report.h"

namespace korvane::player {
namespace {

/// Writes one JSON object, one key per line.
class JsonObject {
public:
    explicit JsonObject(std::ostream& out) : mOut(out) { mOut << "{"; }
    ~JsonObject() { mOut << "\n}\n"; }
    JsonObject(const JsonObject&) = delete;
    JsonObject& operator=(const JsonObject&) = delete;

    void add(const std::string& key, int64_t value) { begin(key) << value; }
    void add(const std::string& key, double value) { begin(key) << std::setprecision(9) << value; }
    void add(const std::string& key, bool value) { begin(key) << (value ? "true" : "false"); }
    void add(const std::string& key, const std::string& value) {
        begin(key) << '"' << escaped(value) << '"';
    }

private:
    static std::string escaped(const std::string& text) {
        std::ostringstream out;
        for (const char c : text) {
            const auto byte = static_cast<unsigned char>(c);
            if (c == '"' || c == '\\') {
                out << '\\' << c;
            } else if (byte < 0x20) {
                out << "\\u" << std::hex << std::setw(4) << std::setfill('0') << int{byte};
            } else {
                out << c;
            }
        }
        return out.str();
    }
    std::ostream& begin(const std::string& key) {
        mOut << (mFirst ? "\n  \"" : ",\n  \"") << key << "\": ";
        mFirst = false;
        return mOut;
    }

    std::ostream& mOut;
    bool mFirst = true;
};

void addSection(JsonObject& json, const std::string& prefix, const StretchReport& section) {
    json.add(prefix + "pattern", section.seen);
    json.add(prefix + "held", section.cadence.held);
    json.add(prefix + "held_after_us", section.heldAfterUs);
    json.add(prefix + "stayed", section.cadence.stayed());
    json.add(prefix + "frames_in_step", section.framesInStep);
    json.add(prefix + "first_frame_us", section.firstFrameUs);
    json.add(prefix + "second_frame_us", section.secondFrameUs);
}

void addStreams(JsonObject& json, const MediaInfo& media) {
    json.add("streams", static_cast<int64_t>(media.streams.size()));
    json.add("programs", static_cast<int64_t>(media.programs.size()));
    json.add("video_stream", int64_t{media.videoStream});
    json.add("audio_stream", int64_t{media.audioStream});
    json.add("can_seek", media.canSeek);
    json.add("field_order", media.fieldOrder);
    json.add("bit_depth", int64_t{media.bitDepth});
    json.add("hdr_transfer", media.transfer);
    json.add("rotation_degrees", int64_t{media.rotationDegrees});
    json.add("interlaced_pictures", media.interlacedPictures);
    json.add("repeated_fields", media.repeatedFields);
    json.add("stream_changes", static_cast<int64_t>(media.changes.size()));
}

/// A CSV field that may be unknown, as microseconds since the start.
std::string sinceStart(const PlaybackRecord& record, int64_t ns) {
    return ns > 0 ? std::to_string((ns - record.startNs) / 1000) : "";
}

void writeFrame(std::ostream& out, const PlaybackRecord& record, const FrameEntry& frame) {
    out << frame.frameNo << ',' << frame.mediaTimeUs << ',' << frame.section << ','
        << toString(frame.outcome) << ','
        << (frame.dropReason == DropReason::None ? "" : toString(frame.dropReason)) << ','
        << frame.buffer << ',' << sinceStart(record, frame.sentNs) << ',';
    if (frame.record) {
        const tv::BufferRecord& tunnel = *frame.record;
        const int64_t presentUs = tunnel.presentationTimeUs - record.startNs / 1000;
        out << sinceStart(record, tunnel.queuedNs) << ','
            << (tunnel.atOnce ? "at_once" : std::to_string(presentUs)) << ',';
        if (tunnel.firstVsync.index >= 0) {
            out << tunnel.firstVsync.index << ',' << sinceStart(record, tunnel.firstVsync.timeNs);
        } else {
            out << ',';
        }
        out << ',' << tunnel.dwellVsyncs << ',';
        if (frame.clockRealUs && tunnel.firstVsync.index >= 0) {
            out << tunnel.firstVsync.timeNs / 1000 - *frame.clockRealUs;
        }
        out << ',' << sinceStart(record, tunnel.releasedNs) << ','
            << sinceStart(record, tunnel.fenceSignalNs) << ',';
    } else {
        out << ",,,,,,,,";
    }
    out << sinceStart(record, frame.returnedNs) << ',' << frame.returns << '\n';
}

}  // namespace

CsvWriter::CsvWriter(std::ostream& out) : mOut(out) {
    out << "frame,media_us,section,outcome,drop_reason,buffer,sent_us,queued_us,present_us,"
           "vsync,shown_us,dwell_vsyncs,av_offset_us,released_us,fence_us,returned_us,returns\n";
}

void CsvWriter::onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) {
    writeFrame(mOut, soFar, frame);
}

void writeJson(std::ostream& out, const PlaybackRecord& record, const Summary& summary,
               const tv::TraceReport& trace) {
    JsonObject json(out);
    json.add("verdict", summary.verdict);
    json.add("ok", summary.ok());
    json.add("end", std::string(toString(record.end)));
    json.add("file", record.media.path);
    addStreams(json, record.media);
    json.add("content_hz", summary.contentHz);
    json.add("display_hz", summary.displayHz);
    json.add("with_audio", record.withAudio);
    json.add("passthrough", record.passthrough);
    json.add("expected_pattern", summary.expected.name());
    json.add("seconds_per_slip", summary.expected.secondsPerSlip());
    json.add("dwells_by_arithmetic", summary.byArithmetic);
    json.add("dwells_unexpected", summary.unexpected);
    json.add("dwells_unexpected_explained", summary.explained);
    json.add("sections", static_cast<int64_t>(summary.sections.size()));
    for (size_t i = 0; i < summary.sections.size(); ++i) {
        const std::string prefix = i == 0 ? "" : "section" + std::to_string(i) + "_";
        addSection(json, prefix, summary.sections[i]);
    }
    json.add("frames_in", summary.framesIn);
    for (int i = 0; i < kOutcomes; ++i) {
        const auto outcome = static_cast<Outcome>(i);
        json.add(std::string("frames_") + toString(outcome), summary.count(outcome));
    }
    for (const auto& [reason, group] : summary.drops) {
        json.add(std::string("dropped_") + toString(reason), group.runs.frames);
        json.add(std::string("dropped_") + toString(reason) + "_longest_run", group.runs.longest);
        json.add(std::string("dropped_") + toString(reason) + "_from_log", group.fromLog);
    }
    json.add("av_offset_samples", summary.offsetUs.samples);
    json.add("av_offset_median_us", summary.offsetUs.median);
    json.add("av_offset_p99_us", summary.offsetUs.p99);
    json.add("av_offset_worst_us", summary.offsetUs.worst);
    json.add("audio_underflows", record.audioUnderflows);
    json.add("audio_reanchors", record.audioReanchors);
    json.add("passthrough_holds", record.sync.holds);
    json.add("buffers", int64_t{record.pool.buffers});
    json.add("buffers_returned", record.pool.returnedByCallback);
    json.add("buffers_taken_back_at_stop", record.pool.takenBackAtStop);
    json.add("buffers_returned_again", record.pool.returnedAgain);
    json.add("buffers_kept", record.buffersKept);
    json.add("pictures_overwritten_on_screen", record.overwrittenOnScreen);
    json.add("frames_handed_in_late", summary.sentLate);
    json.add("stop_us", record.stopTookNs / 1000);
    json.add("trace_events", trace.written);
    json.add("trace_lost", trace.lost);
}

}  // namespace korvane::player
