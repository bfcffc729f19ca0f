// SPDX-License-Identifier: Apache-2.0
#include "player/report/EventRecorder.h"

#include <string>

#include "player/report/LipSync.h"

namespace korvane::player {

void EventRecorder::onStart(const PlaybackRecord& soFar) {
    mLog->begin(soFar.startNs);
    mLog->add({soFar.startNs, EventKind::Start, -1, 0, 0, ""});
}

void EventRecorder::onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) {
    mLog->add({frame.sentNs, EventKind::Sent, frame.frameNo, frame.mediaTimeUs, frame.buffer,
               frame.sentLate ? "late" : ""});
    addTunnelEvents(frame, soFar);
    addEnd(frame);
}

void EventRecorder::addTunnelEvents(const FrameEntry& frame, const PlaybackRecord& soFar) {
    if (!frame.record) {
        return;
    }
    const tv::BufferRecord& record = *frame.record;
    const int64_t presentUs = record.atOnce ? 0 : record.presentationTimeUs - soFar.startNs / 1000;
    mLog->add({record.queuedNs, EventKind::Queued, frame.frameNo, presentUs, 0,
               record.atOnce ? "at_once" : ""});
    if (frame.outcome == Outcome::Shown) {
        const int64_t offsetUs =
            frame.clockRealUs ? record.firstVsync.timeNs / 1000 - *frame.clockRealUs : 0;
        const auto lipSync = lipSyncUs(frame);
        mLog->add({record.firstVsync.timeNs, EventKind::Shown, frame.frameNo,
                   record.firstVsync.index, offsetUs,
                   lipSync ? "lip_sync_us=" + std::to_string(*lipSync) : ""});
        mLog->add(
            {record.releasedNs, EventKind::Replaced, frame.frameNo, record.dwellVsyncs, 0, ""});
    } else if (frame.outcome == Outcome::Superseded) {
        mLog->add({record.releasedNs, EventKind::Superseded, frame.frameNo, 0, 0, ""});
    } else {
        mLog->add({record.releasedNs, EventKind::Discarded, frame.frameNo, 0, 0, "in_tunnel"});
    }
}

/// How the frame left the library. Only for a frame that was in the tunnel is the buffer's return
/// an event of its own.
void EventRecorder::addEnd(const FrameEntry& frame) {
    const int64_t backNs = frame.returns > 0 ? frame.returnedNs : frame.sentNs;
    const std::string times = frame.returns > 1 ? "times=" + std::to_string(frame.returns) : "";
    switch (frame.outcome) {
        case Outcome::Dropped:
            mLog->add({backNs, EventKind::Dropped, frame.frameNo, 0, 0,
                       std::string("reason=") + toString(frame.dropReason)});
            break;
        case Outcome::Flushed:
            mLog->add({backNs, EventKind::Flushed, frame.frameNo, 0, 0, times});
            break;
        case Outcome::Refused:
            mLog->add({backNs, EventKind::Refused, frame.frameNo, 0, 0, times});
            break;
        case Outcome::DiscardedByStop:
            mLog->add({backNs, EventKind::Discarded, frame.frameNo, 0, 0, "in_queue"});
            break;
        case Outcome::Lost:
            mLog->add({backNs, EventKind::Lost, frame.frameNo, 0, 0, times});
            break;
        default:
            if (frame.returns > 0) {
                mLog->add({backNs, EventKind::Returned, frame.frameNo,
                           frame.returnedAsRendered ? 1 : 0, 0, times});
            }
            break;
    }
}

}  // namespace korvane::player
