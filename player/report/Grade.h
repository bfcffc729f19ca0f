// SPDX-License-Identifier: Apache-2.0
// The grade of a playback: one word that a viewer who saw it would agree with. Pure functions.
//
// The first of these that applies:
//
//   nothing_shown   no picture came on screen
//   stalled         nothing moved any more
//   broken_off      the file breaks off
//   interrupted     somebody ended it; a stop at a time asked for is none
//   faulty          a frame or a buffer unaccounted for, or a picture overwritten on screen
//   out_of_sync     lip-sync where viewers notice it (ITU-R BT.1359-1: sound more than 45 ms early
//                   or 125 ms late) for more than a second and a thousandth of the time, or for
//                   more than a twentieth of it. The narrower band of EBU R37 is what a broadcaster
//                   may add, with a margin for the chain behind it; it can be expected, but
//                   is not the viewer's
//   uneven          a dwell that the rates do not demand, but for those that the player asked for
//                   (a pause), or a frame dropped that could have been shown
//   too_short       no stretch of at least ten frames whose rate is known
//   as_rates_allow  as even as can be, but visibly not even: frames skipped, or a cycle longer than
//                   two frames, or slips less than 8 s apart
//   even            all else
#pragma once

#include <optional>

#include "player/report/Summary.h"

namespace korvane::player {

/// Unevenness that no renderer can avoid at these two rates.
struct RateLimit {
    enum class Kind { None, Skipped, Long, Short };
    Kind kind = Kind::None;
    double perSecond = 0.0;  ///< frames skipped, or longer or shorter than the others
    bool visible = false;    ///< a viewer who looks for it sees it
};
RateLimit rateLimit(const ExpectedCadence& expected);

/// Frames dropped before audio, by a flush or by the sync policy are not shown by intention.
bool avoidable(DropReason reason);
int64_t avoidableDrops(const Summary& summary);

/// The stretch with the most frames; there is at least one.
const StretchReport& longestStretch(const Summary& summary);

/// Even, or as even as the rates allow, wherever it can be judged.
bool isEven(const Summary& summary);
/// Empty where no frame came on screen while something was heard.
std::optional<bool> isInSync(const LipSync& sync);
/// Played to its end, or to the time asked for.
bool isComplete(EndCause end);

/// @param summary  with all but the verdict and what belongs to it
Grade gradeOf(const PlaybackRecord& record, const Summary& summary);

}  // namespace korvane::player
