// SPDX-License-Identifier: Apache-2.0
#include "player/playback/ScreenFeed.h"

#include <algorithm>
#include <new>

#include "player/media/Ffmpeg.h"

namespace korvane::player {

void ScreenFeed::keep(int buffer, int64_t frameNo, const AVFrame* picture) {
    Kept kept{frameNo, nullptr};
    if (picture != nullptr) {
        kept.picture = FramePtr(av_frame_clone(picture));
        if (!kept.picture) {
            throw std::bad_alloc();
        }
    }
    const std::lock_guard<std::mutex> guard(mLock);
    std::swap(mKept.at(static_cast<size_t>(buffer)), kept);
}

std::shared_ptr<const AVFrame> ScreenFeed::pictureOf(int64_t frameNo) const {
    const std::lock_guard<std::mutex> guard(mLock);
    const auto found = std::find_if(mKept.begin(), mKept.end(), [frameNo](const Kept& kept) {
        return kept.frameNo == frameNo;
    });
    return found != mKept.end() ? found->picture : nullptr;
}

void ScreenFeed::see(const tv::Vsync& vsync, const std::optional<tv::BufferRecord>& onScreen,
                     const tv::SoundRecord& sound) {
    ScreenMoment moment;
    moment.vsync = vsync;
    moment.playedUs = (vsync.timeNs - mStartNs) / 1000;
    if (onScreen && onScreen->frameNo >= 0) {
        moment.frameNo = onScreen->frameNo;
        moment.mediaTimeUs = onScreen->mediaTimeUs;
        moment.dwell = onScreen->dwellVsyncs;
        if (const auto clockUs = mLedger.clockRealUs(moment.frameNo)) {
            moment.offsetUs = onScreen->firstVsync.timeNs / 1000 - *clockUs;
        }
        moment.picture = pictureOf(moment.frameNo);
    }
    for (auto* listener : mListeners) {
        listener->onVsync(moment, sound);
    }
}

void ScreenFeed::end(const tv::SoundRecord& sound) {
    for (auto* listener : mListeners) {
        listener->onScreenEnd(sound);
    }
}

}  // namespace korvane::player
