// SPDX-License-Identifier: Apache-2.0
// Synthetic content as a scenario describes it: frames by rate or one by one, the container's
// rounding, and what is wrong with the stream. Times are microseconds of media time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "player/base/FrameRate.h"

namespace korvane::player {

/// What a container makes of a frame's exact time.
enum class Rounding {
    Exact,     ///< to the microsecond
    Matroska,  ///< to the millisecond
    MpegTs     ///< to the tick of 90 kHz
};

struct ContentPlan {
    FrameRate rate;
    int64_t durationUs = 10'000'000;
    Rounding rounding = Rounding::Exact;
    int64_t startUs = 0;         ///< media time of frame 0
    std::vector<int64_t> times;  ///< media times one by one, instead of a rate and a duration
    std::string file;            ///< a real file, instead of all the others

    std::vector<int64_t> missing;    ///< frame numbers that are not delivered
    std::vector<int64_t> duplicate;  ///< delivered twice with the same time
    struct Bunch {
        int64_t atFrame = 0;
        int64_t frames = 0;
    };
    std::vector<Bunch> bunches;  ///< these frames carry the time of the first of them
    struct Jump {
        int64_t atFrame = 0;
        int64_t byUs = 0;
    };
    std::vector<Jump> jumps;  ///< from this frame on, media time is this much further
};

}  // namespace korvane::player
