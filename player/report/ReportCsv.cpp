// SPDX-License-Identifier: Apache-2.0
// Frames as CSV: one table of columns, for the header and for the lines.
#include <ostream>
#include <string>

#include "player/report/Report.h"

namespace korvane::player {
namespace {

using Record = PlaybackRecord;
using Frame = FrameEntry;

/// Microseconds since the start; empty for a time that is not known.
std::string sinceStart(int64_t ns, const Record& record) {
    return ns > 0 ? std::to_string((ns - record.startNs) / 1000) : "";
}

std::string presentTime(const tv::BufferRecord& tunnel, const Record& record) {
    return tunnel.atOnce ? "at_once"
                         : std::to_string(tunnel.presentationTimeUs - record.startNs / 1000);
}

bool hadVsync(const Frame& frame) {
    return frame.record && frame.record->firstVsync.index >= 0;
}

struct Column {
    const char* name;
    std::string (*value)(const Frame& frame, const Record& record);
};

constexpr Column kColumns[] = {
    {"frame", [](const Frame& f, const Record&) { return std::to_string(f.frameNo); }},
    {"media_us", [](const Frame& f, const Record&) { return std::to_string(f.mediaTimeUs); }},
    {"section", [](const Frame& f, const Record&) { return std::to_string(f.section); }},
    {"outcome", [](const Frame& f, const Record&) { return std::string(toString(f.outcome)); }},
    {"drop_reason",
     [](const Frame& f, const Record&) {
         return std::string(f.dropReason == DropReason::None ? "" : toString(f.dropReason));
     }},
    {"buffer", [](const Frame& f, const Record&) { return std::to_string(f.buffer); }},
    {"sent_us", [](const Frame& f, const Record& r) { return sinceStart(f.sentNs, r); }},
    {"queued_us",
     [](const Frame& f, const Record& r) {
         return f.record ? sinceStart(f.record->queuedNs, r) : "";
     }},
    {"present_us",
     [](const Frame& f, const Record& r) { return f.record ? presentTime(*f.record, r) : ""; }},
    {"vsync",
     [](const Frame& f, const Record&) {
         return hadVsync(f) ? std::to_string(f.record->firstVsync.index) : "";
     }},
    {"shown_us",
     [](const Frame& f, const Record& r) {
         return hadVsync(f) ? sinceStart(f.record->firstVsync.timeNs, r) : "";
     }},
    {"dwell_vsyncs",
     [](const Frame& f, const Record&) {
         return f.record ? std::to_string(f.record->dwellVsyncs) : "";
     }},
    {"lip_sync_us",
     [](const Frame& f, const Record&) {
         const auto lipSync = lipSyncUs(f);
         return lipSync ? std::to_string(*lipSync) : "";
     }},
    {"av_offset_us",
     [](const Frame& f, const Record&) {
         return hadVsync(f) && f.clockRealUs
                    ? std::to_string(f.record->firstVsync.timeNs / 1000 - *f.clockRealUs)
                    : "";
     }},
    {"released_us",
     [](const Frame& f, const Record& r) {
         return f.record ? sinceStart(f.record->releasedNs, r) : "";
     }},
    {"fence_us",
     [](const Frame& f, const Record& r) {
         return f.record ? sinceStart(f.record->fenceSignalNs, r) : "";
     }},
    {"returned_us", [](const Frame& f, const Record& r) { return sinceStart(f.returnedNs, r); }},
    {"returns", [](const Frame& f, const Record&) { return std::to_string(f.returns); }}};

/// One line of what `field` says of each column.
template <typename Field>
void writeLine(std::ostream& out, Field field) {
    const char* separator = "";
    for (const Column& column : kColumns) {
        out << separator << field(column);
        separator = ",";
    }
    out << '\n';
}

}  // namespace

CsvWriter::CsvWriter(std::ostream& out) : mOut(out) {
    writeLine(mOut, [](const Column& column) { return column.name; });
}

void CsvWriter::onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) {
    writeLine(mOut, [&](const Column& column) { return column.value(frame, soFar); });
}

}  // namespace korvane::player
