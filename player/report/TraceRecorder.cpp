// SPDX-License-Identifier: Apache-2.0
#include "player/report/TraceRecorder.h"

#include <algorithm>
#include <limits>
#include <string>
#include <utility>

#include "player/report/EventLine.h"
#include "player/report/LipSync.h"

namespace korvane::player {
namespace {

std::string nameOfFrame(const FrameEntry& frame) {
    return "frame " + std::to_string(frame.frameNo);
}

bool wasShown(const FrameEntry& frame) {
    return frame.outcome == Outcome::Shown;
}

/// When the buffer was the player's again: by the library, or because the library stopped.
int64_t backNs(const FrameEntry& frame, const PlaybackRecord& soFar) {
    return frame.returns > 0 ? frame.returnedNs
                             : std::max({frame.sentNs, soFar.stopNs,
                                         frame.record ? frame.record->releasedNs : 0});
}

void traceHandIn(const FrameEntry& frame) {
    tv::traceInstant("player/handed in", nameOfFrame(frame), frame.sentNs,
                     {frame.frameNo,
                      false,
                      {{"media_us", frame.mediaTimeUs},
                       {"buffer", int64_t{frame.buffer}},
                       {"late", int64_t{frame.sentLate}}}});
}

void traceBack(const FrameEntry& frame, int64_t backAtNs) {
    tv::TraceDetails details{
        frame.frameNo, true, {{"outcome", std::string(toString(frame.outcome))}}};
    if (frame.dropReason != DropReason::None) {
        details.arguments.emplace_back("reason", std::string(toString(frame.dropReason)));
    }
    if (const auto lipSync = lipSyncUs(frame)) {
        details.arguments.emplace_back("lip_sync_us", *lipSync);
    }
    tv::traceInstant("player/back", nameOfFrame(frame), backAtNs, details);
}

/// Who held the buffer. The panel reads a replaced picture until its fence signals.
void traceHolders(const FrameEntry& frame, int64_t backAtNs) {
    const std::string track = "buffers/buffer " + std::to_string(frame.buffer);
    int64_t fromNs = frame.sentNs;
    const auto heldBy = [&](const char* holder, int64_t untilNs, bool joined = false) {
        untilNs = std::min(untilNs, backAtNs);
        if (untilNs > fromNs) {
            tv::traceSlice(track, holder, fromNs, untilNs,
                           {joined ? frame.frameNo : -1, false, {{"frame", frame.frameNo}}});
            fromNs = untilNs;
        }
    };
    if (frame.record) {
        const tv::BufferRecord& record = *frame.record;
        heldBy("library", record.queuedNs);
        heldBy("tunnel", wasShown(frame) ? record.firstVsync.timeNs : record.releasedNs, true);
        heldBy("screen", record.releasedNs);
        heldBy("panel", record.fenceSignalNs);
    }
    heldBy("library", backAtNs);
}

}  // namespace

PresentVerdict presentVerdict(const FrameEntry& frame) {
    using Type = tv::PresentType;
    const int32_t handedInLate = frame.sentLate ? tv::kJankHandedInLate : 0;
    switch (frame.outcome) {
        case Outcome::Shown:
            break;
        case Outcome::Dropped:
            return {Type::Dropped, tv::kJankDropped | handedInLate};
        case Outcome::Superseded:
            return {Type::Dropped, tv::kJankDropped | tv::kJankBuffersStuffed};
        case Outcome::Lost:
            return {Type::Dropped, tv::kJankUnknown};
        default:
            return {Type::Dropped, tv::kJankNone};  // a flush or stop asked for it
    }
    const tv::BufferRecord& record = *frame.record;
    if (record.atOnce) {
        return {Type::Early, tv::kJankNone};
    }
    if (record.lateVsyncs > 0) {
        return {Type::Late, handedInLate != 0 ? handedInLate : tv::kJankQueuedLate};
    }
    const int64_t offUs =
        frame.clockRealUs ? record.firstVsync.timeNs / 1000 - *frame.clockRealUs : 0;
    if (kEbuBand.holds(offUs)) {
        return {};
    }
    return {offUs > 0 ? Type::Late : Type::Early,
            handedInLate != 0 ? handedInLate : tv::kJankClock};
}

void TraceRecorder::onStart(const PlaybackRecord& soFar) {
    tv::traceInstant("player/playback", "command line", soFar.startNs,
                     {-1,
                      false,
                      {{"command_line", mOrigin.commandLine},
                       {"version", mOrigin.version},
                       {"seed", std::to_string(mOrigin.seed)},
                       {"clock", std::string(mOrigin.virtualTime ? "virtual" : "real")}}});
}

void TraceRecorder::onAction(const Event& action) {
    tv::TraceDetails details;
    if (action.first != 0) {
        details.arguments.emplace_back("to_us", action.first);
    }
    tv::traceInstant(
        "player/actions",
        std::string(toString(action.kind)) + (action.text.empty() ? "" : ": " + action.text),
        action.timeNs, details);
}

void TraceRecorder::onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) {
    const int64_t backAtNs = backNs(frame, soFar);
    traceHandIn(frame);
    traceHolders(frame, backAtNs);
    traceBack(frame, backAtNs);
    const HeldFrame next{frame, dueNs(frame)};
    if (mHeld) {
        traceTimeline(*mHeld, next.dueNs);
    }
    mHeld = next;
}

/// A frame that was not shown is due by the clock of the frames before it.
std::optional<int64_t> TraceRecorder::dueNs(const FrameEntry& frame) {
    if (frame.section != mSection) {
        mSection = frame.section;
        mClockOffsetUs.reset();
    }
    if (frame.clockRealUs) {
        mClockOffsetUs = *frame.clockRealUs - frame.mediaTimeUs;
    }
    return mClockOffsetUs ? std::optional((frame.mediaTimeUs + *mClockOffsetUs) * 1000)
                          : std::nullopt;
}

void TraceRecorder::traceTimeline(const HeldFrame& held, std::optional<int64_t> nextDueNs) {
    const FrameEntry& frame = held.frame;
    const PresentVerdict verdict = presentVerdict(frame);
    tv::TraceTimeline timeline;
    timeline.token = frame.frameNo;
    timeline.layer = "film";
    timeline.present = verdict.present;
    timeline.jank = verdict.jank;
    if (held.dueNs && nextDueNs && *nextDueNs > *held.dueNs) {
        timeline.expectedNs = *held.dueNs;
        timeline.expectedEndNs = *nextDueNs;
    }
    if (wasShown(frame)) {
        timeline.displayToken = frame.record->firstVsync.index;
        timeline.actualNs = frame.record->firstVsync.timeNs;
        timeline.actualEndNs = frame.record->releasedNs;
    } else {
        timeline.actualNs = timeline.actualEndNs =
            frame.returns > 0 ? frame.returnedNs : frame.sentNs;
    }
    tv::traceTimeline(timeline);
}

void TraceRecorder::finish(const PlaybackRecord& record, const Summary& summary) {
    if (mHeld) {
        traceTimeline(*mHeld, std::nullopt);
    }
    tv::traceSlice("player/playback", summary.verdict, record.startNs, record.stopNs,
                   {-1,
                    false,
                    {{"grade", std::string(toString(summary.grade))},
                     {"frames", summary.framesIn},
                     {"shown", summary.count(Outcome::Shown)},
                     {"unexpected_dwells", summary.unexpected}}});
    for (const StretchReport& stretch : summary.stretches) {
        for (const ReportedBreak& found : stretch.breaks) {
            tv::traceInstant("player/unexpected dwells",
                             found.cause.empty() ? "unexplained" : found.cause,
                             record.startNs + found.shownUs * 1000,
                             {-1,
                              false,
                              {{"frame", found.frameNo},
                               {"dwell", int64_t{found.dwell}},
                               {"expected", int64_t{found.expected}}}});
        }
    }
}

}  // namespace korvane::player
