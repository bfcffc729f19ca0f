// SPDX-License-Identifier: Apache-2.0
// Step 3 of a frame's path, on the drain thread: wait until shortly before the frame is due, then
// queue its buffer to the tunnel.
//
// A stop or flush ends the wait early, and the frame goes back to the player instead. Each frame
// shown gets an entry that the fill thread reports to the player once its time has passed.
#include <chrono>

#include "VideoTunnelRenderer.h"
#include "platform/Clock.h"
#include "platform/Trace.h"
#include "renderer/RendererLog.h"
#include "videotunnel/VideoTunnelWraper.h"

using namespace korvane;

int VideoTunnelRenderer::waitShowTime(int64_t waitUs) {
    using std::chrono::nanoseconds;
    using std::chrono::steady_clock;
    RENDERER_LOGD(kLogFrame, "[%s] %ld\n", "waitShowTime", waitUs);
    const TraceSection section("waitShowTime");
    std::unique_lock<std::mutex> lock(mShowLock);
    const int64_t nowNs =
        std::chrono::duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count();
    const steady_clock::time_point deadline(nanoseconds(saturatingAdd(nowNs, usToNs(waitUs))));
    mShowCond.wait_until(lock, deadline, [this] { return !mQueueRunning || mFlushed; });
    return 1;
}

int VideoTunnelRenderer::showFrame(videoframe* frame, int64_t presentationTimeUs) {
    RENDERER_LOGD(kLogDetail, "[%s]\n", "showFrame");
    const TraceSection section("showFrame");
    if (mFlushed || !mQueueRunning) {
        RENDERER_LOGD(kLogFrame, "[%s]do not show, need return frame\n", "showFrame");
        returnFrame(&frame->fd, true);
        return 1;
    }
    // A buffer that the tunnel refuses never comes back to the player: the tunnel client does not
    // report the refusal, so the frame counts as shown.
    if (VideoTunnelWraper* tunnel = mTunnel) {
        tunnel->queueBuffer(frame->fd, presentationTimeUs);
    }
    // For a peek frame the caller holds mRenderTimeLock and adds the entry.
    if (!frame->peek) {
        const std::lock_guard<std::mutex> guard(mRenderTimeLock);
        reportRenderTime({frame->timestampUs, presentationTimeUs});
    }
    return 1;
}

void VideoTunnelRenderer::reportRenderTime(const rendertime& shown) {
    mFrameInHand->shown = shown;
    mRenderTimeList.pushBack(std::move(mFrameInHand));
}
