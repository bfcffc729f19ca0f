// SPDX-License-Identifier: Apache-2.0
// Step 1 of a frame's path, on the player's threads: frames enter the input queue.
#include "VideoTunnelRenderer.h"
#include "platform/Trace.h"
#include "renderer/RendererLog.h"

using namespace korvane;

int VideoTunnelRenderer::sendVideoFrame(int fd, long timestampUs, bool peek) {
    // Frames are numbered only while this log bit is on: only log lines use the numbers.
    if (gRendererLog.has(kLogFrame)) {
        const int32_t count = ++mFrameInCount;
        RENDERER_LOGD(kLogFrame, "[%s] ==in== [%d] fd:%d, timestampUs:%ld\n", "sendVideoFrame",
                      count, fd, timestampUs);
    }
    if (mFlushed) {
        mFlushed = false;
        mAudioSynced = false;  // the first frame after a flush waits for audio again
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
