// SPDX-License-Identifier: Apache-2.0
// One playback (see Playback.h) from switching the TV on to reading its record.
//
//   set-up    TV, renderer, audio; frames wait in the library's queue before `start`
//   loop      gather a FeedState, ask the FeedSchedule, carry its step out
//   section   a seek, flush or restart leaves the section: audio is held, the library flushed or
//             stopped. The next frame sent begins a new one, with the clock anchored at its time
//   end       stop the library, read the rest of the record
//
// All on the player's thread, but for the faults (FaultPlayer) and what LibraryCallbacks does.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "VideoTunnelRenderer.h"
#include "player/playback/AudioFeeder.h"
#include "player/playback/BufferPool.h"
#include "player/playback/ClockWatch.h"
#include "player/playback/FailureSlot.h"
#include "player/playback/FaultPlayer.h"
#include "player/playback/FeedSchedule.h"
#include "player/playback/FrameCollector.h"
#include "player/playback/FrameLedger.h"
#include "player/playback/LibraryCallbacks.h"
#include "player/playback/Playback.h"
#include "player/playback/ScreenFeed.h"
#include "tv/Tv.h"

namespace korvane::player {

struct DeleteRenderer {
    void operator()(VideoTunnelRenderer* renderer) const { delete renderer; }
};

class PlaybackSession {
public:
    PlaybackSession(const PlaybackPlan& plan, FrameSource& video,
                    std::unique_ptr<PacketSource> audio, const PlaybackHooks& hooks);
    ~PlaybackSession();
    PlaybackSession(const PlaybackSession&) = delete;
    PlaybackSession& operator=(const PlaybackSession&) = delete;

    /// Call once.
    PlaybackRecord run();

private:
    // set-up
    void switchOn();
    void makeRenderer();
    void prebuffer();
    void start();
    void watchScreen();
    void applyFaults(const TvFaults& faults);
    void pauseOrResume(bool paused);
    void withholdFrames();

    // loop
    FeedState state() const;
    int64_t nextFrameDueNs() const;
    bool lastFrameHasBeenShown() const;
    bool carryOut(const FeedStep& step);
    bool decodeNext();
    void endSource();
    void send(int64_t longestWaitNs);
    bool isLate(int64_t mediaTimeUs) const;
    void tick();
    void obeyRemote();
    void step();
    void seekBy(int64_t us);
    void watchAudio();
    void showProgress(int64_t nowNs);

    // sections
    /// @param soughtUs  media time that a seek goes to; empty: no seek leaves it
    void leaveSection(std::optional<int64_t> soughtUs = {});
    void performSeek(const SeekAction& seek);
    void awaitFlush();
    void performRestart();
    void beginSection(int64_t mediaTimeUs);

    // end
    void stopRenderer();
    PlaybackRecord finish();

    tv::SoundRecord sound() const;
    void act(EventKind kind, int64_t number = 0, const std::string& text = "");
    int64_t atPlaybackTime(int64_t us) const { return mRecord.startNs + us * 1000; }

    const PlaybackPlan& mPlan;
    FrameSource& mVideo;
    const PlaybackHooks& mHooks;
    const int64_t mFrameUs;  ///< a frame's time
    PlaybackRecord mRecord;
    FailureSlot mFailure;

    std::shared_ptr<tv::Tv> mTv;
    std::shared_ptr<tv::SyncInstance> mClock;
    BufferPool mPool;
    FrameLedger mLedger;
    FrameCollector mCollector;
    LibraryCallbacks mCallbacks;
    ScreenFeed mScreen;
    ClockWatch mClockWatch;
    FeedSchedule mSchedule;
    std::unique_ptr<PacketSource> mAudioSource;  ///< until the feeder has it
    std::unique_ptr<AudioFeeder> mAudio;
    std::unique_ptr<VideoTunnelRenderer, DeleteRenderer> mRenderer;
    int mTunnelId = -1;
    std::unique_ptr<FaultPlayer> mFaults;
    bool mAudioPaused = false;  ///< the fault player's
    bool mViewerPaused = false;
    bool mStepping = false;    ///< without audio: one frame may be sent in the pause
    bool mAnchorNext = false;  ///< the next frame sent anchors the clock, as after a pause
    bool mViewerQuit = false;
    double mDeviceDriftPpm = 0.0;  ///< that audio keeps

    bool mHavePicture = false;
    int64_t mPictureReadyNs = 0;
    int64_t mWaitedNs = 0;  ///< so far, for a buffer for the next frame
    bool mSourceEnded = false;
    int64_t mCollectedNs = 0;
};

}  // namespace korvane::player
