// SPDX-License-Identifier: Apache-2.0
// Content as a scenario describes it: a media file, or synthetic frames at a rate or at listed
// times, with the rounding of a container and faults of the stream. Times are microseconds of media
// time; frames are counted from 0.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "player/base/FrameRate.h"

namespace korvane::player {

/// How a container rounds media times.
enum class Rounding {
    Exact,     ///< to the microsecond
    Matroska,  ///< to 1 ms
    MpegTs     ///< to 1/90000 s
};

struct ContentPlan {
    FrameRate rate;
    int64_t durationUs = 10'000'000;
    Rounding rounding = Rounding::Exact;
    int64_t startUs = 0;         ///< media time of frame 0
    std::vector<int64_t> times;  ///< of each frame, instead of rate and duration
    std::string file;            ///< a media file, instead of all other fields

    std::vector<int64_t> missing;    ///< frames that are not delivered
    std::vector<int64_t> duplicate;  ///< frames that are delivered twice
    struct Bunch {
        int64_t atFrame = 0;
        int64_t frames = 0;
    };
    std::vector<Bunch> bunches;  ///< these frames have the media time of the first of them
    struct Jump {
        int64_t atFrame = 0;
        int64_t byUs = 0;
    };
    std::vector<Jump> jumps;  ///< from this frame on, media times are shifted by this much
    /// The same in a container whose times may jump: the player makes them continuous.
    std::vector<Jump> splices;
};

}  // namespace korvane::player
