// SPDX-License-Identifier: Apache-2.0
// The verdict: the grade with its figures in one sentence, and whether all frames and buffers are
// accounted for.
#pragma once

#include "player/report/Summary.h"

namespace korvane::player {

/// Sets the summary's verdict and what it rests on, from the rest of the summary. Pure.
void giveVerdict(const PlaybackRecord& record, Summary* summary);

}  // namespace korvane::player
