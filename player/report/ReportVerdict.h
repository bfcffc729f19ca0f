// SPDX-License-Identifier: Apache-2.0
// The verdict of a summary: is all accounted for, and one sentence.
#pragma once

#include "player/report/Report.h"

namespace korvane::player {

/// Sets the summary's verdict and what it rests on, from the rest of the summary. Pure.
void giveVerdict(const PlaybackRecord& record, Summary* summary);

}  // namespace korvane::player
