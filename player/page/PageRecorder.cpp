// SPDX-License-Identifier: Apache-2.0
#include "player/page/PageRecorder.h"

#include <string_view>

#include "tv/Tv.h"

namespace korvane::player {
namespace {

/// Times and numbers that go on evenly are predicted by a line, states by the one before, lip-sync
/// and what else varies around a value by that value.
PageColumn::Prediction predictionOf(std::string_view column) {
    for (const char* even : {"frame", "media_us", "sent_us", "queued_us", "present_us", "vsync",
                             "shown_us", "released_us", "fence_us", "returned_us", "clock_us"}) {
        if (column == even) {
            return PageColumn::Prediction::Line;
        }
    }
    const bool varies = column == "lip_sync_us" || column == "av_offset_us" ||
                        column == "vsync_phase_us" || column == "buffer";
    return varies ? PageColumn::Prediction::Last : PageColumn::Prediction::Zero;
}

}  // namespace

PageRecorder::PageRecorder() {
    for (const LedgerColumn& column : kLedger) {
        mFrames.emplace_back(predictionOf(column.name));
    }
}

void PageRecorder::onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) {
    LedgerListener::onFrame(frame, soFar);
    if (frame.outcome == Outcome::Shown) {
        followStops(frame, soFar);
    }
}

void PageRecorder::onRow(const LedgerRow& row) {
    auto column = mFrames.begin();
    for (const LedgerColumn& of : kLedger) {
        (column++)->add(of.value(row).number);
    }
}

void PageRecorder::followStops(const FrameEntry& frame, const PlaybackRecord& soFar) {
    const int64_t shownUs = frame.record->firstVsync.timeNs / 1000;
    const int64_t startUs = soFar.startNs / 1000;
    for (size_t i = mStops.size(); i < soFar.clockStops.size(); ++i) {
        mStops.push_back({soFar.clockStops[i], mLastShown, {}});
    }
    const FrameAt shown{frame.frameNo, shownUs - startUs};
    for (size_t i = mStopsOver; i < mStops.size(); ++i) {
        StopSeen& seen = mStops[i];
        seen.stop = soFar.clockStops[i];
        if (shownUs < seen.stop.fromUs || seen.stop.toUs == 0 || shownUs < seen.stop.toUs) {
            seen.last = shown;
        } else {
            seen.next = shown;
            ++mStopsOver;
        }
    }
    mLastShown = shown;
}

void PageRecorder::onAction(const Event& action) {
    const bool anew = action.kind == EventKind::Flush || action.kind == EventKind::Seek ||
                      action.kind == EventKind::Restart || action.kind == EventKind::Resume;
    if (anew) {
        mLog.restartPattern(action.timeNs);
    }
    const std::lock_guard<std::mutex> guard(mLock);
    mActions.push_back(action);
}

void PageRecorder::onBreak(const FrameBreak& found) {
    LedgerListener::onBreak(found);
    mBreaks.frame.add(found.frameNo);
    mBreaks.dwell.add(found.dwell);
    mBreaks.expected.add(found.expected);
    mBreaks.kind.add(static_cast<int64_t>(found.kind));
    mBreaks.cause.add(found.kind == BreakKind::Unexpected
                          ? std::optional<int64_t>(static_cast<int64_t>(found.cause))
                          : std::nullopt);
    mBreaks.texts.add(found.text + '\n');
}

void PageRecorder::onStretch(int64_t firstFrame, const StretchReport* report) {
    if (report != nullptr) {
        mStretches.push_back({firstFrame, *report});
    }
}

void PageRecorder::onLogLine(const tv::LogLine& line) {
    mLog.add(line, tv::nowNs());
}

std::vector<Event> PageRecorder::actions() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mActions;
}

}  // namespace korvane::player
