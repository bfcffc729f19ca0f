// SPDX-License-Identifier: Apache-2.0
// Run lengths: how many frames of one kind there are, and how many of them follow each other.
#pragma once

#include <cstdint>

namespace korvane::player {

struct Runs {
    int64_t frames = 0;
    int64_t runs = 0;     ///< of consecutive frame numbers
    int64_t longest = 0;  ///< frames in the longest run

    /// Counts a frame. Frames come in ascending order.
    void add(int64_t frameNo);

private:
    int64_t mLast = -2;
    int64_t mCurrent = 0;
};

}  // namespace korvane::player
