// SPDX-License-Identifier: Apache-2.0
// Cadence: for how many vsyncs each frame stays on screen, as the two rates demand it. Pure
// functions.
//
// Content of f frames a second on a display of R vsyncs a second needs r = R/f vsyncs a frame. The
// nearest short fraction p/q gives the pattern, q frames on p vsyncs; what is left over, r - p/q,
// adds up to a slip, one vsync more or less every 1/|r - p/q| frames, which no renderer can avoid.
// Where slips come more often than every 6 s, the pattern is never on screen for long: then the
// name is the two dwells and their ratio.
//
//   content  display   r        pattern         slip that arithmetic demands
//   24       60        2.5      [3:2]           none
//   23.976   60        2.5025   [3:2]           one vsync more every 16.7 s
//   24       59.94     2.4975   [3:2]           one vsync less every 16.7 s
//   30       60        2        [2:2]           none
//   60       60        1        [1:1]           none
//   59.94    60        1.001    [1:1]           one vsync more every 16.7 s
//   25       50        2        [2:2]           none
//   25       60        2.4      [2:3:2:3:2]     none
//   50       60        1.2      [1:1:2:1:1]     none
//   48       50        1.0417   (1 and 2, 23:1) one vsync more every 0.5 s
//
// Content whose own frames differ in length in a cycle keeps it where the display can: soft
// telecine, 3 and 2 fields of 59.94 Hz, is [6:4] on 120 Hz, not [5:5].
//
// The dwells that were seen are compared with the pattern so that the fewest breaks remain
// (CadenceTracker). A break is a dwell other than the one that the pattern wanted next; after it
// the pattern goes on in step or at another of its frames. The latter is how a slip comes in a
// pattern of q frames: in q steps, each of which moves the frames by 1/q vsync on average and shows
// as one dwell that is off by one.
//
//   25 fps on 59.94 Hz   2:3:2:3:2 2:3:2:2:3 2:3:2:2:3   every 3.3 s: "2 instead of 3"
//
// A break of one vsync in the direction of the slip is by arithmetic as long as it moves the frames
// no further than was due. The first dwell of all may be off by one, as playback begins somewhere
// between two vsyncs. Everything else is unexpected.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace korvane::player {

struct ExpectedCadence {
    double contentHz = 0.0;
    double displayHz = 0.0;
    /// Vsyncs of each frame of one cycle; empty when a rate is unknown.
    std::vector<int> pattern;
    /// Vsyncs that each frame needs beyond the pattern's mean; negative: fewer.
    double slipPerFrame = 0.0;

    /// "[3:2]", "[2:2]"; "1 and 2 vsyncs, 23:1" where no short pattern exists; empty without rates.
    std::string name() const;
    /// Seconds from one demanded slip of a whole vsync to the next; 0: none within a day.
    double secondsPerSlip() const;
};

/// The cadence of a content rate on a display rate, both in Hz and above 0.
/// @param cycle  the length of each frame of the content's own cycle, in units of the mean, if they
///               differ. Where each is a whole number of vsyncs, the pattern follows them
ExpectedCadence expectedCadence(double contentHz, double displayHz,
                                const std::vector<double>& cycle = {});

/// "[3:2]"; a pattern of one dwell n is written "[n:n]".
std::string patternName(const std::vector<int>& pattern);

struct DwellBreak {
    size_t index = 0;  ///< into the dwells
    int dwell = 0;     ///< vsyncs seen
    int expected = 0;  ///< vsyncs that the pattern wanted here
    bool byArithmetic = false;
    bool atStart = false;  ///< the first dwell, off by one: playback began between two vsyncs
};

struct CadenceResult {
    /// A steady run was found; `heldFrom` is the index of its first dwell.
    bool held = false;
    size_t heldFrom = 0;
    size_t inStep = 0;  ///< dwells from there on that were no break
    size_t byArithmetic = 0;
    size_t unexpected = 0;
    /// Of these, those from before the pattern held; all, if it never did.
    size_t unexpectedBefore = 0;

    bool stayed() const { return held && unexpected == unexpectedBefore; }
};

/// Frames in step that count as a steady run.
constexpr size_t kSteadyRunFrames = 10;

/// The pattern that the dwells themselves follow, whatever was expected: the shortest cycle, of at
/// most 12 frames, after which nineteen of twenty dwells repeat; empty when there is none.
std::vector<int> seenPattern(const std::vector<int>& dwells);
/// Its name; where there is none, the two neighbouring dwells that nineteen of twenty frames have,
/// and their ratio; else empty.
std::string seenPatternName(const std::vector<int>& dwells);

/// True when one pattern is the other started at a different frame.
bool samePattern(const std::vector<int>& left, const std::vector<int>& right);

}  // namespace korvane::player
