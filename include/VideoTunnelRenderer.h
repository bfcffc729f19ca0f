// SPDX-License-Identifier: Apache-2.0
// Tunnel-mode video renderer: the interface that a media player compiles against.
//
// The player sends decoded frames, each a buffer descriptor with a media time. For each frame the
// renderer decides whether and when it is shown, in sync with audio and on the display's vsync
// grid, and queues it into the platform's video tunnel. Every buffer comes back through a callback:
// after the tunnel has released it, or at once when it was dropped or flushed.
//
// Calling order: VideoTunnelRenderer_create, init, regCallBack, getTunnelId, start, then
// sendVideoFrame for each frame with flush and peekFirstFrame as needed, stop, delete. One renderer
// plays one stream once; make a new one for the next playback (`stop` frees the tunnel id, and the
// buffers of a restarted renderer do not come back).
//
// Two worker threads run between `start` and `stop`: the drain thread (frames to the tunnel) and
// the fill thread (released buffers and render times to the player). Callbacks run on them, and
// inside `flush` and `onFillVideoFrame` on the caller's thread. A callback must not call `stop` or
// delete the renderer. Callbacks of type 1, and those of types 0 and 2 when a flush or stop returns
// a peek frame, run under a lock: they must not call `sendVideoFrame`, `peekFirstFrame` or
// `nodifyRenderTime` either.
//
// The table of virtual operations and the order of members are a binary interface: neither changes.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "ThreadAnnotations.h"
#include "VideoFrame.h"
#include "VideoFrameQueue.h"

/// Marks private members that are not part of the binary interface.
#define KORVANE_INTERNAL __attribute__((visibility("hidden")))

class DisplayAdapterWraper;
class VideoSyncFRAC;
class VideoSyncWraper;
class VideoTunnelWraper;

/// A player's callback. `info` points to the record of the callback's type and is valid during the
/// call. For types 0 and 2, 0 means that the player took the buffer; with any other result the
/// buffer is not counted as returned, and nothing is retried. The result of type 1 is ignored.
using VideoTunnelCallback = int (*)(void* userData, void* info);

/// Values of regCallBack's `type`.
enum VideoTunnelCallbackType : int {
    kFrameReturnCallback = 0,  ///< info: `int`, the returned buffer's descriptor; what the callback
                               ///< writes there is the descriptor that type 2 reports
    kRenderTimeCallback = 1,   ///< info: `rendertime`
    kFrameStatusCallback = 2   ///< info: `framestatus`; called after type 0 for the same buffer
};

class __attribute__((visibility("default"))) VideoTunnelRenderer {
public:
    VideoTunnelRenderer();

    /// Frees what the renderer owns; frames still queued are not handed back. Call `stop` first: a
    /// renderer that still runs is stopped here, with an error in the log.
    virtual ~VideoTunnelRenderer();

    VideoTunnelRenderer(const VideoTunnelRenderer&) = delete;
    VideoTunnelRenderer& operator=(const VideoTunnelRenderer&) = delete;

    /// Binds a media-sync instance and creates the objects that playback needs. Call once. An
    /// object for which there is no memory is missing, with an error in the log; without the
    /// media-sync client, frames are dropped or, in pass-through, shown at once.
    /// @param hwSyncId  lower 16 bits: the hardware sync id shared with audio (0 or less: none, an
    ///                  instance is allocated); upper 16 bits equal to 0x0001 select tuner
    ///                  pass-through mode, where the sync instance decides about each frame
    /// @return 1
    virtual int init(int hwSyncId);

    /// The id by which the display side finds this tunnel; allocated on the first call. After
    /// `stop` the number stays the same, although the id has been freed.
    /// @return the id, or a negative value when none can be allocated
    virtual int getTunnelId();

    /// Connects the tunnel and starts the worker threads; does nothing when already started.
    /// @return 1, also when connecting or starting a thread failed (the log says so)
    virtual int start();

    /// Stops and joins the worker threads and releases the tunnel. Frames still queued and buffers
    /// still inside the tunnel are discarded without a callback: after `stop` returns every buffer
    /// belongs to the player again. Ends every wait of the worker threads at once, except that for
    /// a release fence, which lasts 1000 ms at most.
    /// @return 1
    virtual int stop() KORVANE_EXCLUDES(mInputLock, mShowLock, mRenderTimeLock);

    /// Queues one frame; never blocks on playback. May be called before `start`. It is refused only
    /// when there is no memory for it: then the buffer stays the player's, no callback is called
    /// for it, and nothing else changes. An accepted frame needs no further memory.
    /// @param fd  the buffer; the player keeps owning it, but must not write it until it comes back
    /// @param timestampUs  media time, microseconds
    /// @param peek  show this frame at once, without waiting for audio
    /// @return 1; 0 when the frame was refused, with an error in the log
    virtual int sendVideoFrame(int fd, long timestampUs, bool peek) KORVANE_EXCLUDES(mInputLock);

    /// Registers the callback of a type, replacing an earlier one. Callbacks cannot be removed. A
    /// call of the earlier one that has begun may still run when this returns.
    /// @return 0 when registered; -1 for a type above 2 or a null callback. A negative type
    ///         registers nothing and returns 0.
    virtual int regCallBack(int type, VideoTunnelCallback callback, void* userData)
        KORVANE_EXCLUDES(mCallbackLock);

    /// Hands every queued frame back (rendered = 0) on the caller's thread and makes the next frame
    /// wait for audio again, as the first one did. Buffers already in the tunnel come back as
    /// usual. If the drain thread is just about to wait, it can miss the wake-up; its wait then
    /// times out, at the latest when its frame is due. Does nothing unless started.
    /// @return 1
    virtual int flush();

    /// The content's frame rate in hundredths of a frame per second (2997), 1 to 6000; any other
    /// value is ignored, with an error in the log.
    /// @return 1
    virtual int setFrameRate(int frameRate);

    /// Makes the only queued frame a peek frame: it is shown at once, without waiting for audio.
    /// Does nothing unless exactly one frame is queued.
    /// @return 1
    virtual int peekFirstFrame() KORVANE_EXCLUDES(mInputLock);

    /// Announces a frame to the media-sync instance (tuner pass-through).
    /// @param timestampUs  media time, in the unit that the instance expects
    /// @param size  the frame's size in bytes
    /// @return 1 when accepted, 0 when not or before `init`
    virtual int onVideoSyncQueueVideoFrame(long timestampUs, unsigned int size);

    /// Hands a buffer back through the player's callbacks, like any other returned buffer.
    /// @return 1 when the player took it, else 0
    int onFillVideoFrame(int fd, bool rendered);

    /// Anchors the clock: this media time is due now.
    /// @return false before `init` or when the service refuses
    bool updateVideoTime(long mediaTimeUs);

    /// The media-sync instance's clock; times in microseconds, real times monotonic. Each returns
    /// false before `init`, with the output untouched, and when the service fails, with the output
    /// as the service left it.
    bool getRealTimeFor(long mediaTimeUs, long* realTimeUs);
    bool getTrackMediaTime(long* mediaTimeUs);
    bool getStartingTimeMedia(long* mediaTimeUs);

    /// Dequeues one released buffer from the tunnel, for a player that fetches buffers itself.
    bool getNeedFillVideoFrame(int* fd);

    /// Reports the oldest pending render time if it has passed, at most one per call. The fill
    /// thread does this about every 500 microseconds.
    /// @return 1
    int nodifyRenderTime() KORVANE_EXCLUDES(mRenderTimeLock, mCallbackLock);

private:
    friend struct VideoTunnelRendererPeer;  // tests step the drain thread's operations one by one

    struct KORVANE_INTERNAL FramePass;
    enum class Stage : bool { Continue, Consumed };

    // lifecycle
    int startDrainVideo();
    int startFillVideo();
    KORVANE_INTERNAL void bindSyncInstance();
    KORVANE_INTERNAL void configurePassthrough(VideoSyncWraper& sync);
    /// An owned object. If it is missing because the player called out of order, logs that once per
    /// renderer and returns null; the caller then skips its step.
    KORVANE_INTERNAL VideoSyncWraper* requireVideoSync(const char* operation);
    KORVANE_INTERNAL VideoSyncFRAC* requireVideoSyncFRAC(const char* operation);
    KORVANE_INTERNAL DisplayAdapterWraper* requireDisplayAdapter(const char* operation);
    KORVANE_INTERNAL void reportMissing(uint32_t bit, const char* operation, const char* member);

    // drain thread: frames to the tunnel
    static void* drainVideoFrameThread(void* renderer);
    bool getNeedShowVideoFrame(videoframe* frame) KORVANE_EXCLUDES(mInputLock);
    int firstFrameVpeekCheck() KORVANE_EXCLUDES(mInputLock, mRenderTimeLock);
    int drainVideoFrame(videoframe* frame);
    KORVANE_INTERNAL void drainPassthroughFrame(videoframe* frame);
    KORVANE_INTERNAL void queryDisplayVsync(FramePass* pass);
    KORVANE_INTERNAL void presentFrame(FramePass* pass);
    KORVANE_INTERNAL void correctRealTime(FramePass* pass);
    KORVANE_INTERNAL void showEarlyFrame(FramePass* pass, int64_t waitUs);
    KORVANE_INTERNAL void dropLateFrame(FramePass* pass);
    KORVANE_INTERNAL void showDueFrame(FramePass* pass, int64_t earlyUs);
    KORVANE_INTERNAL static void logFrameTiming(const FramePass& pass);
    int waitShowTime(int64_t waitUs) KORVANE_EXCLUDES(mShowLock);
    /// Takes mRenderTimeLock, except for a peek frame, whose caller holds it.
    int showFrame(videoframe* frame, int64_t presentationTimeUs);
    KORVANE_INTERNAL void showPeekFrame(videoframe* frame) KORVANE_REQUIRES(mRenderTimeLock);
    /// Keeps the entry, copies its frame.
    /// @return false when there is no entry
    KORVANE_INTERNAL bool takeInHand(std::unique_ptr<FrameEntry> entry, videoframe* frame);
    /// Moves the entry of the frame in hand to the list of render times.
    KORVANE_INTERNAL void reportRenderTime(const rendertime& shown)
        KORVANE_REQUIRES(mRenderTimeLock);

    // drain thread: audio/video decisions
    int syncWithAudio(videoframe* frame);
    int checkPauseTrackMediaTime();
    int dropFrame(videoframe* frame);
    void onVideoSyncProcess(int64_t mediaTimeUs, bool* show, int unused, int64_t* realTimeUs);
    KORVANE_INTERNAL Stage awaitAudioStart(FramePass* pass);
    KORVANE_INTERNAL void checkResume(FramePass* pass);
    KORVANE_INTERNAL Stage awaitAudioClock(FramePass* pass);
    KORVANE_INTERNAL Stage catchUpAfterUnderflow(FramePass* pass);
    KORVANE_INTERNAL void restartCadence(FramePass* pass);
    KORVANE_INTERNAL void anchorClock(int64_t mediaTimeUs);
    KORVANE_INTERNAL void holdFrame(int64_t mediaTimeUs);

    // fill thread: released buffers and render times to the player
    static void* fillVideoFrameThread(void* renderer);
    /// Hands a buffer back to the player; every path that returns one ends here.
    /// @param fd  passed to the callback of type 0, which may write another descriptor
    /// @return the last callback's result; -1 without a callback
    KORVANE_INTERNAL int returnFrame(int32_t* fd, bool rendered) KORVANE_EXCLUDES(mCallbackLock);

    // Members that threads share without a lock are atomics of the plain type's size: threads poll
    // flags and never wait for one under a lock.
    VideoTunnelCallback mFrameReturnCb KORVANE_GUARDED_BY(mCallbackLock) = nullptr;
    void* mFrameReturnUserData KORVANE_GUARDED_BY(mCallbackLock) = nullptr;
    VideoTunnelCallback mRenderTimeCb KORVANE_GUARDED_BY(mCallbackLock) = nullptr;
    void* mRenderTimeUserData KORVANE_GUARDED_BY(mCallbackLock) = nullptr;
    VideoTunnelCallback mFrameStatusCb KORVANE_GUARDED_BY(mCallbackLock) = nullptr;
    void* mFrameStatusUserData KORVANE_GUARDED_BY(mCallbackLock) = nullptr;

    // Owned. Null before `init`, except the tunnel, which the constructor creates.
    std::atomic<VideoSyncWraper*> mVideoSync{nullptr};
    std::atomic<VideoTunnelWraper*> mTunnel{nullptr};
    std::atomic<VideoSyncFRAC*> mVideoSyncFRAC{nullptr};
    std::atomic<DisplayAdapterWraper*> mDisplayAdapter{nullptr};

    std::atomic<int32_t> mVsyncQueryCount{0};
    std::atomic<int32_t> mVsyncPeriodNs{16666666};  // 60 Hz until the first query

    VideoFrameQueue mVideoFrameInputQueue;
    // These two guard no member: they order notifications and waits. `flush` notifies without them.
    std::mutex mInputLock KORVANE_ACQUIRED_BEFORE(mRenderTimeLock, mCallbackLock);
    std::condition_variable mInputCond;
    std::mutex mShowLock;
    std::condition_variable mShowCond;
    FrameList mRenderTimeList KORVANE_GUARDED_BY(mRenderTimeLock);
    /// The entry of the frame that the drain thread took last, until it is in mRenderTimeList.
    std::unique_ptr<FrameEntry> mFrameInHand;
    std::mutex mRenderTimeLock KORVANE_ACQUIRED_BEFORE(mCallbackLock);

    std::atomic<bool> mQueueRunning{false};
    std::atomic<bool> mFillRunning{false};
    std::atomic<bool> mFlushed{false};
    std::atomic<bool> mHaveAudio{false};
    std::atomic<bool> mAudioSynced{false};
    int64_t mFirstSyncPtsUs = -1;
    std::atomic<bool> mFirstFramePeeked{false};
    std::atomic<int64_t> mAnchorMediaTimeUs{-1};
    int64_t mPauseMediaTimeUs = -1;
    bool mUnderflow = false;
    bool mFirstFrameQueued = false;
    int64_t mStartingTimeMediaUs = -1;
    bool mCatchUpDropping = false;
    bool mCatchUpPending = false;
    pthread_t mDrainThread{};
    pthread_t mFillThread{};
    std::atomic<int32_t> mFrameInCount{0};
    std::atomic<int32_t> mFrameOutCount{0};
    std::atomic<bool> mTunerPassthrough{false};
    std::atomic<bool> mVideoHolding{false};
    int32_t mVideoHoldCount = 0;
    std::atomic<bool> mVideoSyncExited{false};
    int64_t mLastSyncMediaTimeUs = -1;
    int64_t mLastFrameMediaTimeUs = -1;
    int64_t mLastSyncSystemTimeUs = 0;
    int32_t mVideoSyncMode = 0;
    int32_t mParam7Value = 0;
    // The sync instance gets the address of mParam9Value only and may read or set the word after
    // it: the two stay adjacent, in this order.
    int32_t mParam9Value = 1;
    std::atomic<int32_t> mParam9Extra{0};
    int32_t mFreeRun = 0;
    int32_t mTunnelId = -1;
    int32_t mHwSyncId = -1;

    std::mutex mCallbackLock;  // a leaf lock, never held across a callback
    std::atomic<uint32_t> mMissingReported{0};
    bool mDrainThreadCreated = false;
    bool mFillThreadCreated = false;

    KORVANE_INTERNAL static void checkLayout();
};

/// Creates a renderer; the caller deletes it. Null when there is no memory.
extern "C" __attribute__((visibility("default"))) VideoTunnelRenderer* VideoTunnelRenderer_create();
