// SPDX-License-Identifier: Apache-2.0
// Vector clocks: for each thread, the last of its times that happens before now. A thread's own
// time grows whenever it releases something, which separates what it does before from what it does
// after.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace korvane::tv {

class VectorClock {
public:
    uint32_t of(uint32_t thread) const { return thread < mTimes.size() ? mTimes[thread] : 0; }

    void set(uint32_t thread, uint32_t time) {
        if (thread >= mTimes.size()) {
            mTimes.resize(thread + 1);
        }
        mTimes[thread] = time;
    }

    void join(const VectorClock& other) {
        if (mTimes.size() < other.mTimes.size()) {
            mTimes.resize(other.mTimes.size());
        }
        for (size_t i = 0; i < other.mTimes.size(); ++i) {
            mTimes[i] = std::max(mTimes[i], other.mTimes[i]);
        }
    }

    /// Keeps the memory.
    void clear() { mTimes.clear(); }

private:
    std::vector<uint32_t> mTimes;
};

}  // namespace korvane::tv
