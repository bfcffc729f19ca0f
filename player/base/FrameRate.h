// SPDX-License-Identifier: Apache-2.0
// A frame rate as a fraction, as containers and broadcast standards have it.
#pragma once

#include <cstdint>

namespace korvane::player {

/// Frames per second as a fraction: 23.976 is 24000/1001.
struct FrameRate {
    int64_t frames = 24;
    int64_t seconds = 1;
    double hz() const { return static_cast<double>(frames) / static_cast<double>(seconds); }
};

}  // namespace korvane::player
