// SPDX-License-Identifier: Apache-2.0
// A renderer on the simulated TV that the test steps.
//
// The test sets the clock and no thread runs: the test calls the drain thread's operations one by
// one and reads what the tunnel got, what came back and what was logged.
#pragma once

#include "VideoTunnelRenderer.h"
#include "display/DisplayAdapterWraper.h"
#include "frac/VideoSyncFRAC.h"
#include "mediasync/VideoSyncWraper.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TvFixture.h"
#include "videotunnel/VideoTunnelWraper.h"

/// Access to the renderer's private members.
struct VideoTunnelRendererPeer {
    VideoTunnelRenderer& r;

    /// The state after `start`, without the threads.
    void pretendStarted() {
        r.mQueueRunning = true;
        r.mAudioSynced = false;
        r.mTunnel.load()->connect();
    }
    void pretendStopped() { r.mQueueRunning = false; }

    /// What the drain thread has taken from the queue.
    void takeInHand(const videoframe& frame) {
        r.mFrameInHand = std::make_unique<FrameEntry>(FrameEntry{{frame}, nullptr});
    }
    int drain(videoframe frame) {
        takeInHand(frame);
        return r.drainVideoFrame(&frame);
    }
    int show(videoframe frame, int64_t presentationTimeUs) {
        takeInHand(frame);
        return r.showFrame(&frame, presentationTimeUs);
    }
    int syncWithAudio(videoframe frame) { return r.syncWithAudio(&frame); }
    bool take(videoframe* frame) { return r.getNeedShowVideoFrame(frame); }
    void peekCheck() { r.firstFrameVpeekCheck(); }
    void checkPause() { r.checkPauseTrackMediaTime(); }
    void process(int64_t mediaTimeUs, bool* show, int64_t* realTimeUs) {
        r.onVideoSyncProcess(mediaTimeUs, show, 0, realTimeUs);
    }
    void setFirstFrameQueued() { r.mFirstFrameQueued = true; }
    void setAudioSynced() { r.mAudioSynced = true; }
    void setUnderflow(bool pending) {
        r.mUnderflow = true;
        r.mCatchUpDropping = false;
        r.mCatchUpPending = pending;
    }
    void setParam9Extra(int32_t value) { r.mParam9Extra = value; }
    /// `init` is under way on another thread: audio is expected, but no clock is bound yet.
    void pretendInitHasBegun() { r.mHaveAudio = true; }
    /// `init` is under way on another thread: the clock is bound, the rest does not exist yet.
    void pretendClockIsBound() {
        delete r.mVideoSyncFRAC.exchange(nullptr);
        delete r.mDisplayAdapter.exchange(nullptr);
    }

    bool underflow() const { return r.mUnderflow; }
    bool catchUpPending() const { return r.mCatchUpPending; }
    bool audioSynced() const { return r.mAudioSynced; }
    bool haveAudio() const { return r.mHaveAudio; }
    bool passthrough() const { return r.mTunerPassthrough; }
    bool flushed() const { return r.mFlushed; }
    bool holding() const { return r.mVideoHolding; }
    int32_t holdCount() const { return r.mVideoHoldCount; }
    int32_t hwSyncId() const { return r.mHwSyncId; }
    int32_t frameInCount() const { return r.mFrameInCount; }
    int32_t frameOutCount() const { return r.mFrameOutCount; }
    int32_t vsyncPeriodNs() const { return r.mVsyncPeriodNs; }
    int64_t anchorMediaTimeUs() const { return r.mAnchorMediaTimeUs; }
    int64_t pauseMediaTimeUs() const { return r.mPauseMediaTimeUs; }
    size_t queued() const { return r.mVideoFrameInputQueue.size(); }
    size_t pendingRenderTimes() const {
        size_t count = 0;
        for (const auto* entry = r.mRenderTimeList.front(); entry != nullptr; entry = entry->next) {
            ++count;
        }
        return count;
    }
    rendertime oldestRenderTime() const { return r.mRenderTimeList.front()->shown; }
};

namespace korvane::test {

class RendererTest : public TvFixture {
protected:
    static constexpr int kFd = 10'000;  // no open descriptor: a buffer without a picture

    ~RendererTest() override {
        drop();
        // The mask outlives a renderer: restore the one with which the next test starts.
        setLogMask(1);
        delete VideoTunnelRenderer_create();
    }
    void drop() {
        if (renderer != nullptr) {
            peer().pretendStopped();
            renderer.reset();
        }
    }

    /// Replaces the renderer by one with a type-2 callback, bound to `clock` and ready to be
    /// stepped.
    void make(int logMask, bool audio, bool passthrough = false) {
        drop();
        setLogMask(logMask);
        clock = mTv->mediaSync().create();
        renderer.reset(VideoTunnelRenderer_create());
        renderer->init(audio || passthrough ? clock->id() | (passthrough ? 0x10000 : 0) : 0);
        if (!audio && !passthrough) {
            clock = mTv->mediaSync().instances().back();
        }
        renderer->regCallBack(2, &RendererTest::onStatus, this);
        tunnelId = renderer->getTunnelId();
        peer().pretendStarted();
        returned.clear();
        log.take();
    }
    /// Without audio; media time 1 s is due now.
    void makeAnchored(int logMask) {
        make(logMask, false);
        renderer->updateVideoTime(kNowMediaUs);
    }
    static constexpr int64_t kNowMediaUs = 1'000'000;

    VideoTunnelRendererPeer peer() { return {*renderer}; }
    std::vector<tv::BufferRecord> queuedBuffers() { return mTv->tunnel().record(tunnelId); }
    int64_t count(const std::string& text) const { return log.count(text); }

    static int onStatus(void* self, void* info) {
        const auto* status = static_cast<framestatus*>(info);
        static_cast<RendererTest*>(self)->returned.push_back({status->fd, status->rendered});
        return 0;
    }

    std::shared_ptr<tv::SyncInstance> clock;
    std::unique_ptr<VideoTunnelRenderer> renderer;
    int tunnelId = -1;
    /// Returned buffers: descriptor and `rendered`.
    std::vector<std::pair<int, int>> returned;
    LogCapture log;
};

using Returned = std::vector<std::pair<int, int>>;

}  // namespace korvane::test
