// SPDX-License-Identifier: Apache-2.0
#include "player/report/Runs.h"

#include <algorithm>

namespace korvane::player {

void Runs::add(int64_t frameNo) {
    mCurrent = frameNo == mLast + 1 ? mCurrent + 1 : 1;
    runs += mCurrent == 1 ? 1 : 0;
    longest = std::max(longest, mCurrent);
    mLast = frameNo;
    ++frames;
}

}  // namespace korvane::player
