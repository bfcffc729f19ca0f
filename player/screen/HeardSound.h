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

/// When samples are audible, in microseconds of the monotonic clock.
struct SampleTimes {
    double originUs = 0.0;  ///< of sample 0
    double perUs = kSoundHz / 1e6;
};

/// A number of samples of real time, left and right in turn.
/// @param fromSample  the first sample that is wanted
std::vector<float> heardSound(const tv::SoundRecord& record, const SoundStore& store,
                              const SampleTimes& times, int64_t fromSample, int64_t count);

}  // namespace korvane::player
