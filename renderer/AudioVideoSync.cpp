// SPDX-License-Identifier: Apache-2.0
// The audio/video stages of step 2, on the drain thread: keeps video in sync with audio.
//
// Audio plays elsewhere in the process against the same media-sync instance. The renderer only
// reads the instance: whether the clock is paused, audio's track time, who leads the clock, when a
// media time is due.
//
//   first frame   anchors the clock and pauses it until audio starts
//   every frame   waits while the clock has no anchor; restarts the cadence after a resume; is
//                 dropped while nobody leads the clock; waits while the audio clock stands still
//   underflow     audio paused and no frame queued: frames 15 ms or more behind audio are dropped
//                 until video has caught up, then on-time frames until one is early
//
// In pass-through mode the instance's policy (render, hold, drop, exit) decides instead.
#include <unistd.h>

#include "frac/VideoSyncFRAC.h"
#include "mediasync/VideoSyncWraper.h"
#include "platform/Clock.h"
#include "renderer/FrameDecision.h"
#include "renderer/FramePass.h"
#include "renderer/RendererLog.h"

using namespace korvane;

namespace {

constexpr useconds_t kAudioStartPollUs = 500;
constexpr useconds_t kAudioClockPollUs = 1000;

const char* policyLabel(int32_t policy) {
    return policy == MEDIASYNC_VIDEO_NORMAL_OUTPUT ? "rend"
           : policy == MEDIASYNC_VIDEO_DROP        ? "drop"
                                                   : "??";
}

}  // namespace

// The first frame anchors the shared clock at its time and pauses it until audio starts.
int VideoTunnelRenderer::syncWithAudio(videoframe* frame) {
    if (!mHaveAudio) {
        return 1;
    }
    anchorClock(frame->timestampUs == 0 ? 1 : frame->timestampUs);  // 0 means no anchor
    VideoSyncWraper* sync = requireVideoSync("syncWithAudio");
    if (sync != nullptr) {
        sync->setPause(true);
    }
    RENDERER_LOGD(kLogFrame, "[%s]wait audio start\n", "syncWithAudio");
    bool paused = true;
    while (mQueueRunning && paused) {
        if (mFlushed) {
            dropFrame(frame);
            return 1;
        }
        usleep(kAudioStartPollUs);
        paused = false;
        if (sync == nullptr || !sync->getPause(&paused)) {
            paused = false;  // do not wait for a clock that cannot be read
        }
    }
    RENDERER_LOGI(kLogInfo, "[%s]audio have started\n", "syncWithAudio");
    return 1;
}

VideoTunnelRenderer::Stage VideoTunnelRenderer::awaitAudioStart(FramePass* pass) {
    VideoSyncWraper* sync = mVideoSync;
    if (sync == nullptr) {
        return Stage::Continue;
    }
    videoframe* frame = pass->frame;
    sync->getRealTimeFor(frame->timestampUs, &pass->realTimeUs);
    if (pass->realTimeUs >= 0) {
        return Stage::Continue;
    }
    RENDERER_LOGI(kLogInfo, "[%s]wait audio start\n", "drainVideoFrame");
    if (mFirstSyncPtsUs != frame->timestampUs) {
        anchorClock(frame->timestampUs);
    }
    while (mQueueRunning && mHaveAudio && pass->realTimeUs < 0 && frame->timestampUs != 0) {
        if (mFlushed) {
            dropFrame(frame);
            return Stage::Consumed;
        }
        usleep(kAudioStartPollUs);
        long trackUs = 0;
        sync->getTrackMediaTime(&trackUs);
        sync->getRealTimeFor(frame->timestampUs, &pass->realTimeUs);
    }
    restartCadence(pass);
    return Stage::Continue;
}

// A new starting media time means that audio has resumed elsewhere: media time and vsyncs are
// related anew.
void VideoTunnelRenderer::checkResume(FramePass* pass) {
    VideoSyncWraper* sync = mVideoSync;
    long startingUs = -1;
    if (sync == nullptr || !sync->getStartingTimeMedia(&startingUs) || startingUs == -1 ||
        startingUs == mStartingTimeMediaUs) {
        return;
    }
    RENDERER_LOGD(kLogFrame, "[%s]resume need reset frac, from %ld to %ld\n", "drainVideoFrame",
                  mStartingTimeMediaUs, startingUs);
    restartCadence(pass);
    mStartingTimeMediaUs = startingUs;
}

// Media time and real time are related anew: resets the tracker and gives it a new vsync before its
// next frame.
void VideoTunnelRenderer::restartCadence(FramePass* pass) {
    if (VideoSyncFRAC* tracker = requireVideoSyncFRAC("drainVideoFrame")) {
        tracker->resetFRC();
    }
    queryDisplayVsync(pass);
    pass->refreshVsync = true;
}

VideoTunnelRenderer::Stage VideoTunnelRenderer::awaitAudioClock(FramePass* pass) {
    VideoSyncWraper* sync = mVideoSync;
    videoframe* frame = pass->frame;
    if (pass->syncMode == MEDIA_SYNC_VMASTER && mHaveAudio) {
        // Audio does not lead the clock yet: every frame is dropped and re-anchors the clock.
        RENDERER_LOGD(kLogDetail, "[%s]drop frame for sync audio:%ld\n", "drainVideoFrame",
                      frame->timestampUs);
        anchorClock(frame->timestampUs);
        dropFrame(frame);
        return Stage::Consumed;
    }
    if (sync != nullptr) {
        sync->getTrackMediaTime(&pass->trackUs);
    }
    while (mQueueRunning && mHaveAudio &&
           !audioClockMoves(pass->trackUs, {mAnchorMediaTimeUs, mPauseMediaTimeUs})) {
        if (mFlushed) {
            dropFrame(frame);
            return Stage::Consumed;
        }
        usleep(kAudioClockPollUs);
        RENDERER_LOGD(kLogDetail, "[%s]audio may mediatime have not updated, need wait\n",
                      "drainVideoFrame");
        if (sync != nullptr) {
            sync->getTrackMediaTime(&pass->trackUs);
            sync->getRealTimeFor(frame->timestampUs, &pass->realTimeUs);
        }
        restartCadence(pass);
        if (mUnderflow && catchUpAfterUnderflow(pass) == Stage::Consumed) {
            return Stage::Consumed;
        }
    }
    return Stage::Continue;
}

VideoTunnelRenderer::Stage VideoTunnelRenderer::catchUpAfterUnderflow(FramePass* pass) {
    videoframe* frame = pass->frame;
    const AudioClockMarks marks{mAnchorMediaTimeUs, mPauseMediaTimeUs};
    if (!mCatchUpDropping && audioClockMoves(pass->trackUs, marks)) {
        mCatchUpDropping = true;
        RENDERER_LOGD(kLogDetail, "[%s]audio update first pts after underflow\n",
                      "drainVideoFrame");
    }
    if (!mCatchUpPending) {
        return Stage::Continue;
    }
    if (!behindAudio(pass->trackUs, marks, frame->timestampUs)) {
        RENDERER_LOGD(kLogDetail, "[%s] video have catch up wih audio after underflow\n",
                      "drainVideoFrame");
        mCatchUpPending = false;
        return Stage::Continue;
    }
    if (!mCatchUpDropping) {
        return Stage::Continue;
    }
    RENDERER_LOGD(kLogDetail, "[%s]drop %ld to catch up audio after underflow\n", "drainVideoFrame",
                  frame->timestampUs);
    anchorClock(frame->timestampUs);
    if (VideoSyncFRAC* tracker = requireVideoSyncFRAC("drainVideoFrame")) {
        tracker->updateHWCVsyncInfo(pass->vsyncTimestampNs / 1000, mVsyncPeriodNs / 1000);
    }
    dropFrame(frame);
    return Stage::Consumed;
}

void VideoTunnelRenderer::anchorClock(int64_t mediaTimeUs) {
    if (VideoSyncWraper* sync = mVideoSync) {
        mAnchorMediaTimeUs = mediaTimeUs;
        sync->updateAnchor(mediaTimeUs, 0, 0);
    }
}

// Audio leads and is paused, and no frame is queued: an underflow. The queue is read without
// mInputLock: a frame that arrives now can at worst cause one underflow too many.
int VideoTunnelRenderer::checkPauseTrackMediaTime() {
    if (!mQueueRunning || !mHaveAudio) {
        return 1;
    }
    VideoSyncWraper* sync = requireVideoSync("checkPauseTrackMediaTime");
    auto mode = FramePass::kUnknownSyncMode;
    if (sync == nullptr || !sync->getSyncMode(&mode) || mode != MEDIA_SYNC_AMASTER) {
        return 1;
    }
    bool paused = false;
    sync->getPause(&paused);
    if (!paused) {
        return 1;
    }
    long trackUs = 0;
    sync->getTrackMediaTime(&trackUs);
    mPauseMediaTimeUs = trackUs;
    if (!mVideoFrameInputQueue.empty()) {
        return 1;
    }
    RENDERER_LOGD(kLogFrame, "video underflow!!!!!");
    mUnderflow = true;
    mCatchUpDropping = false;
    mCatchUpPending = true;
    return 1;
}

void VideoTunnelRenderer::onVideoSyncProcess(int64_t mediaTimeUs, bool* show, int /*unused*/,
                                             int64_t* realTimeUs) {
    mediasync_video_policy policy{};
    if (mVideoSyncExited) {
        RENDERER_LOGE("[%s] video mediasync has exited\n", "onVideoSyncProcess");
        return;
    }
    if (show == nullptr || realTimeUs == nullptr) {
        RENDERER_LOGE("[%s] Parameters error!\n", "onVideoSyncProcess");
        return;
    }
    if (mFreeRun != 0 || mParam9Extra != 0) {
        *show = true;  // at once: the policy's real time is 0
    } else if (VideoSyncWraper* sync = mVideoSync) {
        sync->VideoProcess(mediaTimeUs, mLastFrameMediaTimeUs, MEDIASYNC_UNIT_US, &policy);
        RENDERER_LOGD(kLogDetail, "[%s] mediaTimeUs:%ld videopolicy:%d\n", "onVideoSyncProcess",
                      mediaTimeUs, policy.videopolicy);
        switch (policy.videopolicy) {
            case MEDIASYNC_VIDEO_NORMAL_OUTPUT:
                *show = true;
                break;
            case MEDIASYNC_VIDEO_HOLD:
                holdFrame(mediaTimeUs);
                return;
            case MEDIASYNC_VIDEO_DROP:
                RENDERER_LOGI(kLogInfo, "MEDIASYNC_VIDEO_DROP mediaTimeUs:%ld\n", mediaTimeUs);
                *show = false;
                break;
            case MEDIASYNC_VIDEO_EXIT:
                RENDERER_LOGI(kLogInfo, "MEDIASYNC_VIDEO_EXIT mediaTimeUs:%ld\n", mediaTimeUs);
                mVideoSyncExited = true;
                return;
            default:
                break;  // no decision: the caller's flag stays
        }
    }

    *realTimeUs = policy.realtimeUs;
    const int64_t nowUs = monotonicNowUs();
    RENDERER_LOGD(kLogDetail, "(%s) mediaTimeUs:%ld(%ld) NowUsDiff:%ld us finalRealtimeUs:%ld\n",
                  policyLabel(policy.videopolicy), mediaTimeUs,
                  saturatingSub(mediaTimeUs, mLastSyncMediaTimeUs), nowUs - mLastSyncSystemTimeUs,
                  policy.realtimeUs);
    mVideoHolding = false;
    mVideoHoldCount = 0;
    mLastSyncMediaTimeUs = mediaTimeUs;
    mLastSyncSystemTimeUs = nowUs;
}

void VideoTunnelRenderer::holdFrame(int64_t mediaTimeUs) {
    mVideoHolding = true;
    ++mVideoHoldCount;
    if (reportsHold(mVideoHoldCount)) {
        RENDERER_LOGI(kLogInfo, "MEDIASYNC_VIDEO_HOLD mVideoHoldCount:%d mediaTimeUs:%ld \n",
                      mVideoHoldCount, mediaTimeUs);
    }
}
