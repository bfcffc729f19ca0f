// SPDX-License-Identifier: Apache-2.0
// The workings of one playback (see Playback.h for its model), in two files: set-up, the library's
// callbacks, restart and the end in Playback.cpp; the player's thread in between in
// PlaybackFeed.cpp.
//
// The callbacks touch the pool, the ledger, the clock and `mFlushing` only; all else belongs to the
// player's thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "VideoTunnelRenderer.h"
#include "player/playback/AudioFeeder.h"
#include "player/playback/BufferPool.h"
#include "player/playback/FaultPlayer.h"
#include "player/playback/FrameLedger.h"
#include "player/playback/Playback.h"
#include "tv/Tv.h"

namespace korvane::player {

/// A frame's time where the file tells no rate.
constexpr int64_t kDefaultFrameUs = 40'000;

struct DeleteRenderer {
    void operator()(VideoTunnelRenderer* renderer) const { delete renderer; }
};

/// One playback from switching the TV on to reading its record. `run` is called once.
class PlaybackSession {
public:
    PlaybackSession(const PlaybackPlan& plan, FrameSource& video,
                    std::unique_ptr<PacketSource> audio, const PlaybackHooks& hooks);
    ~PlaybackSession();
    PlaybackSession(const PlaybackSession&) = delete;
    PlaybackSession& operator=(const PlaybackSession&) = delete;

    PlaybackRecord run();

private:
    // the library's callbacks
    static int bufferBack(void* self, void* status) noexcept;
    static int renderTime(void* self, void* time) noexcept;
    void onBufferBack(int fd, bool rendered);
    void onRenderTime(const rendertime& time);
    DropReason reasonOfDrop(int64_t mediaTimeUs, DropEvidence* evidence);
    DropValues valuesNow(int64_t mediaTimeUs);

    // set-up and end
    void switchOn();
    void makeRenderer();
    void start();
    void applyFaults(const TvFaults& faults);
    void flushRenderer();
    void stopRenderer();
    void performRestart();
    PlaybackRecord finish();
    void collect();
    void tellListeners(const std::vector<FrameEntry>& frames);
    void act(EventKind kind, int64_t number = 0, const std::string& text = "");

    // the player's thread
    void feedAndWatch();
    bool stopAsked();
    bool decodeNext();
    void sourceEnds();
    void pump();
    int64_t pictureWaitNs() const;
    void send(int buffer, int64_t mediaTimeUs);
    bool isLate(int64_t mediaTimeUs) const;
    void beginSection(int64_t mediaTimeUs);
    bool overLimit() const;
    bool stallReached() const;
    bool supplyStalls();
    bool seekDue() const;
    void performSeek();
    void leaveSection();
    void awaitFlush();
    void tick();
    void watchAudio(int64_t nowNs);
    void showProgress(int64_t nowNs);
    int64_t nextActionNs() const;
    std::chrono::nanoseconds untilNextLook() const;
    void sleepAtMost(int64_t ns) const;
    bool finished();
    bool lastFrameHasBeenShown();
    bool stalled() const;
    int64_t atPlaybackTime(int64_t us) const { return mRecord.startNs + us * 1000; }

    const PlaybackPlan& mPlan;
    FrameSource& mVideo;
    const PlaybackHooks& mHooks;
    PlaybackRecord mRecord;

    std::shared_ptr<tv::Tv> mTv;
    std::shared_ptr<tv::SyncInstance> mClock;
    BufferPool mPool;
    FrameLedger mLedger;
    std::unique_ptr<PacketSource> mAudioSource;  ///< until the feeder has it
    std::unique_ptr<AudioFeeder> mAudio;
    std::unique_ptr<VideoTunnelRenderer, DeleteRenderer> mRenderer;
    int mTunnelId = -1;
    std::unique_ptr<FaultPlayer> mFaults;
    bool mAudioPaused = false;                 ///< the fault player's
    std::atomic<int64_t> mAudioSwitchedNs{0};  ///< last pause or resume

    std::deque<SeekAction> mSeeks;
    std::deque<VideoStall> mStalls;
    std::deque<DecoderGap> mGaps;
    bool mRestarted = false;
    int64_t mStallEndsNs = 0;
    std::atomic<bool> mFlushing{false};
    bool mHavePicture = false;
    int64_t mPictureReadyNs = 0;  ///< when its decoding is over
    bool mSectionBegun = false;
    int64_t mSectionFrames = 0;  ///< handed in
    bool mSourceEnded = false;
    int64_t mFirstMediaUs = 0;    ///< of the section
    int64_t mPlayedBeforeUs = 0;  ///< media handed in before the section
    int64_t mLastMediaUs = 0;
    int64_t mFrameUs = kDefaultFrameUs;
    int64_t mSettledSinceNs = 0;
    int64_t mCollectedNs = 0;
    tv::AudioState mAudioState = tv::AudioState::Waiting;
};

}  // namespace korvane::player
