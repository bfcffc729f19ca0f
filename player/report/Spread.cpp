// SPDX-License-Identifier: Apache-2.0
#include "player/report/Spread.h"

#include <algorithm>
#include <cstdlib>

namespace korvane::player {
namespace {

/// The middle of a value's bin: each value below 128 is a bin of its own, then every power of two
/// has 64 bins.
int64_t binOf(int64_t value) {
    constexpr int64_t kBinsPerPower = 64;
    const int64_t size = std::llabs(value);
    int shift = 0;
    while ((size >> shift) >= 2 * kBinsPerPower) {
        ++shift;
    }
    const int64_t middle = ((size >> shift) << shift) + ((int64_t{1} << shift) / 2);
    return value < 0 ? -middle : middle;
}

}  // namespace

void SpreadCounter::add(int64_t value) {
    mWorst = mSamples == 0 || std::llabs(value) > std::llabs(mWorst) ? value : mWorst;
    ++mSamples;
    if (mCounted.empty() && mValues.size() < kExact) {
        mValues.push_back(value);
        return;
    }
    for (const int64_t kept : mValues) {
        ++mCounted[binOf(kept)];
    }
    mValues.clear();
    mValues.shrink_to_fit();
    ++mCounted[binOf(value)];
}

Spread SpreadCounter::spread() const {
    Spread spread;
    if (mSamples == 0) {
        return spread;
    }
    std::map<int64_t, int64_t> counts = mCounted;
    for (const int64_t value : mValues) {
        ++counts[value];
    }
    // Nearest rank: the smallest value that so many per cent do not exceed.
    const auto rank = [&](int64_t percent) {
        int64_t left = (mSamples * percent + 99) / 100;
        auto count = counts.begin();
        while (left > count->second) {
            left -= (count++)->second;
        }
        return count->first;
    };
    spread.samples = mSamples;
    spread.median = rank(50);
    spread.p99 = rank(99);
    spread.worst = mWorst;
    return spread;
}

}  // namespace korvane::player
