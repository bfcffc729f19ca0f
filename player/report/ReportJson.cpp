// SPDX-License-Identifier: Apache-2.0
// The summary as flat JSON, for scripts. Keys stay as they are once published;
// docs/summary.schema.json describes them.
#include <fmt/core.h>

#include <ostream>
#include <string>

#include "player/base/JsonValue.h"
#include "player/base/Text.h"
#include "player/report/Report.h"

namespace korvane::player {
namespace {

void addStretch(JsonValue* json, const std::string& prefix, const StretchReport& stretch) {
    JsonValue& to = *json;
    to[prefix + "pattern"] = stretch.seen;
    to[prefix + "held"] = stretch.cadence.held;
    to[prefix + "held_after_us"] = stretch.heldAfterUs;
    to[prefix + "stayed"] = stretch.cadence.stayed();
    to[prefix + "frames_in_step"] = stretch.cadence.inStep;
    to[prefix + "first_frame_us"] = stretch.firstFrameUs;
    to[prefix + "second_frame_us"] = stretch.secondFrameUs;
}

void addStreams(JsonValue* json, const MediaInfo& media) {
    JsonValue& to = *json;
    to["streams"] = media.streams.size();
    to["programs"] = media.programs.size();
    to["video_stream"] = media.videoStream;
    to["audio_stream"] = media.audioStream;
    to["can_seek"] = media.canSeek;
    to["field_order"] = media.fieldOrder;
    to["bit_depth"] = media.bitDepth;
    to["hdr_transfer"] = media.transfer;
    to["rotation_degrees"] = media.rotationDegrees;
    to["interlaced_pictures"] = media.interlacedPictures;
    to["repeated_fields"] = media.repeatedFields;
    to["stream_changes"] = media.changes.size();
}

void addOrigin(JsonValue* json, const Origin& origin) {
    JsonValue& to = *json;
    to["schema_version"] = kSummarySchemaVersion;
    to["version"] = origin.version;
    to["command_line"] = origin.commandLine;
    to["virtual_time"] = origin.virtualTime;
    to["seed"] = origin.seed;
    to["event_hash"] = origin.eventHash;
    if (!origin.library.empty()) {
        to["library"] = printable(origin.library);
        to["library_hash"] = origin.libraryHash;
    }
}

void addPlayback(JsonValue* json, const PlaybackRecord& record, const Summary& summary) {
    JsonValue& to = *json;
    to["verdict"] = summary.verdict;
    to["grade"] = toString(summary.grade);
    to["ok"] = summary.ok();
    to["even"] = summary.even;
    to["in_sync"] = summary.inSync ? JsonValue(*summary.inSync) : JsonValue();
    to["complete"] = summary.complete;
    to["end"] = toString(record.end);
    to["file"] = record.media.path;
    addStreams(json, record.media);
    to["content_hz"] = JsonValue::rounded(summary.contentHz);
    to["display_hz"] = JsonValue::rounded(summary.displayHz);
    to["with_audio"] = record.withAudio;
    to["passthrough"] = record.passthrough;
}

void addCadence(JsonValue* json, const Summary& summary) {
    JsonValue& to = *json;
    to["expected_pattern"] = summary.expected.name();
    to["seconds_per_slip"] = JsonValue::rounded(summary.expected.secondsPerSlip());
    to["dwells_by_arithmetic"] = summary.byArithmetic;
    to["dwells_unexpected"] = summary.unexpected;
    to["dwells_unexpected_explained"] = summary.explained();
    for (const auto& [cause, dwells] : summary.causes) {
        to[fmt::format("dwells_unexpected_{}", toString(cause))] = dwells;
    }
    to["pattern_in_force"] = summary.wrongPattern;
    to["disturbances"] = summary.disturbances;
    to["ongoing_breaks"] = summary.ongoing.breaks;
    to["ongoing_from_us"] = summary.ongoing.breaks > 0 ? summary.ongoing.fromUs : -1;
    to["ongoing_to_us"] = summary.ongoing.breaks > 0 ? summary.ongoing.toUs : -1;
    to["visible_breaks_per_minute"] = JsonValue::rounded(summary.visibleBreaksPerMinute);
    to["judder_mean_error_us"] = summary.judder.meanErrorUs;
    to["longest_freeze_us"] = summary.judder.longestFreezeUs;
    to["longest_freeze_frame"] = summary.judder.longestFreezeFrame;
    to["freeze_score"] = summary.judder.freezeScore;
    to["freeze_rate"] = JsonValue::rounded(summary.judder.freezeRate);
    to["judder_score"] = summary.judder.judderScore;
    to["judder_rate"] = JsonValue::rounded(summary.judder.judderRate);
    // The published key is "sections": at first only flushes ended a stretch.
    to["sections"] = summary.stretches.size();
    for (size_t i = 0; i < summary.stretches.size(); ++i) {
        addStretch(json, i == 0 ? "" : fmt::format("section{}_", i), summary.stretches[i]);
    }
}

void addFrames(JsonValue* json, const Summary& summary) {
    JsonValue& to = *json;
    to["frames_in"] = summary.framesIn;
    for (int i = 0; i < kOutcomes; ++i) {
        const auto outcome = static_cast<Outcome>(i);
        to[fmt::format("frames_{}", toString(outcome))] = summary.count(outcome);
    }
    for (const auto& [reason, group] : summary.drops) {
        const std::string key = fmt::format("dropped_{}", toString(reason));
        to[key] = group.runs.frames;
        to[key + "_longest_run"] = group.runs.longest;
        to[key + "_from_log"] = group.fromLog;
    }
}

void addLipSync(JsonValue* json, const LipSync& lipSync) {
    JsonValue& to = *json;
    to["lip_sync_samples"] = lipSync.samples;
    to["lip_sync_median_us"] = lipSync.medianUs;
    to["lip_sync_p99_us"] = lipSync.p99MagnitudeUs;
    to["lip_sync_worst_us"] = lipSync.worstUs;
    to["lip_sync_worst_frame"] = lipSync.worst.frameNo;
    to["lip_sync_display_median_us"] = lipSync.displayMedianUs;
    to["lip_sync_seconds_judged"] = JsonValue::rounded(lipSync.secondsJudged);
    to["lip_sync_seconds_outside_ebu"] = JsonValue::rounded(lipSync.secondsOutsideEbu);
    to["lip_sync_seconds_outside_itu_detectable"] =
        JsonValue::rounded(lipSync.secondsOutsideItuDetectable);
    to["lip_sync_seconds_outside_itu_acceptable"] =
        JsonValue::rounded(lipSync.secondsOutsideItuAcceptable);
}

void addAudioAndBuffers(JsonValue* json, const PlaybackRecord& record, const Summary& summary) {
    JsonValue& to = *json;
    to["av_offset_samples"] = summary.offset.us.samples;
    to["av_offset_median_us"] = summary.offset.us.median;
    to["av_offset_p99_us"] = summary.offset.us.p99;
    to["av_offset_worst_us"] = summary.offset.us.worst;
    to["seeks_failed"] = record.failedSeeks;
    to["seeks_beyond_end"] = record.seeksBeyondEnd;
    to["splices"] = summary.splices.size();
    to["splice_lost_worst_us"] = summary.worstSpliceUs();
    to["sound_from_us"] = record.soundFromUs;
    to["audio_underflows"] = record.audioUnderflows;
    to["audio_reanchors"] = record.audioReanchors;
    to["passthrough_holds"] = record.sync.holds;
    to["buffers"] = record.pool.buffers;
    to["buffers_returned"] = record.pool.returnedByCallback;
    to["buffers_taken_back_at_stop"] = record.pool.takenBackAtStop;
    to["buffers_returned_again"] = record.pool.returnedAgain;
    to["buffers_kept"] = record.buffersKept;
    to["buffer_waits"] = record.pool.waits;
    to["buffer_longest_wait_us"] = record.pool.longestWaitNs / 1000;
    to["buffer_back_median_us"] = summary.backToPlayerNs.median / 1000;
    to["buffer_back_p99_us"] = summary.backToPlayerNs.p99 / 1000;
    to["pictures_overwritten_on_screen"] = record.overwrittenOnScreen;
    to["frames_refused_by_tunnel"] = summary.refusedByTunnel;
    to["frames_handed_in_late"] = summary.sentLate;
    to["stop_us"] = record.stopTookNs / 1000;
}

}  // namespace

JsonValue summaryJson(const Origin& origin, const PlaybackRecord& record, const Summary& summary,
                      const tv::TraceReport& trace) {
    JsonValue json = JsonValue::object();
    addOrigin(&json, origin);
    addPlayback(&json, record, summary);
    addCadence(&json, summary);
    addFrames(&json, summary);
    addLipSync(&json, summary.lipSync);
    addAudioAndBuffers(&json, record, summary);
    json["trace_events"] = trace.written;
    json["trace_lost"] = trace.lost;
    return json;
}

void writeJson(std::ostream& out, const Origin& origin, const PlaybackRecord& record,
               const Summary& summary, const tv::TraceReport& trace) {
    out << summaryJson(origin, record, summary, trace).dump(2) << "\n";
}

}  // namespace korvane::player
