// The report: what a playback's record says, as numbers with a verdict.
//
// Built from the TV's record (what was on screen at which vsync), the ledger's outcomes and the
// sync clock's times; nothing is guessed. Pure: a record in, a summary out; texts and files are
// made from the summary.
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

#include "player/Cadence.h"
#include "player/Playback.h"

namespace korvane::player {

/// Median, p99 and the value farthest from 0; all 0 without samples.
struct Spread {
    int64_t samples = 0;
    int64_t median = 0;
    int64_t p99 = 0;
    int64_t worst = 0;
};
Spread spreadOf(std::vector<int64_t> values);

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
};

/// A dwell that does not fit, with the frame it belongs to.
struct ReportedBreak {
    int64_t frameNo = 0;
    int64_t mediaTimeUs = 0;
    int dwell = 0;
    int expected = 0;
    bool byArithmetic = false;
    std::string cause;  ///< what happened there as far as the record tells; may be empty
};

/// Between two flushes.
struct SectionReport {
    int64_t firstFrameUs = -1;   ///< from start or flush to the first frame's vsync
    int64_t secondFrameUs = -1;  ///< from the first frame's vsync to the second's
    /// From audio start, else from the first frame, until the pattern held; -1: it did not.
    int64_t heldAfterUs = -1;
    bool afterAudio = false;  ///< `heldAfterUs` counts from audio start
    std::string seen;         ///< pattern that the dwells follow; empty: none
    CadenceResult cadence;
    std::vector<ReportedBreak> breaks;
    int64_t framesInStep = 0;
};

struct Summary {
    double contentHz = 0.0;
    double displayHz = 0.0;
    bool variableRate = false;
    ExpectedCadence expected;
    std::vector<SectionReport> sections;  ///< those in which frames were shown

    int64_t framesIn = 0;
    std::array<int64_t, kOutcomes> outcomes{};
    std::map<DropReason, DropGroup> drops;
    std::map<int, int64_t> dwells;  ///< frames by vsyncs on screen
    int64_t byArithmetic = 0;
    int64_t unexpected = 0;
    int64_t explained = 0;  ///< unexpected dwells with a cause that the record tells

    Spread offsetUs;
    Spread backToPlayerNs;  ///< from replaced on screen until the player had the buffer again
    int64_t fences = 0;
    int64_t sentLate = 0;

    bool framesAccounted = false;
    bool buffersBack = false;
    std::string verdict;

    bool ok() const { return framesAccounted && buffersBack; }
    int64_t count(Outcome outcome) const { return outcomes[static_cast<size_t>(outcome)]; }
};

Summary summarise(const PlaybackRecord& record);

/// The report for people; `verdictOnly` leaves it at the first line.
void printReport(std::ostream& out, const PlaybackRecord& record, const Summary& summary,
                 bool verdictOnly);

/// One line per frame, after a header line. Times are microseconds since the library's `start`,
/// media times as in the file; an empty field is unknown or does not apply.
void writeCsv(std::ostream& out, const PlaybackRecord& record);

/// One flat JSON object, one key per line.
void writeJson(std::ostream& out, const PlaybackRecord& record, const Summary& summary);

}  // namespace korvane::player
