// SPDX-License-Identifier: Apache-2.0
// Collects, while it plays, what the report page shows of a playback and the summary does not keep:
// every frame's line of the ledger, every break, what the player did, the library's log. Frames and
// breaks are compressed as they come, so that memory grows by about a megabyte an hour.
//
// Frames, breaks and stretches come on the player's thread; actions and log lines on any.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "player/page/PageColumn.h"
#include "player/page/PageLog.h"
#include "player/playback/Playback.h"
#include "player/report/CadenceListener.h"
#include "player/report/LedgerColumns.h"

namespace korvane::player {

/// How long the picture stood after the clock had stopped, and until the next one came after it
/// went on. Times are microseconds since `start`.
struct StopSeen {
    ClockStop stop;
    FrameAt last;  ///< on screen while the clock stood: the last picture that came
    FrameAt next;  ///< the first that came after it went on
};

struct StretchOnPage {
    int64_t firstFrame = 0;
    StretchReport report;
};

class PageRecorder final : public LedgerListener {
public:
    PageRecorder();

    void onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) override;
    void onRow(const LedgerRow& row) override;
    void onAction(const Event& action) override;
    void onBreak(const FrameBreak& found) override;
    void onStretch(int64_t firstFrame, const StretchReport* report) override;
    void onLogLine(const tv::LogLine& line);

    /// The frames' columns, in the order of `kLedger`.
    std::deque<PageColumn>& frames() { return mFrames; }
    /// The breaks' columns and, one a line, their causes in words.
    struct Breaks {
        PageColumn frame{PageColumn::Prediction::Last};
        PageColumn dwell{PageColumn::Prediction::Zero};
        PageColumn expected{PageColumn::Prediction::Zero};
        PageColumn kind{PageColumn::Prediction::Zero};
        PageColumn cause{PageColumn::Prediction::Zero};
        Deflater texts;
    };
    Breaks& breaks() { return mBreaks; }
    const std::vector<StretchOnPage>& stretches() const { return mStretches; }
    const std::vector<StopSeen>& stops() const { return mStops; }
    std::vector<Event> actions() const;
    const PageLog& log() const { return mLog; }

private:
    void followStops(const FrameEntry& frame, const PlaybackRecord& soFar);

    std::deque<PageColumn> mFrames;
    Breaks mBreaks;
    std::vector<StretchOnPage> mStretches;
    std::vector<StopSeen> mStops;
    size_t mStopsOver = 0;  ///< of these, how many saw the next picture
    FrameAt mLastShown;
    PageLog mLog;
    mutable std::mutex mLock;
    std::vector<Event> mActions KORVANE_GUARDED_BY(mLock);
};

}  // namespace korvane::player
