// SPDX-License-Identifier: Apache-2.0
#include "player/playback/LibraryCalls.h"

#include <stdexcept>

namespace korvane::player {
namespace {

/// Frame rates that the renderer takes, in hundredths.
constexpr int kLowestRate = 1;
constexpr int kHighestRate = 6000;
/// Far more than the 40 ms after which pass-through drops a frame as late.
constexpr int64_t kLongPastUs = 1'000'000;
/// In pass-through pictures wait this long for audio to take the clock after a flush.
constexpr int64_t kAudioWaitUs = 1'000'000;

}  // namespace

void LibraryCalls::create(tv::Tv& tv) {
    if (!mClock) {
        mClock = tv.mediaSync().create();
    }
    mRenderer.reset();
    mRenderer.reset(VideoTunnelRenderer_create());
    if (!mRenderer) {
        throw std::runtime_error(
            "the library gives no renderer: VideoTunnelRenderer_create returned null; see the log "
            "with --log 1");
    }
    const bool bindClock = mPlan.withAudio || mPlan.passthrough;
    mRenderer->init((bindClock ? mClock->id() : 0) | (mPlan.passthrough ? kPassthroughInit : 0));
    if (!bindClock) {
        // Without audio the library creates an instance of its own; it is the newest one.
        mClock = tv.mediaSync().instances().back();
    }
    if (mPlan.prepareClock) {
        mPlan.prepareClock(mClock);
    }
    mCallbacks.attach(mRenderer.get(), mClock);
    mTunnelId = mRenderer->getTunnelId();
    if (mTunnelId < 0) {
        throw std::runtime_error("the TV gives no video tunnel; see the log with --log 1");
    }
    if (mPlan.toldFrameRate && *mPlan.toldFrameRate >= kLowestRate &&
        *mPlan.toldFrameRate <= kHighestRate) {
        mRenderer->setFrameRate(*mPlan.toldFrameRate);
    }
}

void LibraryCalls::stop() {
    if (mRenderer) {
        mRenderer->stop();
    }
}

void LibraryCalls::anchor(int64_t mediaTimeUs) {
    if (!mPlan.withAudio || mPlan.passthrough) {
        mRenderer->updateVideoTime(mediaTimeUs - (mPlan.withAudio ? kAudioWaitUs : 0));
    }
}

void LibraryCalls::send(const LibraryFrame& frame) {
    if (mPlan.passthrough) {
        mRenderer->onVideoSyncQueueVideoFrame(frame.mediaTimeUs,
                                              static_cast<unsigned>(frame.bytes));
    }
    const bool peek = frame.first && mPlan.peek == Peek::Marked;
    if (mRenderer->sendVideoFrame(frame.fd, frame.mediaTimeUs, peek) != 1) {
        throw std::runtime_error("the library has no memory for a frame");
    }
    if (frame.first && mPlan.peek == Peek::Called) {
        mRenderer->peekFirstFrame();
    }
    mCallbacks.frameSent();
}

void LibraryCalls::showLonePicture() {
    if (mPlan.withAudio && !mPlan.passthrough) {
        mRenderer->peekFirstFrame();
    }
}

void LibraryCalls::flush(int64_t lastSentUs) {
    mCallbacks.flush(mRenderer.get());
    if (mPlan.passthrough) {
        // A flush does not end the hold of a frame; only a clock far past its time does.
        mRenderer->updateVideoTime(lastSentUs + kLongPastUs);
    }
}

}  // namespace korvane::player
