// SPDX-License-Identifier: Apache-2.0
#include "player/report/LedgerColumns.h"

#include "player/report/LipSync.h"

namespace korvane::player {
namespace {

using Record = PlaybackRecord;
using Frame = FrameEntry;

constexpr char kAtOnce[] = "at_once";
constexpr char kNever[] = "never";

LedgerValue empty() {
    return {};
}

LedgerValue number(int64_t value) {
    return {value, nullptr};
}

LedgerValue number(std::optional<int64_t> value) {
    return {value, nullptr};
}

LedgerValue sinceStart(int64_t ns, const Record& record) {
    return ns > 0 ? number((ns - record.startNs) / 1000) : empty();
}

bool hadVsync(const Frame& frame) {
    return frame.record && frame.record->firstVsync.index >= 0;
}

LedgerValue presentTime(const Frame& frame, const Record& record) {
    if (!frame.record) {
        return empty();
    }
    return frame.record->atOnce ? LedgerValue{std::nullopt, kAtOnce}
                                : number(frame.record->presentationTimeUs - record.startNs / 1000);
}

/// How far into its vsync interval the presentation time falls. The interval's length is that of
/// the one in which the frame came on screen; both differ only across a change of the display's
/// rate.
LedgerValue vsyncPhase(const Frame& frame, const Record&) {
    if (!hadVsync(frame) || frame.record->atOnce || frame.record->vsyncPeriodNs <= 0) {
        return empty();
    }
    const tv::BufferRecord& tunnel = *frame.record;
    const int64_t periodNs = tunnel.vsyncPeriodNs;
    const int64_t aheadNs = tunnel.firstVsync.timeNs - tunnel.presentationTimeUs * 1000;
    const int64_t untilVsyncNs = (aheadNs % periodNs + periodNs) % periodNs;
    return number((untilVsyncNs == 0 ? 0 : periodNs - untilVsyncNs) / 1000);
}

}  // namespace

const LedgerColumn kLedger[kLedgerColumns] = {
    {"frame", [](const Frame& f, const Record&) { return number(f.frameNo); }},
    {"media_us", [](const Frame& f, const Record&) { return number(f.mediaTimeUs); }},
    {"section", [](const Frame& f, const Record&) { return number(f.section); }},
    {"outcome",
     [](const Frame& f, const Record&) {
         return LedgerValue{static_cast<int64_t>(f.outcome), toString(f.outcome)};
     }},
    {"drop_reason",
     [](const Frame& f, const Record&) {
         return f.dropReason == DropReason::None
                    ? empty()
                    : LedgerValue{static_cast<int64_t>(f.dropReason), toString(f.dropReason)};
     }},
    {"buffer", [](const Frame& f, const Record&) { return number(f.buffer); }},
    {"sent_us", [](const Frame& f, const Record& r) { return sinceStart(f.sentNs, r); }},
    {"queued_us",
     [](const Frame& f, const Record& r) {
         return f.record ? sinceStart(f.record->queuedNs, r) : empty();
     }},
    {"present_us", presentTime},
    {"vsync",
     [](const Frame& f, const Record&) {
         return hadVsync(f) ? number(f.record->firstVsync.index) : empty();
     }},
    {"shown_us",
     [](const Frame& f, const Record& r) {
         return hadVsync(f) ? sinceStart(f.record->firstVsync.timeNs, r) : empty();
     }},
    {"dwell_vsyncs",
     [](const Frame& f, const Record&) {
         return f.record ? number(f.record->dwellVsyncs) : empty();
     }},
    {"lip_sync_us", [](const Frame& f, const Record&) { return number(lipSyncUs(f)); }},
    {"av_offset_us",
     [](const Frame& f, const Record&) {
         return hadVsync(f) && f.clockRealUs
                    ? number(f.record->firstVsync.timeNs / 1000 - *f.clockRealUs)
                    : empty();
     }},
    {"released_us",
     [](const Frame& f, const Record& r) {
         return f.record ? sinceStart(f.record->releasedNs, r) : empty();
     }},
    {"fence_us",
     [](const Frame& f, const Record& r) {
         return !f.record                               ? empty()
                : f.record->fenceSignalNs == INT64_MAX ? LedgerValue{-1, kNever}
                                                        : sinceStart(f.record->fenceSignalNs, r);
     }},
    {"returned_us", [](const Frame& f, const Record& r) { return sinceStart(f.returnedNs, r); }},
    {"returns", [](const Frame& f, const Record&) { return number(f.returns); }},
    {"clock_us",
     [](const Frame& f, const Record& r) {
         return f.clockRealUs ? number(*f.clockRealUs - r.startNs / 1000) : empty();
     }},
    {"vsync_phase_us", vsyncPhase},
    {"handed_in_late", [](const Frame& f, const Record&) { return number(f.sentLate ? 1 : 0); }},
    {"drop_late_us", [](const Frame& f, const Record&) { return number(f.dropLateUs); }}};

}  // namespace korvane::player
