// SPDX-License-Identifier: Apache-2.0
// The renderer's lifecycle: create, bind to a media-sync instance, start, flush, stop, delete.
//
//   created --init--> initialised --start--> running --stop--> stopped --start--> running ...
//
// All operations here run on the player's threads. Two worker threads run between `start` and
// `stop`: the drain thread (FrameDrain.cpp) and the fill thread (FrameReturn.cpp). A frame's path,
// one file per step: FrameInput.cpp, FrameDrain.cpp with the decisions of AudioVideoSync.cpp,
// FrameShow.cpp, FrameReturn.cpp.
#include "VideoTunnelRenderer.h"

#include <cstddef>
#include <new>

#include "display/DisplayAdapterWraper.h"
#include "frac/VideoSyncFRAC.h"
#include "mediasync/VideoSyncWraper.h"
#include "renderer/RendererLog.h"
#include "videotunnel/VideoTunnelWraper.h"

namespace korvane {

LogMask gRendererLog;

namespace {

constexpr char kFreeRunProperty[] = "vendor.tunerpassthrough.renderfreeRun";

// The player's `hwSyncId`: the upper half selects the mode, the lower half is the id.
constexpr uint32_t kModeMask = 0xffff0000;
constexpr uint32_t kPassthroughMode = 0x00010000;
constexpr int kPlayerNumberMask = 0xff;

constexpr int32_t kPeriod60HzNs = 16666666;

// Bits of mMissingReported.
constexpr uint32_t kMissingVideoSync = 0x1;
constexpr uint32_t kMissingVideoSyncFRAC = 0x2;
constexpr uint32_t kMissingDisplayAdapter = 0x4;

}  // namespace
}  // namespace korvane

using namespace korvane;

VideoTunnelRenderer* VideoTunnelRenderer_create() {
    return new (std::nothrow) VideoTunnelRenderer;
}

VideoTunnelRenderer::VideoTunnelRenderer() {
    if (readIntProperty(kFreeRunProperty, &mFreeRun)) {
        RENDERER_LOGI(kLogInfo, "%s set = %d\n", kFreeRunProperty, mFreeRun);
    } else {
        RENDERER_LOGI(kLogInfo, "%s is not set used def = %d\n", kFreeRunProperty, mFreeRun);
    }
    refreshLogMask(gRendererLog, kRendererTag);
    mTunnel = new (std::nothrow) VideoTunnelWraper;
    RENDERER_LOGI(kLogInfo, "[%s] mFreeRun:%d mVideoSyncMode:%d\n", "VideoTunnelRenderer", mFreeRun,
                  mVideoSyncMode);
}

VideoTunnelRenderer::~VideoTunnelRenderer() {
    RENDERER_LOGI(kLogInfo, "[%s]\n", "~VideoTunnelRenderer");
    if (mQueueRunning) {
        RENDERER_LOGE("[%s] deleted while running, stopping first\n", "~VideoTunnelRenderer");
        VideoTunnelRenderer::stop();
    }
    delete mTunnel.load();
    delete mVideoSync.load();
    delete mVideoSyncFRAC.load();
    delete mDisplayAdapter.load();
}

int VideoTunnelRenderer::init(int hwSyncId) {
    const auto bits = static_cast<uint32_t>(hwSyncId);
    mTunerPassthrough = (bits & kModeMask) == kPassthroughMode;
    mHwSyncId = mTunerPassthrough ? static_cast<int32_t>(bits & ~kPassthroughMode) : hwSyncId;
    RENDERER_LOGI(kLogInfo, "[%s]mHwSyncId:0x%x tunerpassthrough:%d\n", "init",
                  static_cast<unsigned>(mHwSyncId), mTunerPassthrough ? 1 : 0);

    // A second call does not reset: it creates new objects and does not free the old ones, because
    // a running drain thread may be using them.
    bindSyncInstance();
    mVideoSyncFRAC = new (std::nothrow) VideoSyncFRAC;
    mDisplayAdapter = new (std::nothrow) DisplayAdapterWraper;
    requireVideoSync("init");
    requireVideoSyncFRAC("init");
    requireDisplayAdapter("init");
    mVsyncQueryCount = 0;
    mVsyncPeriodNs = kPeriod60HzNs;
    return 1;
}

// The worker threads see the object only once it is bound; without memory they see none.
void VideoTunnelRenderer::bindSyncInstance() {
    std::unique_ptr<VideoSyncWraper> sync(new (std::nothrow) VideoSyncWraper);
    if (sync == nullptr || !sync->hasClient()) {
        return;
    }
    if (mTunerPassthrough) {
        sync->setPlayerInsNumber(mHwSyncId & kPlayerNumberMask);
        sync->setParameter(MEDIASYNC_KEY_VIDEOSYNCMODE, &mVideoSyncMode);
    }

    bool bound = false;
    if (mHwSyncId > 0) {
        if (!mTunerPassthrough) {
            mHaveAudio = true;  // stays set even if binding fails
        }
        bound = sync->bindInstance(static_cast<unsigned>(mHwSyncId), MEDIA_VIDEO);
        if (!bound) {
            RENDERER_LOGI(kLogInfo,
                          "[%s] alloc mediasync instance should error in audio, create in video",
                          "init");
        }
    }
    if (!bound) {
        int syncId = -1;
        sync->getSyncId(&syncId);
        sync->bindInstance(static_cast<unsigned>(syncId), MEDIA_VIDEO);
    }

    if (mTunerPassthrough) {
        configurePassthrough(*sync);
    } else {
        sync->setSyncMode(MEDIA_SYNC_VMASTER);
    }
    mVideoSync = sync.release();
}

void VideoTunnelRenderer::configurePassthrough(VideoSyncWraper& sync) {
    sync.setSyncMode(MEDIA_SYNC_PCRMASTER);
    sync.setParameter(MEDIASYNC_KEY_PARAM7, &mParam7Value);
    sync.setParameter(MEDIASYNC_KEY_PARAM9, &mParam9Value);
    mVideoHolding = false;
    mVideoSyncExited = false;
}

int VideoTunnelRenderer::getTunnelId() {
    VideoTunnelWraper* tunnel = mTunnel;
    if (tunnel == nullptr) {
        RENDERER_LOGE("[%s] mTunnel is null!\n", "getTunnelId");
        return -1;
    }
    if (mTunnelId < 0) {
        mTunnelId = tunnel->allocTunnelId();
    }
    RENDERER_LOGI(kLogInfo, "[%s] mTunnelId:%d\n", "getTunnelId", mTunnelId);
    return mTunnelId;
}

int VideoTunnelRenderer::start() {
    RENDERER_LOGI(kLogInfo, "[%s]\n", "start");
    if (mQueueRunning) {
        RENDERER_LOGI(kLogInfo, "[%s]have started\n", "start");
        return 1;
    }
    mQueueRunning = true;
    mFillRunning = true;
    mAudioSynced = false;
    if (VideoTunnelWraper* tunnel = mTunnel) {
        tunnel->connect();
    }
    startDrainVideo();
    startFillVideo();
    return 1;
}

// If a thread cannot be created, the renderer runs without it: frames then stay in the queue, or in
// the tunnel, until `stop`.
int VideoTunnelRenderer::startDrainVideo() {
    mDrainThreadCreated = pthread_create(&mDrainThread, nullptr, drainVideoFrameThread, this) == 0;
    return 1;
}

int VideoTunnelRenderer::startFillVideo() {
    mFillThreadCreated = pthread_create(&mFillThread, nullptr, fillVideoFrameThread, this) == 0;
    return 1;
}

// The order is part of the contract: take no new frames, end every wait of the drain thread, join
// the threads, release the tunnel.
int VideoTunnelRenderer::stop() {
    RENDERER_LOGI(kLogInfo, "[%s:%d]\n", "stop", 233);
    {
        const std::lock_guard<std::mutex> guard(mInputLock);
        if (!mQueueRunning) {
            return 1;
        }
        mQueueRunning = false;
        mVideoFrameInputQueue.clear();
        mInputCond.notify_all();
    }
    {
        const std::lock_guard<std::mutex> guard(mShowLock);
        mShowCond.notify_all();
    }
    {
        const std::lock_guard<std::mutex> guard(mRenderTimeLock);
        mRenderTimeList.clear();
    }
    mFillRunning = false;
    if (mDrainThreadCreated) {
        pthread_join(mDrainThread, nullptr);
        mDrainThreadCreated = false;
    }
    if (mFillThreadCreated) {
        pthread_join(mFillThread, nullptr);
        mFillThreadCreated = false;
    }
    if (VideoTunnelWraper* tunnel = mTunnel) {
        tunnel->disconnect();
        tunnel->freeTunnelId();  // mTunnelId stays, so a later getTunnelId returns it again
    }
    mLastSyncMediaTimeUs = -1;
    mLastFrameMediaTimeUs = -1;
    RENDERER_LOGI(kLogInfo, "[%s:%d]\n", "stop", 261);
    return 1;
}

// Deliberately takes neither mInputLock nor mShowLock, so that it never waits for a drain thread
// that shows a peek frame under a lock. The queue has its own lock. A wait that is just beginning
// can miss the notification and then times out: within 100 ms on the input queue, at its frame's
// time in `waitShowTime`. In pass-through mode the sync mode stays 0 afterwards.
int VideoTunnelRenderer::flush() {
    RENDERER_LOGI(kLogInfo, "[%s]\n", "flush");
    RENDERER_LOGI(kLogInfo, "[%s]mQueueRunning:%d mVideoFrameInputQueue.size():%d\n", "flush",
                  mQueueRunning ? 1 : 0, static_cast<int>(mVideoFrameInputQueue.size()));
    if (!mQueueRunning) {
        return 1;
    }
    while (const auto entry = mVideoFrameInputQueue.popFront()) {
        returnFrame(&entry->frame.fd, false);
        RENDERER_LOGD(kLogFrame, "[%s]queue:%d\n", "flush",
                      static_cast<int>(mVideoFrameInputQueue.size()));
    }
    mFlushed = true;
    mInputCond.notify_all();
    mShowCond.notify_all();
    if (VideoSyncWraper* sync = requireVideoSync("flush")) {
        sync->setSyncMode(MEDIA_SYNC_VMASTER);
        anchorClock(0);
    }
    mFirstFramePeeked = false;
    return 1;
}

int VideoTunnelRenderer::regCallBack(int type, VideoTunnelCallback callback, void* userData) {
    if (type > kFrameStatusCallback || callback == nullptr) {
        return -1;
    }
    const std::lock_guard<std::mutex> guard(mCallbackLock);
    switch (type) {
        case kFrameReturnCallback:
            mFrameReturnCb = callback;
            mFrameReturnUserData = userData;
            break;
        case kRenderTimeCallback:
            mRenderTimeCb = callback;
            mRenderTimeUserData = userData;
            break;
        case kFrameStatusCallback:
            mFrameStatusCb = callback;
            mFrameStatusUserData = userData;
            break;
        default:
            break;  // a negative type is accepted and ignored
    }
    return 0;
}

int VideoTunnelRenderer::setFrameRate(int frameRate) {
    VideoSyncFRAC* tracker = mVideoSyncFRAC;
    return tracker == nullptr ? 1 : static_cast<int>(tracker->setFrameRate(frameRate));
}

VideoSyncWraper* VideoTunnelRenderer::requireVideoSync(const char* operation) {
    VideoSyncWraper* sync = mVideoSync;
    if (sync == nullptr) {
        reportMissing(kMissingVideoSync, operation, "mVideoSync");
    }
    return sync;
}

VideoSyncFRAC* VideoTunnelRenderer::requireVideoSyncFRAC(const char* operation) {
    VideoSyncFRAC* tracker = mVideoSyncFRAC;
    if (tracker == nullptr) {
        reportMissing(kMissingVideoSyncFRAC, operation, "mVideoSyncFRAC");
    }
    return tracker;
}

DisplayAdapterWraper* VideoTunnelRenderer::requireDisplayAdapter(const char* operation) {
    DisplayAdapterWraper* adapter = mDisplayAdapter;
    if (adapter == nullptr) {
        reportMissing(kMissingDisplayAdapter, operation, "mDisplayAdapter");
    }
    return adapter;
}

void VideoTunnelRenderer::reportMissing(uint32_t bit, const char* operation, const char* member) {
    if ((mMissingReported.fetch_or(bit, std::memory_order_relaxed) & bit) == 0) {
        RENDERER_LOGE("[%s] %s is null!\n", operation, member);
    }
}

void VideoTunnelRenderer::checkLayout() {
    static_assert(sizeof(std::atomic<bool>) == 1 && sizeof(std::atomic<int32_t>) == 4 &&
                      sizeof(std::atomic<int64_t>) == 8,
                  "a shared member has the size of the plain type");
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored \
    "-Winvalid-offsetof"  // both compilers give this class a plain layout
    static_assert(offsetof(VideoTunnelRenderer, mParam9Extra) ==
                      offsetof(VideoTunnelRenderer, mParam9Value) + sizeof(int32_t),
                  "the sync instance finds mParam9Extra right after mParam9Value");
#pragma GCC diagnostic pop
}
