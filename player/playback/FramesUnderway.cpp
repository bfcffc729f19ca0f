// SPDX-License-Identifier: Apache-2.0
#include "player/playback/FramesUnderway.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "player/playback/FeedSchedule.h"

namespace korvane::player {
namespace {

/// Longest wait after a flush until the library holds no frame. The last to go are those that it
/// hands to the tunnel, about 40 ms before their time.
constexpr int64_t kFlushNs = 100'000'000;

}  // namespace

int64_t FramesUnderway::nextDueNs() const {
    const tv::SyncInstance& clock = *mLibrary.clock();
    const auto nextUs = mLedger.nextUs();
    const int64_t nowUs = tv::nowNs() / 1000;
    return nextUs && !clock.paused() ? clock.realTimeFor(*nextUs, nowUs) * 1000 : 0;
}

std::optional<int64_t> FramesUnderway::notHandedFromUs(tv::Tv& tv) const {
    const auto nextUs = mLedger.nextUs();
    if (!nextUs) {
        return std::nullopt;
    }
    // The library tells late which frame it has handed over; the tunnel knows.
    const auto inTunnel = tv.tunnel().record(mLibrary.tunnelId());
    return inTunnel.empty() ? *nextUs : std::max(*nextUs, inTunnel.back().mediaTimeUs + 1);
}

bool FramesUnderway::lastHasBeenShown(tv::Tv& tv) const {
    const auto record = tv.tunnel().record(mLibrary.tunnelId());
    if (record.empty()) {
        return true;
    }
    const auto& last = record.back();
    return last.fate == tv::BufferFate::Superseded ||
           (last.firstVsync.index >= 0 && tv::nowNs() >= last.firstVsync.timeNs + mFrameUs * 1000);
}

bool FramesUnderway::isLate(tv::Tv& tv, int64_t mediaTimeUs) const {
    const tv::SyncInstance& clock = *mLibrary.clock();
    const int64_t nowNs = tv::nowNs();
    const int64_t realUs = clock.realTimeFor(mediaTimeUs, nowNs / 1000);
    // Before the section shows frames, the clock is still to be anchored at its first one.
    return mLedger.sectionShows() && realUs >= 0 && !clock.paused() &&
           isTooLate(realUs, nowNs / 1000, tv.display().periodNsAt(nowNs));
}

void FramesUnderway::awaitFlush(int64_t beganNs) const {
    while (mLedger.inLibrary() > 0 && tv::nowNs() < beganNs + kFlushNs) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace korvane::player
