// SPDX-License-Identifier: Apache-2.0
// The report: what a playback's record says, as numbers with a verdict.
//
// Built from the TV's record (what was on screen at which vsync), the ledger's outcomes and the
// sync clock's times; nothing is guessed. Frames come in one by one, in order (ReportBuilder.h),
// and are added up at once, so that a summary of a day needs no more memory than one of a minute;
// texts and files are made from the summary.
//
// Audio/video offset of a frame: the vsync at which it came on screen minus the sync clock's real
// time for it. Positive: the picture was late, sound early.
#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "player/playback/Playback.h"
#include "player/report/Cadence.h"
#include "player/report/Spread.h"

namespace korvane::player {

/// Frames of one kind: how many, in how many runs of consecutive frames, the longest run.
struct Runs {
    int64_t frames = 0;
    int64_t runs = 0;
    int64_t longest = 0;
    /// Counts the next frame, in order.
    void add(int64_t frameNo);

private:
    int64_t mLast = -2;
    int64_t mCurrent = 0;
};

struct DropGroup {
    Runs runs;
    int64_t fromLog = 0;  ///< of these, how many reasons come from the library's own line
    FrameAt first;
};

/// A dwell that does not fit, with the frame it belongs to.
struct ReportedBreak {
    int64_t frameNo = 0;
    int64_t mediaTimeUs = 0;
    int64_t shownUs = 0;  ///< since `start`
    int dwell = 0;
    int expected = 0;
    bool byArithmetic = false;
    std::string cause;  ///< what happened there as far as the record tells; may be empty
};

/// A stretch without a flush and without a change of the display's rate.
struct StretchReport {
    int section = 0;  ///< counts flushes
    bool modeChange =
        false;  ///< begins with a change of the display's rate; then has no first frame
    double displayHz = 0.0;
    ExpectedCadence expected;
    FrameAt firstOut;            ///< first frame off the pattern
    int64_t firstFrameUs = -1;   ///< from start or flush to the first frame's vsync
    int64_t secondFrameUs = -1;  ///< from the first frame's vsync to the second's
    /// From audio start, else from the first frame, until the pattern held; -1: it did not.
    int64_t heldAfterUs = -1;
    bool afterAudio = false;            ///< `heldAfterUs` counts from audio start
    std::string seen;                   ///< pattern that the first dwells follow; empty: none
    CadenceResult cadence;              ///< without its breaks
    std::vector<ReportedBreak> breaks;  ///< the first unexpected ones
    int64_t explained = 0;              ///< unexpected dwells with a cause that the record tells
    int64_t framesInStep = 0;           ///< since the pattern held
    size_t dwells = 0;                  ///< frames that took part in the cadence

    /// In a handful of frames no pattern can be told.
    bool judged() const { return dwells >= kSteadyRunFrames; }
};

struct Summary {
    double contentHz = 0.0;
    double displayHz = 0.0;
    bool variableRate = false;
    ExpectedCadence expected;
    std::vector<StretchReport> sections;  ///< those in which frames were shown

    int64_t framesIn = 0;
    std::array<int64_t, kOutcomes> outcomes{};
    std::map<DropReason, DropGroup> drops;
    std::array<FrameAt, kOutcomes> firstOf;
    std::map<int, int64_t> dwells;  ///< frames by vsyncs on screen
    std::map<int, FrameAt>
        cadenceDwells;  ///< the first frame of each dwell that counts for cadence
    int64_t byArithmetic = 0;
    int64_t unexpected = 0;
    int64_t explained = 0;  ///< of these, how many with a cause
    /// Frames off the pattern, by vsyncs on screen, that waited there or were too few to be judged.
    std::map<int, int64_t> unjudged;

    Spread offsetUs;
    int64_t offsetLeastUs = 0;
    FrameAt offsetLeast;
    int64_t offsetMostUs = 0;
    FrameAt offsetMost;
    /// From the end of a clock stop to the next frame on screen; -1: no such.
    int64_t longestResumeUs = -1;
    FrameAt longestResume;
    Spread backToPlayerNs;  ///< from replaced on screen until the player had the buffer again
    int64_t fences = 0;
    int64_t sentLate = 0;

    bool sumHolds = false;  ///< the outcomes add up to the frames handed in
    bool framesAccounted = false;
    bool buffersBack = false;
    std::string verdict;

    bool ok() const { return framesAccounted && buffersBack; }
    int64_t count(Outcome outcome) const { return outcomes[static_cast<size_t>(outcome)]; }
};

/// The report for people; `verdictOnly` leaves it at the first line.
void printReport(std::ostream& out, const PlaybackRecord& record, const Summary& summary,
                 const tv::TraceReport& trace, bool verdictOnly);

/// Writes one line per frame as it is settled, after a header line. Times are microseconds since
/// the library's `start`, media times as in the file; an empty field is unknown or does not apply.
class CsvWriter final : public PlaybackListener {
public:
    explicit CsvWriter(std::ostream& out);
    void onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) override;

private:
    std::ostream& mOut;
};

/// One flat JSON object, one key per line.
void writeJson(std::ostream& out, const PlaybackRecord& record, const Summary& summary,
               const tv::TraceReport& trace);

}  // namespace korvane::player
