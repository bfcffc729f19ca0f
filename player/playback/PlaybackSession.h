// SPDX-License-Identifier: Apache-2.0
// One playback (see Playback.h) from switching the TV on to reading its record.
//
//   set-up    TV, renderer, audio; frames wait in the library's queue before `start`
//   loop      obey the remote; gather a FeedState, ask the FeedSchedule, carry its step out
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

#include "player/playback/BufferPool.h"
#include "player/playback/FailureSlot.h"
#include "player/playback/FaultPlayer.h"
#include "player/playback/FeedSchedule.h"
#include "player/playback/FrameCollector.h"
#include "player/playback/FrameLedger.h"
#include "player/playback/FramesUnderway.h"
#include "player/playback/LibraryCalls.h"
#include "player/playback/PlannedAudio.h"
#include "player/playback/PlannedDecoder.h"
#include "player/playback/Playback.h"
#include "player/playback/ScreenFeed.h"
#include "player/playback/ViewerControl.h"
#include "tv/Tv.h"

namespace korvane::player {

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
    void prebuffer();
    void start();
    void watchScreen();
    void applyFaults(const TvFaults& faults);
    void pauseOrResume(bool paused);
    void withholdFrames();

    // loop
    FeedState state() const;
    bool carryOut(const FeedStep& step);
    /// No picture will follow in this section.
    void sourceEnded();
    void send(int64_t longestWaitNs);
    void tick();
    void obeyRemote();
    void obey(const ViewerStep& step);
    void watchAudio();
    void showProgress(int64_t nowNs);

    // sections
    /// @param soughtUs  media time that a seek goes to; empty: no seek leaves it
    void leaveSection(std::optional<int64_t> soughtUs = {});
    void performSeek(const SeekAction& seek);
    void performRestart();
    void beginSection(int64_t mediaTimeUs);

    // end
    void stopRenderer();
    PlaybackRecord finish();

    void act(EventKind kind, int64_t number = 0, const std::string& text = "");
    int64_t atPlaybackTime(int64_t us) const { return mRecord.startNs + us * 1000; }

    const PlaybackPlan& mPlan;
    const PlaybackHooks& mHooks;
    PlaybackRecord mRecord;
    FailureSlot mFailure;

    std::shared_ptr<tv::Tv> mTv;
    BufferPool mPool;
    FrameLedger mLedger;
    FrameCollector mCollector;
    ScreenFeed mScreen;
    PlannedDecoder mDecoder;
    FeedSchedule mSchedule;
    ViewerControl mViewer;
    PlannedAudio mAudio;
    LibraryCalls mLibrary;
    FramesUnderway mUnderway;
    std::unique_ptr<FaultPlayer> mFaults;
    bool mAudioPaused = false;  ///< the fault player's
    int64_t mWaitedNs = 0;      ///< so far, for a buffer for the next frame
};

}  // namespace korvane::player
