// SPDX-License-Identifier: Apache-2.0
// Why a frame stayed on screen for a number of vsyncs that its pattern did not want.
//
// A picture's time on screen follows from its media time in steps, each of which is on record:
//
//   media time -> clock's real time -> handed in, or dropped -> presentation time -> vsync
//
// The first of these that applies to the frame, else to the nearest one around it (a pattern finds
// its break some frames before or after it happened):
//
//   pause, resume    the player stood still, or had shortly before; the pause itself is no fault
//   underflow        the clock stood still for want of audio, now or shortly before
//   timestamps       the media times went back by more than half a frame
//   late_frame, no_buffer, fence
//                    this frame or the next was handed in too late. The first late frame of such a
//                    row tells why: it was decoded late (late_frame), or the player waited for a
//                    buffer (no_buffer), and a late release fence held that back (fence)
//   refusal, lost    the tunnel refused the next frame, or nothing is known of it
//   policy           the pass-through policy dropped the next frame or left out its time
//   drop             the next frame was dropped for another reason
//   source_gap       frames are missing in the source: their media times leave room for more
//   clock_moved      the clock's real times moved against the media times: a new anchor
//   late_on_screen   the next frame came on screen after the first vsync at which it was due
//   timestamps       the media times are irregular by themselves
//
// else, if the stretch had just begun, what it began with:
//
//   start, flush, mode_change, rate_change
//
// else, if a presentation time near it left the clock's by half a vsync or more, so that the
// renderer moved a frame:
//
//   policy           the pass-through policy decides about times
//   wrong_pattern    by its log, the renderer had a pattern in force that the content does not have
//   renderer         its own choice
//
// Else the break is unexplained.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "player/playback/Playback.h"

namespace korvane::player {

enum class BreakCause {
    Unexplained,
    Pause,
    Resume,
    Underflow,
    Drop,
    Lost,
    LateFrame,
    NoBuffer,
    Fence,
    Refusal,
    Policy,
    LateOnScreen,
    SourceGap,
    ClockMoved,
    Timestamps,
    Start,
    Flush,
    ModeChange,
    RateChange,
    Renderer,
    WrongPattern
};
constexpr int kBreakCauses = static_cast<int>(BreakCause::WrongPattern) + 1;
/// "late_frame".
const char* toString(BreakCause cause);
/// "frames handed in late", to be read after "because of".
const char* describe(BreakCause cause);
/// True for what the player did on purpose.
bool askedFor(BreakCause cause);

/// Why a frame was handed in too late.
enum class Lateness { None, Decoded, NoBuffer, Fence };

/// A release fence that signalled late, or not yet.
struct LateFence {
    int64_t fromNs = 0;
    int64_t toNs = 0;
};

/// @param before  of the frame sent before: one that is late makes the next ones late, too
Lateness latenessOf(const FrameEntry& frame, Lateness before, const LateFence& fence);

/// Facts about a frame, from which a cause is found if its dwell does not fit. Times are monotonic.
struct DwellFacts {
    int64_t frameNo = 0;
    int64_t mediaTimeUs = 0;
    int64_t shownUs = 0;  ///< first vsync; of a superseded frame, when it was released
    int64_t releasedUs = 0;
    std::optional<int64_t> clockUs;  ///< the clock's real time for it
    int dwell = 0;                   ///< vsyncs on screen; 0: superseded
    Lateness late = Lateness::None;

    // Of the frames after it, up to the next one that reached the tunnel.
    Lateness nextLate = Lateness::None;
    bool nextLost = false;
    bool nextRefused = false;  ///< by the tunnel
    bool nextUntimed = false;  ///< the policy left out its presentation time
    std::optional<DropReason> nextDropped;
    int64_t nextLateUs = 0;      ///< between the vsync at which it was due and its own
    int64_t sourceOffUs = 0;     ///< step of the media times minus that of the content's rate
    int64_t clockMovedUs = 0;    ///< step of the clock's times minus that of the media times
    int64_t movedUs = 0;         ///< step of the presentation times minus that of the clock's
    double contentStepUs = 0.0;  ///< of one frame
    double vsyncUs = 0.0;
    int64_t presentationUs = 0;
};

DwellFacts dwellFacts(const FrameEntry& frame, Lateness late);
/// Adds the facts of the frame handed in next; call for each, up to one that reached the tunnel.
void addNext(DwellFacts* facts, const FrameEntry& next, Lateness late, double contentHz,
             double displayHz);

/// How and when a stretch began.
struct StretchStart {
    BreakCause cause = BreakCause::Start;
    int64_t atUs = 0;
};

/// Facts beside those of the frames.
struct BreakSurroundings {
    const std::vector<ClockStop>& stops;
    StretchStart start;
    std::string wrongPattern;  ///< in force then, by the renderer's log, and not the content's
    bool passthrough = false;
};

struct FoundCause {
    BreakCause cause = BreakCause::Unexplained;
    DwellFacts where;  ///< the frame that has it
    std::string wrongPattern;
};

/// @param at  index of the frame with the break among its neighbours
FoundCause causeOfBreak(const std::deque<DwellFacts>& frames, size_t at,
                        const BreakSurroundings& around);
/// The cause in words, with its figures; empty: unexplained.
std::string tellCause(const FoundCause& found);

}  // namespace korvane::player
