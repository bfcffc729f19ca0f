// SPDX-License-Identifier: Apache-2.0
// Adds frames, one by one in order, up to the summary of a playback.
//
//   frame -> ContentRate       held back until the content's rate is known
//         -> StretchBuilder    one for each stretch: cadence, start, breaks with their causes
//         -> JudderMeter       times on screen against content times
//         -> LipSyncCounter    frames on screen against the sound that was heard
//         -> SpliceMeter       time on screen that splices cost
//         -> OffsetCounter,    frames on screen against the sync clock
//            ResumeTimer
//         -> counts            outcomes, drops, dwells, buffers
//
// Each frame is added up as soon as its rate is known, so that a day needs no more memory than a
// minute.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "player/report/CadenceListener.h"
#include "player/report/ClockTimes.h"
#include "player/report/ContentRate.h"
#include "player/report/JudderMeter.h"
#include "player/report/LipSync.h"
#include "player/report/PatternLog.h"
#include "player/report/SpliceMeter.h"
#include "player/report/StretchBuilder.h"
#include "player/report/Summary.h"

namespace korvane::player {

class ReportBuilder final : public PlaybackListener {
public:
    /// @param nominalHz  the content's rate as its file says; 0: it does not
    /// @param listeners  receive what is found about the cadence
    ReportBuilder(double nominalHz, const PlaybackPlan& plan,
                  std::vector<CadenceListener*> listeners = {});

    /// Takes each line, logged at a monotonic time. Any thread.
    void seeLog(const tv::LogLine& line, int64_t nowUs) { mPatterns.see(line, nowUs); }
    void onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) override;
    /// The first unexpected dwell's frame, as far as is known by now; empty: none yet.
    std::optional<FrameAt> firstUnexpected() const;
    /// Call once, after the playback.
    Summary finish(const PlaybackRecord& record);

private:
    struct PacedFrame {
        FrameEntry frame;
        FramePace pace;
    };
    struct SpanFrames {
        int64_t frames = 0;
        ContentSpan content;
    };
    double trueHz(double nominalHz) const;
    ExpectedCadence expectedFor(const ContentSpan& content, double displayHz) const;
    void processKnown(const PlaybackRecord& soFar);
    void process(const PacedFrame& paced, const PlaybackRecord& soFar);
    void followStretches(const PacedFrame& paced, const PlaybackRecord& soFar);
    void beginStretch(const PacedFrame& paced, StretchBegin begin, double displayHz,
                      int64_t beganUs, const PlaybackRecord& soFar);
    void endStretch(const PlaybackRecord& soFar);
    void count(const FrameEntry& frame, const PlaybackRecord& soFar);
    void countShown(const FrameEntry& frame, const PlaybackRecord& soFar);
    void countJudder(const FrameEntry& frame, const PlaybackRecord& soFar);
    void countLipSync(const FrameEntry& frame, const FrameAt& shown);
    void sumUpStretches();

    const PlaybackPlan& mPlan;
    const std::vector<CadenceListener*> mListeners;
    PatternLog mPatterns;
    Summary mSummary;
    ContentRate mRate;
    std::deque<FrameEntry> mWaiting;  ///< until their rate is known
    int mSpan = 0;                    ///< of the content's rate, in which the stretch lies
    std::map<double, SpanFrames> mFramesByHz;
    std::optional<StretchBuilder> mStretch;
    int64_t mStretchFrom = 0;  ///< its first frame
    size_t mModeChanges = 0;   ///< of the plan's, that have come
    JudderMeter mJudder;
    int64_t mLastShownUs = -1;
    int64_t mLastReleasedUs = -1;  ///< of the last frame shown
    int mJudderSection = 0;        ///< of the last frame shown
    SpliceMeter mSplices;
    LipSyncCounter mLipSync;
    OffsetCounter mOffsets;
    ResumeTimer mResumes;
    SpreadCounter mBackToPlayer;
};

}  // namespace korvane::player
