// SPDX-License-Identifier: Apache-2.0
// Why a frame stayed on screen for a number of vsyncs that its pattern did not want.
//
// A picture's time on screen comes from its media time in steps, and each can be looked at:
//
//   media time -> clock's real time -> handed in, or dropped -> presentation time -> vsync
//
// The first of these that applies to the frame, else to the nearest one around it (a pattern finds
// its break some frames before or after it happened):
//
//   pause, resume    the player stood still, or had shortly before; the pause itself is no fault
//   underflow        the clock stood still for want of audio, now or shortly before
//   drop, lost       the next frame was dropped, or never accounted for, so this one stayed instead
//   late_frame       this frame or the next was handed in too late: late decode, no free buffer
//   late_on_screen   the next one came on screen later than at the first vsync that it was due
//   source_gap       frames are missing in the source: their media times leave room for more
//   clock_moved      the clock's real times moved against the media times: a new anchor
//   timestamps       the media times are irregular by themselves
//
// else, if they say nothing:
//
//   start, flush, mode_change, rate_change   the stretch had just begun so
//   renderer         all that came in was regular, and the picture was on screen when the renderer
//                    said
//   wrong_pattern    the same, for more than a tenth of a stretch: the renderer keeps a pattern in
//                    force that the content does not have
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

/// What is known of a frame whose dwell may turn out not to fit. Times are monotonic.
struct DwellFacts {
    int64_t frameNo = 0;
    int64_t mediaTimeUs = 0;
    int64_t shownUs = 0;  ///< first vsync; of a superseded frame, when it was released
    int64_t releasedUs = 0;
    std::optional<int64_t> clockUs;  ///< the clock's real time for it
    int dwell = 0;                   ///< vsyncs on screen; 0: superseded
    bool sentLate = false;

    // Of the frames after it, up to the next one that reached the tunnel.
    bool nextSentLate = false;
    bool nextLost = false;
    std::optional<DropReason> nextDropped;
    int64_t nextLateUs = 0;      ///< on screen so long after the vsync at which it was due
    int64_t sourceOffUs = 0;     ///< step of the media times minus that of the content's rate
    int64_t clockMovedUs = 0;    ///< step of the clock's times minus that of the media times
    double contentStepUs = 0.0;  ///< of one frame
};

DwellFacts dwellFacts(const FrameEntry& frame);
/// Adds what the frame handed in next tells; call for each, up to one that reached the tunnel.
void addNext(DwellFacts* facts, const FrameEntry& next, double contentHz, double displayHz);

/// Where a stretch began, and when.
struct StretchStart {
    BreakCause cause = BreakCause::Start;
    int64_t atUs = 0;
};

struct FoundCause {
    BreakCause cause = BreakCause::Unexplained;
    DwellFacts where;  ///< the frame that tells it
};

/// @param at  index of the frame with the break among its neighbours
FoundCause causeOfBreak(const std::deque<DwellFacts>& frames, size_t at,
                        const std::vector<ClockStop>& stops, const StretchStart& start);
/// The cause in words, with what is known of it; empty: unexplained.
std::string tellCause(const FoundCause& found);

}  // namespace korvane::player
