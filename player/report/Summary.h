// SPDX-License-Identifier: Apache-2.0
// The summary: what a playback's record says, as numbers with a verdict.
//
// ReportBuilder makes it from the TV's record (what was on screen at which vsync), the ledger's
// outcomes and the sync clock's times; nothing is guessed. Texts, files and expectations read it.
//
// A section, which playback counts, lies between two flushes. A stretch lies inside a section and
// also ends where the display or the content changes its rate: each stretch has one expected
// pattern.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "player/playback/Playback.h"
#include "player/report/BreakCause.h"
#include "player/report/Cadence.h"
#include "player/report/JudderMeter.h"
#include "player/report/LipSync.h"
#include "player/report/Runs.h"
#include "player/report/Spread.h"

namespace korvane::player {

/// How good a playback was, from the worst to the best (Grade.h says what each means).
enum class Grade {
    NothingShown,
    Stalled,
    BrokenOff,
    Interrupted,
    Faulty,
    OutOfSync,
    Uneven,
    TooShort,
    AsRatesAllow,
    Even
};
/// "as_rates_allow".
const char* toString(Grade grade);

struct DropGroup {
    Runs runs;
    int64_t fromLog = 0;  ///< of these, how many reasons come from the library's own line
    FrameAt first;
};

/// An unexpected dwell, with the frame it belongs to.
struct ReportedBreak {
    int64_t frameNo = 0;
    int64_t mediaTimeUs = 0;
    int64_t shownUs = 0;  ///< since `start`
    int dwell = 0;
    int expected = 0;
    std::string cause;  ///< what happened there as far as the record tells; may be empty
};

/// Breaks of which each follows the one before within two seconds: one fault that goes on. Media
/// times.
struct BreakSpan {
    int64_t fromUs = 0;
    int64_t toUs = 0;
    int64_t breaks = 0;  ///< 0: there is none
    int64_t longer = 0;  ///< of these, frames longer on screen than expected
    bool toEnd = false;  ///< it lasts until the stretch ends

    int64_t lengthUs() const { return toUs - fromUs; }
};

/// Where a stretch begins.
enum class StretchBegin {
    Section,
    ModeChange,  ///< the display changes its rate
    RateChange   ///< the content changes its rate
};

/// Playback without a flush and without a change of the display's or the content's rate.
struct StretchReport {
    int section = 0;  ///< index into the record's sections
    StretchBegin begin = StretchBegin::Section;
    double displayHz = 0.0;
    ExpectedCadence expected;
    FrameAt firstOut;            ///< first frame off the pattern
    int64_t firstFrameUs = -1;   ///< from the section's beginning to the first frame's vsync
    int64_t secondFrameUs = -1;  ///< from the first frame's vsync to the second's
    /// From audio start, else from the first frame, else from the change of the display's rate,
    /// until the pattern held; -1: it did not.
    int64_t heldAfterUs = -1;
    bool afterAudio = false;            ///< `heldAfterUs` counts from audio start
    std::string seen;                   ///< what the dwells follow, as in Cadence.h; empty: nothing
    CadenceResult cadence;              ///< all 0 unless `judged`
    std::vector<ReportedBreak> breaks;  ///< the first unexpected ones
    std::map<BreakCause, int64_t> causes;  ///< of all unexpected dwells
    std::string wrongPattern;   ///< in force although the content does not have it; empty: none
    int64_t disturbances = 0;   ///< those of a second, and not asked for, count as one
    int64_t firstBreakUs = -1;  ///< media time of the first of these
    int64_t lastBreakUs = -1;   ///< from the first frame's vsync to the last of these
    BreakSpan ongoing;          ///< the longest fault that goes on
    size_t dwells = 0;          ///< frames that took part in the cadence
    std::map<int, FrameAt> firstByDwell;  ///< the first of those frames of each dwell
    /// Frames off the pattern that took no part in it, by vsyncs on screen.
    std::map<int, int64_t> unjudged;

    /// False: too few frames to tell a pattern.
    bool judged() const { return dwells >= kSteadyRunFrames; }
};

/// A measured time and the frame it was measured at.
struct MeasuredAt {
    int64_t us = 0;
    FrameAt frame;
};

/// Offsets of all frames shown from the sync clock; positive: the picture was late.
struct OffsetReport {
    Spread us;
    MeasuredAt least;
    MeasuredAt most;
};

/// A splice that was passed on screen.
struct SpliceReport {
    int64_t mediaTimeUs = 0;  ///< of the first frame shown after it
    FrameAt frame;
    int64_t lostUs = 0;  ///< see SpliceMeter.h
};

struct Summary {
    double contentHz = 0.0;     ///< of the most frames
    double displayHz = 0.0;     ///< at the start, with its drift
    bool variableRate = false;  ///< the content changes its rate; each stretch has its own
    ExpectedCadence expected;   ///< for those two
    std::vector<StretchReport> stretches;  ///< those in which frames were shown

    int64_t framesIn = 0;
    std::array<int64_t, kOutcomes> outcomes{};
    std::map<DropReason, DropGroup> drops;
    std::array<FrameAt, kOutcomes> firstOf;
    std::map<int, int64_t> dwells;  ///< frames by vsyncs on screen

    // Sums over the stretches.
    std::map<int, FrameAt>
        cadenceDwells;  ///< the first frame of each dwell that counts for cadence
    int64_t byArithmetic = 0;
    int64_t unexpected = 0;
    std::map<BreakCause, int64_t> causes;  ///< of these
    int64_t askedFor = 0;                  ///< of these, how many because the player asked for it
    int64_t disturbances = 0;
    std::string wrongPattern;   ///< of the last stretch that has one
    int64_t firstBreakUs = -1;  ///< of the first stretch that has one
    BreakSpan ongoing;          ///< the longest
    std::map<int, int64_t> unjudged;

    JudderReport judder;
    double visibleBreaksPerMinute = 0.0;  ///< disturbances in a minute shown
    LipSync lipSync;                      ///< against the sound that was heard
    OffsetReport offset;                  ///< against the sync clock
    MeasuredAt longestResume{-1, {}};  ///< from the end of a clock stop to the next frame; -1: none
    Spread backToPlayerNs;  ///< from replaced on screen until the player had the buffer again
    int64_t fences = 0;
    int64_t sentLate = 0;
    int64_t refusedByTunnel = 0;  ///< of the frames lost
    std::vector<SpliceReport> splices;

    bool sumHolds = false;  ///< the outcomes add up to the frames handed in
    bool framesAccounted = false;
    bool buffersBack = false;

    // Independent facts.
    bool even = false;  ///< even, or as even as the rates allow
    std::optional<bool>
        inSync;             ///< lip-sync kept its band; empty: nothing was heard with a picture
    bool complete = false;  ///< played to its end, or to the time asked for
    Grade grade = Grade::NothingShown;
    std::string verdict;  ///< the grade in words, with its figures

    /// Every frame and every buffer is accounted for.
    bool accounted() const { return framesAccounted && buffersBack; }
    bool ok() const {
        return accounted() && complete && grade != Grade::NothingShown && grade != Grade::Faulty;
    }
    int64_t unexplained() const { return unexpected - explained(); }
    int64_t explained() const {
        const auto found = causes.find(BreakCause::Unexplained);
        return unexpected - (found == causes.end() ? 0 : found->second);
    }
    int64_t worstSpliceUs() const {
        int64_t worstUs = 0;
        for (const auto& splice : splices) {
            worstUs = std::max(worstUs, splice.lostUs);
        }
        return worstUs;
    }
    int64_t count(Outcome outcome) const { return outcomes[static_cast<size_t>(outcome)]; }
};

}  // namespace korvane::player
