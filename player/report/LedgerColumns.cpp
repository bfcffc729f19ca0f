// SPDX-License-Identifier: Apache-2.0
#include "player/report/LedgerColumns.h"

#include "player/report/LipSync.h"

namespace korvane::player {
namespace {

using Row = LedgerRow;
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

LedgerValue sinceStart(int64_t ns, const Row& row) {
    return ns > 0 ? number((ns - row.startNs) / 1000) : empty();
}

bool hadVsync(const Frame& frame) {
    return frame.record && frame.record->firstVsync.index >= 0;
}

LedgerValue presentTime(const Row& row) {
    const Frame& frame = row.frame;
    if (!frame.record) {
        return empty();
    }
    return frame.record->atOnce ? LedgerValue{std::nullopt, kAtOnce}
                                : number(frame.record->presentationTimeUs - row.startNs / 1000);
}

/// How far into its vsync interval the presentation time falls. The interval's length is that of
/// the one in which the frame came on screen; both differ only across a change of the display's
/// rate.
LedgerValue vsyncPhase(const Row& row) {
    const Frame& frame = row.frame;
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
    {"frame", [](const Row& r) { return number(r.frame.frameNo); }},
    {"media_us", [](const Row& r) { return number(r.frame.mediaTimeUs); }},
    {"section", [](const Row& r) { return number(r.frame.section); }},
    {"outcome",
     [](const Row& r) {
         return LedgerValue{static_cast<int64_t>(r.frame.outcome), toString(r.frame.outcome)};
     }},
    {"drop_reason",
     [](const Row& r) {
         return r.frame.dropReason == DropReason::None
                    ? empty()
                    : LedgerValue{static_cast<int64_t>(r.frame.dropReason),
                                  toString(r.frame.dropReason)};
     }},
    {"buffer", [](const Row& r) { return number(r.frame.buffer); }},
    {"sent_us", [](const Row& r) { return sinceStart(r.frame.sentNs, r); }},
    {"queued_us",
     [](const Row& r) {
         return r.frame.record ? sinceStart(r.frame.record->queuedNs, r) : empty();
     }},
    {"present_us", presentTime},
    {"vsync",
     [](const Row& r) {
         return hadVsync(r.frame) ? number(r.frame.record->firstVsync.index) : empty();
     }},
    {"shown_us",
     [](const Row& r) {
         return hadVsync(r.frame) ? sinceStart(r.frame.record->firstVsync.timeNs, r) : empty();
     }},
    {"dwell_vsyncs",
     [](const Row& r) { return r.frame.record ? number(r.frame.record->dwellVsyncs) : empty(); }},
    {"cause",
     [](const Row& r) {
         return r.cause ? LedgerValue{static_cast<int64_t>(*r.cause), toString(*r.cause)} : empty();
     }},
    {"lip_sync_us", [](const Row& r) { return number(lipSyncUs(r.frame)); }},
    {"av_offset_us",
     [](const Row& r) {
         return hadVsync(r.frame) && r.frame.clockRealUs
                    ? number(r.frame.record->firstVsync.timeNs / 1000 - *r.frame.clockRealUs)
                    : empty();
     }},
    {"released_us",
     [](const Row& r) {
         return r.frame.record ? sinceStart(r.frame.record->releasedNs, r) : empty();
     }},
    {"fence_us",
     [](const Row& r) {
         return !r.frame.record ? empty()
                : r.frame.record->fenceSignalNs == INT64_MAX
                    ? LedgerValue{-1, kNever}
                    : sinceStart(r.frame.record->fenceSignalNs, r);
     }},
    {"returned_us", [](const Row& r) { return sinceStart(r.frame.returnedNs, r); }},
    {"returns", [](const Row& r) { return number(r.frame.returns); }},
    {"clock_us",
     [](const Row& r) {
         return r.frame.clockRealUs ? number(*r.frame.clockRealUs - r.startNs / 1000) : empty();
     }},
    {"vsync_phase_us", vsyncPhase},
    {"handed_in_late", [](const Row& r) { return number(r.frame.sentLate ? 1 : 0); }},
    {"drop_late_us", [](const Row& r) { return number(r.frame.dropLateUs); }}};

void LedgerListener::onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) {
    mStartNs = soFar.startNs;
    mWaiting.push_back(frame);
}

void LedgerListener::onBreak(const FrameBreak& found) {
    if (found.kind == BreakKind::Unexpected) {
        mCauses[found.frameNo] = found.cause;
    }
}

void LedgerListener::onJudgedUpTo(int64_t frameNo) {
    while (!mWaiting.empty() && mWaiting.front().frameNo < frameNo) {
        const FrameEntry& frame = mWaiting.front();
        const auto found = mCauses.find(frame.frameNo);
        onRow({frame, mStartNs,
               found == mCauses.end() ? std::nullopt : std::optional(found->second)});
        mCauses.erase(mCauses.begin(), mCauses.upper_bound(frame.frameNo));
        mWaiting.pop_front();
    }
}

}  // namespace korvane::player
