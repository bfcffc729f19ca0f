// SPDX-License-Identifier: Apache-2.0
// What the player's thread does next: a decision from the plan and from values that the caller
// gathers. No clock is read and nothing waits here.
//
//   checked in this order                                            step
//   interrupted, quit, stop time reached, or stalled                 End
//   the next seek or flush is due                                    Seek
//   the restart is due                                               Restart
//   pictures are left in the source:
//     none is decoded                                                Decode
//     the picture lies beyond the plan's limit                       EndSource
//     a stall holds it back, the decoder takes time, or has a gap    Wait
//     else                                                           Send
//   every frame has left the library, the last one has been shown,
//   and no action is planned                                         End
//   else                                                             Wait
//
// Playback is stalled when something has been due for 5 s and nothing has moved. While the clock
// runs and the library's oldest frame is due later, nothing is due: slides stay as long as they
// should.
//
// The position that a seek waits for is the picture's. In a stall, while that stands still, it is
// the clock's, and a seek ends the stall.
//
// A wait ends when the next planned action is due, and after 20 ms at the latest, or 5 ms when
// something depends on the position shown or on the last frame; then the caller asks again. Before
// `start` only pictures and interruption count: the times of a plan count from the library's
// `start`.
#pragma once

#include <cstdint>
#include <deque>
#include <limits>

#include "player/playback/PlaybackPlan.h"
#include "player/playback/PlaybackRecord.h"

namespace korvane::player {

/// What a decision is made from.
struct FeedState {
    int64_t nowNs = 0;
    bool interrupted = false;
    bool quit = false;  ///< the viewer quits
    bool held = false;  ///< the viewer pauses a film without audio: no frame is to be sent
    bool sourceEnded = false;
    bool havePicture = false;    ///< decoded and not yet sent
    int64_t pictureUs = 0;       ///< its media time
    int64_t pictureReadyNs = 0;  ///< when the plan's decoder has finished it
    int64_t positionUs = -1;     ///< media time shown last in this section; -1: none yet
    int64_t clockUs = -1;        ///< media time of the clock; -1: it has none
    int64_t inLibrary = 0;       ///< frames that the library still has to show or return
    int64_t lastMoveNs = 0;      ///< last sign of life, or start of the section
    int64_t dueNs = 0;           ///< when the library's oldest frame is due; 0: unknown
    bool lastFrameShown = false;
};

enum class FeedAction { Decode, Send, Wait, EndSource, Seek, Restart, End };

struct FeedStep {
    FeedAction action = FeedAction::Wait;
    int64_t waitNs = 0;                 ///< Wait: how long; Send: longest wait for a free buffer
    SeekAction seek;                    ///< Seek
    EndCause end = EndCause::Complete;  ///< End
};

/// What has been sent since the last flush, seek or restart.
struct SectionFeed {
    int64_t frames = 0;
    int64_t firstUs = 0;  ///< media times
    int64_t lastUs = 0;
};

/// Whether a frame is sent too late: nearer to its presentation time than the two vsyncs and 5 ms
/// that the library takes to hand it to the tunnel. It may miss its vsync, although the simulated
/// tunnel needs less.
bool isTooLate(int64_t realUs, int64_t nowUs, double vsyncPeriodNs);

class FeedSchedule {
public:
    /// @param plan     must outlive the schedule
    /// @param frameUs  a frame's time
    FeedSchedule(const PlaybackPlan& plan, int64_t frameUs);

    /// The library starts: playback time 0.
    void start(int64_t startNs) { mStartNs = startNs; }
    /// Decides. Takes a seek, restart or stall that begins now off the plan.
    FeedStep next(const FeedState& state);
    /// A frame has been sent.
    void sent(int64_t mediaUs);
    /// The next frame sent begins a new section.
    void leaveSection();

    const SectionFeed& section() const { return mSection; }

private:
    static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

    bool ends(const FeedState& state, EndCause* cause);
    bool seekDue(const FeedState& state) const;
    bool restartDue(int64_t nowNs) const;
    FeedStep feed(const FeedState& state);
    bool overLimit(int64_t pictureUs) const;
    bool stalls(const FeedState& state);
    void endStall();
    int64_t pictureWaitNs(const FeedState& state) const;
    bool complete(const FeedState& state);
    int64_t nextActionNs() const;
    int64_t untilNextLookNs(const FeedState& state) const;
    int64_t atPlaybackTime(int64_t us) const { return mStartNs + us * 1000; }

    const PlaybackPlan& mPlan;
    const int64_t mFrameUs;
    std::deque<SeekAction> mSeeks;
    std::deque<VideoStall> mStalls;
    bool mRestarted = false;
    int64_t mStartNs = 0;      ///< 0: not started
    int64_t mStallEndsNs = 0;  ///< 0: the next stall has not begun
    SectionFeed mSection;
    int64_t mNothingDueNs = 0;    ///< when that was so last
    int64_t mSentBeforeUs = 0;    ///< media sent in earlier sections
    int64_t mLibraryEmptyNs = 0;  ///< since when the library has no frame; 0: it has some
};

}  // namespace korvane::player
