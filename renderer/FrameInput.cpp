// SPDX-License-Identifier: Apache-2.0
// Step 1 of a frame's path, on the player's threads: frames enter the input queue.
#include <new>

#include "VideoTunnelRenderer.h"
#include "platform/Trace.h"
#include "renderer/RendererLog.h"

using namespace korvane;

int VideoTunnelRenderer::sendVideoFrame(int fd, long timestampUs, bool peek) {
    // Memory first: a frame without it is refused before anything has changed.
    std::unique_ptr<FrameEntry> entry(new (std::nothrow) FrameEntry);
    if (entry == nullptr) {
        RENDERER_LOGE("[%s] no memory, refused fd:%d, timestampUs:%ld\n", "sendVideoFrame", fd,
                      timestampUs);
        return 0;
    }
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
    entry->frame = {fd, timestampUs, mFrameInCount.load(), peek};
    const size_t size = mVideoFrameInputQueue.pushBack(std::move(entry));
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
