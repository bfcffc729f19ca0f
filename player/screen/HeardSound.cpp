// SPDX-License-Identifier: Apache-2.0
#include "player/screen/HeardSound.h"

#include <algorithm>
#include <cmath>

namespace korvane::player {
namespace {

constexpr double kSamplesPerUs = kSoundHz / 1e6;

}  // namespace

/// Within a stretch, the place of each sample is computed from the stretch's beginning, so that
/// it does not depend on how the sound is cut into pieces.
std::vector<float> heardSound(const tv::SoundRecord& record, const SoundStore& store,
                              const SampleTimes& times, int64_t fromSample, int64_t count) {
    std::vector<float> heard(static_cast<size_t>(count * kSoundChannels));
    for (const auto& stretch : record.stretches()) {
        const double beginsAt =
            (static_cast<double>(stretch.fromRealUs) - times.originUs) * times.perUs;
        const double endsAt =
            (static_cast<double>(stretch.toRealUs) - times.originUs) * times.perUs;
        const auto first = std::max(beginsAt, static_cast<double>(fromSample));
        const auto end = std::min(endsAt, static_cast<double>(fromSample + count));
        if (first >= end) {
            continue;
        }
        const double speed = stretch.speed * kSamplesPerUs / times.perUs;  // film's per device's
        const auto filmSample = [&](int64_t sample) {
            return std::llround(static_cast<double>(stretch.fromMediaUs) * kSamplesPerUs +
                                (static_cast<double>(sample) - beginsAt) * speed);
        };
        const auto last = static_cast<int64_t>(std::ceil(end));
        for (auto sample = static_cast<int64_t>(std::ceil(first)); sample < last;) {
            // The run of samples that are consecutive in the film, too: all of them, unless the
            // speed is not 1.
            const int64_t from = filmSample(sample);
            int64_t run = 1;
            while (sample + run < last && filmSample(sample + run) == from + run) {
                ++run;
            }
            store.read(from, run, heard.data() + (sample - fromSample) * kSoundChannels);
            sample += run;
        }
    }
    return heard;
}

}  // namespace korvane::player
