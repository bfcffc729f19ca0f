// SPDX-License-Identifier: Apache-2.0
// From the frames of one stretch, told in order, to its report: when it began, which pattern its
// frames followed, and where they left it.
//
// Every frame's dwell counts for the cadence but those of two frames: one that was shown at once
// stays until audio starts, and the last one on screen stays until the flush, stop or change of
// rate. So the last frame waits here, with those superseded after it, until another one is shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "player/report/BreakCause.h"
#include "player/report/CadenceListener.h"
#include "player/report/CadenceTracker.h"
#include "player/report/PatternLog.h"
#include "player/report/Summary.h"

namespace korvane::player {

class StretchBuilder {
public:
    /// @param beganUs  the monotonic time of a change of the display's rate; else not used
    /// @param listeners  receive the breaks
    StretchBuilder(int section, StretchBegin begin, const ExpectedCadence& expected,
                   int64_t beganUs, const PatternLog& patterns,
                   const std::vector<CadenceListener*>& listeners);

    int section() const { return mReport.section; }
    double displayHz() const { return mReport.expected.displayHz; }

    void add(const FrameEntry& frame, const PlaybackRecord& soFar);
    /// The first frame whose dwell may still turn out to be unexpected; INT64_MAX: none so far.
    int64_t judgedUpTo() const;
    /// The first frame off the pattern that is known by now; empty: none.
    std::optional<FrameAt> firstOut() const;
    /// Call once, after the last frame.
    /// @return nothing for a stretch in which no frame was shown
    std::optional<StretchReport> finish(const PlaybackRecord& soFar);

private:
    void noteStart(int64_t shownUs, const PlaybackRecord& soFar);
    void addToCadence(const DwellFacts& facts, const PlaybackRecord& soFar);
    StretchStart start(const PlaybackRecord& soFar) const;
    void takeBreak(const DwellBreak& found, const PlaybackRecord& soFar);
    void takeBreaks(const std::vector<DwellBreak>& breaks, const PlaybackRecord& soFar);
    std::string wrongPatternAt(int64_t shownUs, const PlaybackRecord& soFar) const;
    void countCause(const FoundCause& cause, const DwellFacts& facts, const DwellBreak& found);
    void endSpan();
    void noteWhenHeld();
    void reportCadence();
    void reportHeldAfter(const PlaybackRecord& soFar);
    void countUnjudged();

    StretchReport mReport;
    CadenceTracker mTracker;
    const PatternLog& mPatterns;
    const std::vector<CadenceListener*>& mListeners;
    const int64_t mBeganUs;  ///< times here are monotonic; -1: not so, or not yet
    int64_t mFirstShownUs = -1;
    int64_t mHeldShownUs = -1;
    int64_t mDisturbedUs = -1;  ///< first break of the last disturbance
    BreakSpan mSpan;            ///< of the last breaks, as long as they follow each other closely
    int64_t mSpanShownUs = -1;  ///< of its last break
    int64_t mLastMediaUs = 0;   ///< of the last frame that took part in the cadence
    LateFence mLateFence;       ///< the last one
    Lateness mLate = Lateness::None;  ///< of the last frame sent
    std::deque<int> mLastDwells;
    std::optional<int> mOffAtStart;  ///< the first dwell, if it does not fit because playback began
                                     ///< between two vsyncs
    std::map<int, int64_t> mOutside;   ///< dwells that the cadence leaves out, and how many
    std::vector<DwellFacts> mPending;  ///< the last frame on screen and those superseded after it
    std::deque<DwellFacts> mFacts;     ///< of the dwells not yet decided, and a few before
    size_t mFactsFrom = 0;             ///< index of the first of them
};

}  // namespace korvane::player
