// SPDX-License-Identifier: Apache-2.0
// The sound that was heard: samples of the film at the times at which they were audible, silence
// between. The TV's sound record says which media time was audible when; the samples come from what
// the film's audio reader decoded.
#pragma once

#include <cstdint>
#include <vector>

#include "player/media/SoundStore.h"
#include "tv/SoundRecord.h"

namespace korvane::player {

/// A number of samples of real time at 48 kHz, left and right in turn.
/// @param originNs    monotonic time of sample 0
/// @param fromSample  the first sample that is wanted
std::vector<float> heardSound(const tv::SoundRecord& record, const SoundStore& store,
                              int64_t originNs, int64_t fromSample, int64_t count);

}  // namespace korvane::player
