// SPDX-License-Identifier: Apache-2.0
// The verdict: whether all frames and buffers are accounted for, and one sentence on the cadence.
#pragma once

#include "player/report/Summary.h"

namespace korvane::player {

/// Sets the summary's verdict and what it rests on, from the rest of the summary. Pure.
void giveVerdict(const PlaybackRecord& record, Summary* summary);

}  // namespace korvane::player
