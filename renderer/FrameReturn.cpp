// SPDX-License-Identifier: Apache-2.0
// Step 4 of a frame's path, on the fill thread: released buffers and render times go to the player.
//
// The fill thread polls: it takes one buffer from the tunnel, reports one render time, then sleeps
// 500 us. `returnFrame` hands every buffer back, shown, dropped or flushed, on any thread.
#include <unistd.h>

#include "VideoTunnelRenderer.h"
#include "platform/Clock.h"
#include "renderer/RendererLog.h"
#include "videotunnel/VideoTunnelWraper.h"

using namespace korvane;

namespace {

constexpr useconds_t kFillPollUs = 500;

}  // namespace

void* VideoTunnelRenderer::fillVideoFrameThread(void* renderer) {
    auto* self = static_cast<VideoTunnelRenderer*>(renderer);
    while (self->mFillRunning) {
        int fd = 0;
        if (self->getNeedFillVideoFrame(&fd)) {
            self->returnFrame(&fd, true);
        }
        self->nodifyRenderTime();
        usleep(kFillPollUs);
    }
    return nullptr;
}

int VideoTunnelRenderer::nodifyRenderTime() {
    VideoTunnelCallback callback = nullptr;
    void* userData = nullptr;
    const auto readCallback = [&] {
        const std::lock_guard<std::mutex> guard(mCallbackLock);
        callback = mRenderTimeCb;
        userData = mRenderTimeUserData;
    };
    readCallback();
    if (callback == nullptr) {
        return 1;
    }
    // Deliberate: the player is called under the lock; the drain thread waits for it meanwhile.
    const std::lock_guard<std::mutex> guard(mRenderTimeLock);
    FrameEntry* const oldest = mRenderTimeList.front();
    if (oldest == nullptr || usToNs(oldest->shown.renderTimeUs) >= monotonicNowNs()) {
        return 1;
    }
    // Read again: another callback may have been registered while this thread waited for the lock.
    readCallback();
    const int64_t mediaTimeUs = oldest->shown.mediaTimeUs;
    callback(userData, &oldest->shown);
    mRenderTimeList.popFront();
    RENDERER_LOGD(kLogDetail, "[%s] notify rendertime:%ld\n", "nodifyRenderTime", mediaTimeUs);
    return 1;
}

bool VideoTunnelRenderer::getNeedFillVideoFrame(int* fd) {
    VideoTunnelWraper* tunnel = mTunnel;
    return tunnel != nullptr && tunnel->dequeueBuffer(fd);
}

int VideoTunnelRenderer::onFillVideoFrame(int fd, bool rendered) {
    return returnFrame(&fd, rendered) == 0 ? 1 : 0;
}

int VideoTunnelRenderer::dropFrame(videoframe* frame) {
    RENDERER_LOGD(kLogFrame, "[%s] drop pts:%ld\n", "dropFrame", frame->timestampUs);
    returnFrame(&frame->fd, false);
    return 1;
}

// Each pair is read just before its call: a callback of type 0 may register one of type 2. It may
// also write another descriptor; type 2 and the log then report that one.
int VideoTunnelRenderer::returnFrame(int32_t* fd, bool rendered) {
    VideoTunnelCallback callback = nullptr;
    void* userData = nullptr;
    int result = -1;
    {
        const std::lock_guard<std::mutex> guard(mCallbackLock);
        callback = mFrameReturnCb;
        userData = mFrameReturnUserData;
    }
    if (callback != nullptr) {
        result = callback(userData, fd);
    }
    {
        const std::lock_guard<std::mutex> guard(mCallbackLock);
        callback = mFrameStatusCb;
        userData = mFrameStatusUserData;
    }
    if (callback != nullptr) {
        framestatus status{*fd, static_cast<uint8_t>(rendered ? 1 : 0), {}};
        result = callback(userData, &status);
    }
    if (result == 0) {
        const int32_t returned = ++mFrameOutCount;
        RENDERER_LOGD(kLogDetail, "[%s]==out== [%d], fd:%d, inRenderer[%d]\n", "onFillVideoFrame",
                      returned, *fd, mFrameInCount - returned);
    }
    return result;
}
