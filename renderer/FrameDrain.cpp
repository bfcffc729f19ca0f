// SPDX-License-Identifier: Apache-2.0
// Step 2 of a frame's path, on the drain thread: take one frame from the input queue and decide
// about it.
//
// Normal mode: the first frame (shown at once as a peek frame, or synchronised with audio), the
// audio stages (AudioVideoSync.cpp), a query of the display's vsync every tenth frame, the
// corrected time from the cadence tracker, then wait, show or drop (FrameDecision.h). Pass-through
// mode: the media-sync instance decides. Every frame taken is either queued to the tunnel or
// returned to the player.
#include <sched.h>
#include <unistd.h>

#include <chrono>

#include "display/DisplayAdapterWraper.h"
#include "frac/VideoSyncFRAC.h"
#include "mediasync/VideoSyncWraper.h"
#include "platform/Clock.h"
#include "platform/Trace.h"
#include "renderer/FrameDecision.h"
#include "renderer/FramePass.h"
#include "renderer/RendererLog.h"
#include "videotunnel/VideoTunnelWraper.h"

using namespace korvane;

namespace {

// High enough to queue frames two vsyncs ahead on a loaded TV.
constexpr int kDrainThreadPriority = 50;
constexpr useconds_t kIdlePollUs = 2000;
constexpr useconds_t kHoldPollUs = 5000;
// The longest time for which an underflow goes unnoticed while no frame comes.
constexpr std::chrono::milliseconds kInputWait(100);

constexpr int32_t kFramesPerVsyncQuery = 10;
// The detectors in use: [3:2], [2:2] and [1:1].
constexpr int kUsedPatterns = 11;
// The first frames after the start are often late, so they are not reported.
constexpr int32_t kFirstFrameNoToReport = 21;

}  // namespace

void* VideoTunnelRenderer::drainVideoFrameThread(void* renderer) {
    auto* self = static_cast<VideoTunnelRenderer*>(renderer);
    sched_param parameters{};
    parameters.sched_priority = kDrainThreadPriority;
    if (sched_setscheduler(0, SCHED_FIFO, &parameters) != 0) {
        RENDERER_LOGE("Couldn't set SCHED_FIFO for drainVideoFrameThread");
    }

    while (self->mQueueRunning) {
        videoframe frame{};
        self->checkPauseTrackMediaTime();
        // With audio, the first frame waits for a second one, unless it is a peek frame.
        if (!self->mAudioSynced && self->mHaveAudio && self->mVideoFrameInputQueue.size() <= 1) {
            self->firstFrameVpeekCheck();
            usleep(kIdlePollUs);
            continue;
        }
        if (!self->getNeedShowVideoFrame(&frame)) {
            usleep(kIdlePollUs);
            continue;
        }
        if (self->mTunerPassthrough) {
            self->drainPassthroughFrame(&frame);
        } else {
            self->drainVideoFrame(&frame);
        }
    }
    return nullptr;
}

bool VideoTunnelRenderer::getNeedShowVideoFrame(videoframe* frame) {
    RENDERER_LOGD(kLogDetail, "[%s:%d] VideoFrameInputQueue.size():%d\n", "getNeedShowVideoFrame",
                  826, static_cast<int>(mVideoFrameInputQueue.size()));
    std::unique_lock<std::mutex> lock(mInputLock);
    if (mFirstFrameQueued) {
        // One wait, not a loop: the caller checks for an underflow between waits. A stop may have
        // notified before this thread took the lock, so the flag is checked first.
        if (mVideoFrameInputQueue.empty() && mQueueRunning) {
            const auto start = std::chrono::steady_clock::now();
            mInputCond.wait_for(lock, kInputWait);
            if (std::chrono::steady_clock::now() - start >= kInputWait) {
                RENDERER_LOGD(kLogDetail, "[%s:%d] wait for input frame timeout\n",
                              "getNeedShowVideoFrame", 830);
            }
        }
    } else {
        while (mVideoFrameInputQueue.empty() && mQueueRunning) {
            mInputCond.wait(lock);
        }
    }
    if (!takeInHand(mVideoFrameInputQueue.popFront(), frame)) {
        return false;
    }
    const auto size = static_cast<int64_t>(mVideoFrameInputQueue.size());
    lock.unlock();

    traceCounter(gRendererLog, "videoFrameNumTunnel", size);
    RENDERER_LOGD(kLogDetail, "[%s]fd:%d, timestampUs:%ld\n", "getNeedShowVideoFrame", frame->fd,
                  frame->timestampUs);
    traceCounter(gRendererLog, "getShowFramePtsTunnel", frame->timestampUs);
    return true;
}

// The frame is copied: once the entry is in the list of render times, the fill thread may free it.
bool VideoTunnelRenderer::takeInHand(std::unique_ptr<FrameEntry> entry, videoframe* frame) {
    if (entry == nullptr) {
        return false;
    }
    *frame = entry->frame;
    mFrameInHand = std::move(entry);
    return true;
}

// Shows a peek frame that is alone in the queue before audio starts, so that the screen is not
// black meanwhile; only one until the next flush. Deliberate: the frame is shown under both locks,
// so if it is returned instead, the player's callbacks run under them.
int VideoTunnelRenderer::firstFrameVpeekCheck() {
    if (mVideoFrameInputQueue.size() != 1 || mFirstFramePeeked) {
        return 1;
    }
    const std::lock_guard<std::mutex> inputGuard(mInputLock);
    videoframe frame{};
    if (takeInHand(mVideoFrameInputQueue.popFrontPeek(), &frame)) {
        const std::lock_guard<std::mutex> renderTimeGuard(mRenderTimeLock);
        showPeekFrame(&frame);
        // Before the lock is released: the frame's render-time callback may flush, which clears it.
        mFirstFramePeeked = true;
    }
    return 1;
}

// Deliberate: here the tunnel gets nanoseconds although it expects microseconds.
void VideoTunnelRenderer::showPeekFrame(videoframe* frame) {
    showFrame(frame, monotonicNowNs());
    reportRenderTime({frame->timestampUs, monotonicNowUs()});
}

int VideoTunnelRenderer::drainVideoFrame(videoframe* frame) {
    if (!mAudioSynced && mHaveAudio) {
        if (!mFirstFramePeeked && frame->peek) {
            const std::lock_guard<std::mutex> guard(mRenderTimeLock);
            showPeekFrame(frame);
            return 1;
        }
        // Deliberate: a frame that syncWithAudio dropped because of a flush goes on nevertheless.
        syncWithAudio(frame);
        mAudioSynced = true;
        mFirstFrameQueued = true;
        mFirstSyncPtsUs = frame->timestampUs;
    }

    FramePass pass{frame};
    if (awaitAudioStart(&pass) == Stage::Consumed) {
        return 1;
    }
    checkResume(&pass);
    VideoSyncWraper* sync = requireVideoSync("drainVideoFrame");
    if (sync != nullptr && sync->getSyncMode(&pass.syncMode)) {
        RENDERER_LOGD(kLogDetail, "[%s]mHaveAudio:%d\n", "drainVideoFrame", mHaveAudio ? 1 : 0);
        if (awaitAudioClock(&pass) == Stage::Consumed) {
            return 1;
        }
        if (pass.syncMode == MEDIA_SYNC_AMASTER) {
            if (VideoSyncFRAC* tracker = requireVideoSyncFRAC("drainVideoFrame")) {
                tracker->setEnablePattern(kUsedPatterns);
            }
        }
        const int32_t count = ++mVsyncQueryCount;
        if (count % kFramesPerVsyncQuery == 1) {
            queryDisplayVsync(&pass);
            // Deliberate: never true here, since 10000 leaves 0; the count keeps rising.
            if (count == 10000) {
                mVsyncQueryCount = 0;
            }
            pass.refreshVsync = true;
        }
    }
    presentFrame(&pass);
    return 1;
}

// Asks the tunnel, then the display adapter, for the display's last vsync and period. Ignores what
// a failed query wrote, and a period below 1, because periods are divisors.
void VideoTunnelRenderer::queryDisplayVsync(FramePass* pass) {
    long timestampNs = pass->vsyncTimestampNs;
    int periodNs = mVsyncPeriodNs;
    VideoTunnelWraper* tunnel = mTunnel;
    if (tunnel == nullptr || !tunnel->getDisplayVsyncAndPeriod(&timestampNs, &periodNs)) {
        timestampNs = pass->vsyncTimestampNs;
        periodNs = mVsyncPeriodNs;
        if (DisplayAdapterWraper* adapter = requireDisplayAdapter("drainVideoFrame")) {
            adapter->getDisplayVsyncAndPeriod(&timestampNs, &periodNs);
        }
    }
    if (periodNs > 0) {
        pass->vsyncTimestampNs = timestampNs;
        mVsyncPeriodNs = periodNs;
    }
}

void VideoTunnelRenderer::logFrameTiming(const FramePass& pass) {
    RENDERER_LOGD(kLogFrame,
                  "[%s]frameNo:%d mediatimeus:%ld nowUs:%ld, realTimeUs:%ld, finalrealtime:%ld, "
                  "diff=%ld\n",
                  "drainVideoFrame", pass.frame->frameNo, pass.frame->timestampUs, pass.nowUs,
                  pass.realTimeUs, pass.finalRealTimeUs, pass.earlyUs());
}

void VideoTunnelRenderer::presentFrame(FramePass* pass) {
    const TraceSection section("drainVideoFrame");
    correctRealTime(pass);
    pass->nowUs = monotonicNowUs();
    const FrameDecision decision = decideFrame(pass->finalRealTimeUs, pass->nowUs, mVsyncPeriodNs);
    switch (decision.verdict) {
        case FrameVerdict::WaitThenShow:
            showEarlyFrame(pass, decision.waitUs);
            break;
        case FrameVerdict::Drop:
            dropLateFrame(pass);
            break;
        case FrameVerdict::ShowNow:
            showDueFrame(pass, decision.earlyUs);
            break;
    }
}

void VideoTunnelRenderer::correctRealTime(FramePass* pass) {
    const int32_t periodNs = mVsyncPeriodNs;
    long trackerUs = 0;
    if (VideoSyncFRAC* tracker = requireVideoSyncFRAC("drainVideoFrame")) {
        if (pass->refreshVsync) {
            tracker->updateHWCVsyncInfo(pass->vsyncTimestampNs / 1000, periodNs / 1000);
        }
        tracker->getRealTime(pass->frame->timestampUs, pass->realTimeUs, pass->frame->frameNo,
                             &trackerUs);
    }
    pass->finalRealTimeUs = usableRealTimeUs(trackerUs, pass->realTimeUs, periodNs);
}

// A stop or flush may end the wait early; showFrame then hands the buffer back.
void VideoTunnelRenderer::showEarlyFrame(FramePass* pass, int64_t waitUs) {
    mUnderflow = false;
    waitShowTime(waitUs);
    pass->nowUs = monotonicNowUs();
    logFrameTiming(*pass);
    traceCounter(gRendererLog, "queueDiffNowMsTunnel", pass->earlyUs() / 1000);
    showFrame(pass->frame, pass->finalRealTimeUs);
    traceCounter(gRendererLog, "dropPtsTunnel", 0);
}

void VideoTunnelRenderer::dropLateFrame(FramePass* pass) {
    videoframe* frame = pass->frame;
    RENDERER_LOGD(kLogFrame,
                  "[%s]drop = frameNo:%d mediatimeus:%ld nowUs:%ld, realTimeUs:%ld, "
                  "finalrealtime:%ld, diff=%ld\n",
                  "drainVideoFrame", frame->frameNo, frame->timestampUs, pass->nowUs,
                  pass->realTimeUs, pass->finalRealTimeUs, pass->earlyUs());
    dropFrame(frame);
    if (frame->frameNo >= kFirstFrameNoToReport) {
        traceCounter(gRendererLog, "dropPtsTunnel", frame->timestampUs);
        RENDERER_LOGD(kLogFrame, "[%s]need catch drop pts:%ld\n", "drainVideoFrame",
                      frame->timestampUs);
    }
    traceCounter(gRendererLog, "queueDiffNowMsTunnel", 0);
}

// After an underflow an on-time frame is dropped: only an early one shows that video is ahead of
// audio again.
void VideoTunnelRenderer::showDueFrame(FramePass* pass, int64_t earlyUs) {
    videoframe* frame = pass->frame;
    logFrameTiming(*pass);
    if (mUnderflow) {
        dropFrame(frame);
    } else {
        showFrame(frame, pass->finalRealTimeUs);
    }
    if (earlyUs < mVsyncPeriodNs / 1000) {
        RENDERER_LOGD(kLogFrame, "[%s]may occur drop pts:%ld\n", "drainVideoFrame",
                      frame->timestampUs);
        if (frame->frameNo >= kFirstFrameNoToReport) {
            traceCounter(gRendererLog, "dropPtsTunnel", frame->timestampUs);
            RENDERER_LOGD(kLogFrame, "[%s]may need catch drop pts:%ld\n", "drainVideoFrame",
                          frame->timestampUs);
        }
    }
    traceCounter(gRendererLog, "queueDiffNowMsTunnel", earlyUs > 0 ? earlyUs / 1000 : 0);
}

// In pass-through mode the media-sync instance decides; while it holds the frame, it is asked
// again.
void VideoTunnelRenderer::drainPassthroughFrame(videoframe* frame) {
    bool show = true;
    int64_t realTimeUs = 0;
    do {
        onVideoSyncProcess(frame->timestampUs, &show, 0, &realTimeUs);
        if (!mVideoHolding) {
            break;
        }
        usleep(kHoldPollUs);
    } while (!mVideoSyncExited && mQueueRunning);

    if (show) {
        showFrame(frame, realTimeUs);
    } else {
        dropFrame(frame);
    }
    mLastFrameMediaTimeUs = frame->timestampUs;
}
