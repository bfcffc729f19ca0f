// SPDX-License-Identifier: Apache-2.0
// From frames, told one by one in order, to the summary of a playback.
//
// The content's rate is taken from the file if the first `kOpeningFrames` frames agree with it,
// else measured from them; until then frames are held back. From then on each frame is added up at
// once: outcomes, runs of drops, dwells, offsets, and one cadence tracker for each stretch of
// playback (a stretch ends with a flush, or with a change of the display's rate).
//
// Of a stretch, the last frame on screen stayed until the flush or stop, and one shown at once
// before audio until audio came: their dwell says nothing about the cadence, and they are left out
// of it. All others are judged, from the first one on, if they are enough to tell a pattern.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "player/report/CadenceTracker.h"
#include "player/report/Report.h"

namespace korvane::player {

class ReportBuilder final : public PlaybackListener {
public:
    static constexpr size_t kOpeningFrames = 512;

    /// @param nominalHz  the content's rate as its file says; 0: it does not
    ReportBuilder(double nominalHz, const PlaybackPlan& plan);

    void onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) override;
    /// Call once, after the playback.
    Summary finish(const PlaybackRecord& record);

private:
    /// What is told of a frame when its dwell turns out not to fit.
    struct Facts {
        int64_t frameNo = 0;
        int64_t mediaTimeUs = 0;
        int64_t shownUs = 0;  ///< monotonic; when it was superseded, if it never was
        int64_t goneUs = 0;
        int dwell = 0;
        bool sentLate = false;
        bool nextSentLate = false;
        std::optional<DropReason> nextDropped;
    };
    struct Stretch {
        StretchReport report;
        int64_t beganUs = -1;  ///< monotonic, of a mode change
        int64_t firstShownUs = -1;
        int64_t heldShownUs = -1;
        int64_t breaksSinceHeld = 0;
        std::optional<int> offAtStart;   ///< the first dwell, where that is why it does not fit
        std::map<int, int64_t> outside;  ///< dwells that the cadence leaves out, and how many
        std::unique_ptr<CadenceTracker> tracker;
        std::vector<int> firstDwells;
        std::deque<Facts> facts;     ///< of the dwells that are not decided, and a few before
        size_t factsFrom = 0;        ///< index of the first of them
        std::vector<Facts> pending;  ///< the last frame on screen and those superseded after it
    };

    double trueHz(double nominalHz) const;
    ExpectedCadence expectedOn(double displayHz) const;
    void openContent();
    void countStep(const FrameEntry& frame);
    void process(const FrameEntry& frame, const FrameEntry* next);
    void count(const FrameEntry& frame);
    void countShown(const FrameEntry& frame);
    void countOffset(int64_t offsetUs, const FrameAt& seen);
    void countResumes(int64_t shownUs, const FrameAt& seen);
    void followStretches(const FrameEntry& frame);
    void beginStretch(int section, bool modeChange, double displayHz);
    void endStretch();
    void noteWhenHeld();
    void reportCadence();
    void countUnjudged();
    void judge();
    void addToCadence(const FrameEntry& frame, const FrameEntry* next);
    void addDwell(const Facts& facts);
    void takeBreak(const DwellBreak& found);
    std::string causeOf(const Facts& facts) const;
    FrameAt seenAt(int64_t frameNo, int64_t timeUs) const;

    const PlaybackPlan& mPlan;
    const PlaybackRecord* mRecord = nullptr;  ///< as far as it goes, while a call is under way
    Summary mSummary;
    SpreadCounter mOffsets;
    SpreadCounter mBack;

    std::vector<FrameEntry> mOpening;
    bool mOpen = false;
    std::optional<FrameEntry> mLast;  ///< waits for the one after it
    double mStepUs = 0.0;
    int64_t mSteps = 0;
    int64_t mStepsOff = 0;
    std::optional<FrameEntry> mBefore;  ///< of the steps
    std::unique_ptr<Stretch> mStretch;
    size_t mModeChanges = 0;  ///< that have come
    size_t mResumes = 0;      ///< clock stops whose end has been looked at
};

}  // namespace korvane::player
