// SPDX-License-Identifier: Apache-2.0
// Frames as CSV: one table of columns, for the header and for the lines.
#include <ostream>
#include <string>

#include "player/report/Report.h"

namespace korvane::player {
namespace {

using Frame = FrameEntry;

/// What a line needs beside its frame.
struct Line {
    int64_t startNs;
    const char* cause;  ///< of an unexpected dwell; else empty
};

/// Microseconds since the start; empty for a time that is not known.
std::string sinceStart(int64_t ns, const Line& line) {
    return ns > 0 ? std::to_string((ns - line.startNs) / 1000) : "";
}

std::string presentTime(const tv::BufferRecord& tunnel, const Line& line) {
    return tunnel.atOnce ? "at_once"
                         : std::to_string(tunnel.presentationTimeUs - line.startNs / 1000);
}

bool hadVsync(const Frame& frame) {
    return frame.record && frame.record->firstVsync.index >= 0;
}

struct Column {
    const char* name;
    std::string (*value)(const Frame& frame, const Line& line);
};

constexpr Column kColumns[] = {
    {"frame", [](const Frame& f, const Line&) { return std::to_string(f.frameNo); }},
    {"media_us", [](const Frame& f, const Line&) { return std::to_string(f.mediaTimeUs); }},
    {"section", [](const Frame& f, const Line&) { return std::to_string(f.section); }},
    {"outcome", [](const Frame& f, const Line&) { return std::string(toString(f.outcome)); }},
    {"drop_reason",
     [](const Frame& f, const Line&) {
         return std::string(f.dropReason == DropReason::None ? "" : toString(f.dropReason));
     }},
    {"buffer", [](const Frame& f, const Line&) { return std::to_string(f.buffer); }},
    {"sent_us", [](const Frame& f, const Line& l) { return sinceStart(f.sentNs, l); }},
    {"queued_us", [](const Frame& f,
                     const Line& l) { return f.record ? sinceStart(f.record->queuedNs, l) : ""; }},
    {"present_us",
     [](const Frame& f, const Line& l) { return f.record ? presentTime(*f.record, l) : ""; }},
    {"vsync",
     [](const Frame& f, const Line&) {
         return hadVsync(f) ? std::to_string(f.record->firstVsync.index) : "";
     }},
    {"shown_us",
     [](const Frame& f, const Line& l) {
         return hadVsync(f) ? sinceStart(f.record->firstVsync.timeNs, l) : "";
     }},
    {"dwell_vsyncs",
     [](const Frame& f, const Line&) {
         return f.record ? std::to_string(f.record->dwellVsyncs) : "";
     }},
    {"cause", [](const Frame&, const Line& l) { return std::string(l.cause); }},
    {"lip_sync_us",
     [](const Frame& f, const Line&) {
         const auto lipSync = lipSyncUs(f);
         return lipSync ? std::to_string(*lipSync) : "";
     }},
    {"av_offset_us",
     [](const Frame& f, const Line&) {
         return hadVsync(f) && f.clockRealUs
                    ? std::to_string(f.record->firstVsync.timeNs / 1000 - *f.clockRealUs)
                    : "";
     }},
    {"released_us",
     [](const Frame& f, const Line& l) {
         return f.record ? sinceStart(f.record->releasedNs, l) : "";
     }},
    {"fence_us",
     [](const Frame& f, const Line& l) {
         return f.record ? sinceStart(f.record->fenceSignalNs, l) : "";
     }},
    {"returned_us", [](const Frame& f, const Line& l) { return sinceStart(f.returnedNs, l); }},
    {"returns", [](const Frame& f, const Line&) { return std::to_string(f.returns); }}};

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
    mStartNs = soFar.startNs;
    mWaiting.push_back(frame);
}

void CsvWriter::onJudgedUpTo(int64_t frameNo) {
    while (!mWaiting.empty() && mWaiting.front().frameNo < frameNo) {
        const FrameEntry& frame = mWaiting.front();
        const auto found = mCauses.find(frame.frameNo);
        const Line line{mStartNs, found == mCauses.end() ? "" : toString(found->second)};
        writeLine(mOut, [&](const Column& column) { return column.value(frame, line); });
        mCauses.erase(mCauses.begin(), mCauses.upper_bound(frame.frameNo));
        mWaiting.pop_front();
    }
}

}  // namespace korvane::player
