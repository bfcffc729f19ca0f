// SPDX-License-Identifier: Apache-2.0
#include "player/playback/FrameCollector.h"

#include <algorithm>
#include <limits>

namespace korvane::player {
namespace {

constexpr int64_t kCollectNs = 1'000'000'000;

/// For a frame shown: when its sound was heard, and for how much of its time on screen anything
/// was.
void noteSound(const tv::SoundRecord& sound, FrameEntry* frame) {
    if (frame->outcome == Outcome::Shown) {
        const int64_t shownUs = frame->record->firstVsync.timeNs / 1000;
        frame->heardRealUs = sound.realTimeOf(frame->mediaTimeUs, shownUs);
        frame->heardForUs = sound.audibleUs(shownUs, frame->record->releasedNs / 1000);
    }
}

}  // namespace

void FrameCollector::collect(tv::Tunnel& tunnel, int tunnelId) {
    const auto records = tunnel.takeFinished(tunnelId);
    for (const auto& record : records) {
        mRecord.foreignPictures += record.frameNo < 0 ? 1 : 0;
        mRecord.overwrittenOnScreen += record.overwrittenOnScreen ? 1 : 0;
    }
    mLedger.addRecords(records);
    int64_t firstInTunnel = std::numeric_limits<int64_t>::max();
    for (const auto& record : tunnel.record(tunnelId)) {
        if (record.frameNo >= 0) {
            firstInTunnel = std::min(firstInTunnel, record.frameNo);
        }
    }
    passOn(mLedger.takeFinal(firstInTunnel));
    const int64_t oldestNs = mLedger.oldestSentNs();
    for (auto* listener : mListeners) {
        listener->onFinalUpTo(oldestNs);
    }
}

void FrameCollector::collectIfDue(tv::Tunnel& tunnel, int tunnelId, int64_t nowNs) {
    if (nowNs >= mCollectedNs + kCollectNs) {
        mCollectedNs = nowNs;
        collect(tunnel, tunnelId);
    }
}

void FrameCollector::finish() {
    passOn(mLedger.takeRest());
}

void FrameCollector::passOn(std::vector<FrameEntry> frames) {
    const tv::SoundRecord sound = mAudio != nullptr ? mAudio->sound() : tv::SoundRecord();
    for (auto& frame : frames) {
        noteSound(sound, &frame);
        if (frame.bufferKept && mRecord.buffersKept++ == 0) {
            mRecord.firstKept = {frame.frameNo, (frame.sentNs - mRecord.startNs) / 1000};
        }
        for (auto* listener : mListeners) {
            listener->onFrame(frame, mRecord);
        }
    }
}

}  // namespace korvane::player
