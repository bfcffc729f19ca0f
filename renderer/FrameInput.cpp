// SPDX-License-Identifier: Apache-2.0
// Leg 1, player's threads: frames come in and wait in the input queue.
//
// Beside it, the operations by which a player reaches the media-sync instance that this renderer is
// bound to.
#include "VideoTunnelRenderer.h"
#include "mediasync/VideoSyncWraper.h"
#include "platform/Trace.h"
#include "renderer/RendererLog.h"

using namespace korvane;

int VideoTunnelRenderer::sendVideoFrame(int fd, long timestampUs, bool peek) {
    // Frames are numbered only while somebody reads the numbers: they serve log lines alone.
    if (gRendererLog.has(kLogFrame)) {
        const int32_t count = ++mFrameInCount;
        RENDERER_LOGD(kLogFrame, "[%s] ==in== [%d] fd:%d, timestampUs:%ld\n", "sendVideoFrame",
                      count, fd, timestampUs);
    }
    if (mFlushed) {
        mFlushed = false;
        mAudioSynced = false;  // the first frame after a flush meets audio afresh
    }

    const std::lock_guard<std::mutex> guard(mInputLock);
    const size_t size =
        mVideoFrameInputQueue.pushBack({fd, timestampUs, mFrameInCount.load(), peek});
    RENDERER_LOGD(kLogFrame, "VideoFrameInputQueue.size():%d\n", static_cast<int>(size));
    mInputCond.notify_one();
    traceCounter(gRendererLog, "videoFrameNumTunnel", static_cast<int64_t>(size));
    return 1;
}

int VideoTunnelRenderer::peekFirstFrame() {
    if (mVideoFrameInputQueue.size() == 1) {
        const std::lock_guard<std::mutex> guard(mInputLock);
        mVideoFrameInputQueue.markFrontPeek();
    }
    return 1;
}

int VideoTunnelRenderer::onVideoSyncQueueVideoFrame(long timestampUs, unsigned int size) {
    VideoSyncWraper* sync = mVideoSync;
    return sync != nullptr && sync->queueVideoFrame(timestampUs, static_cast<int>(size), 0,
                                                    static_cast<mediasync_time_unit>(2))
               ? 1
               : 0;
}

bool VideoTunnelRenderer::updateVideoTime(long mediaTimeUs) {
    VideoSyncWraper* sync = mVideoSync;
    if (sync == nullptr) {
        return false;
    }
    mAnchorMediaTimeUs = mediaTimeUs;
    return sync->updateAnchor(mediaTimeUs, 0, 0);
}

bool VideoTunnelRenderer::getRealTimeFor(long mediaTimeUs, long* realTimeUs) {
    VideoSyncWraper* sync = mVideoSync;
    return sync != nullptr && sync->getRealTimeFor(mediaTimeUs, realTimeUs);
}

bool VideoTunnelRenderer::getTrackMediaTime(long* mediaTimeUs) {
    VideoSyncWraper* sync = mVideoSync;
    return sync != nullptr && sync->getTrackMediaTime(mediaTimeUs);
}

bool VideoTunnelRenderer::getStartingTimeMedia(long* mediaTimeUs) {
    VideoSyncWraper* sync = mVideoSync;
    return sync != nullptr && sync->getStartingTimeMedia(mediaTimeUs);
}
