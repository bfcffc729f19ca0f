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

/// The value at a place in the order of size, counting from 1.
int64_t valueAt(const std::map<int64_t, int64_t>& counts, int64_t place) {
    auto count = counts.begin();
    while (place > count->second) {
        place -= (count++)->second;
    }
    return count->first;
}

}  // namespace

bool SpreadCounter::add(int64_t value) {
    const bool worst = mSamples == 0 || std::llabs(value) > std::llabs(mWorst);
    mWorst = worst ? value : mWorst;
    ++mSamples;
    if (mCounted.empty() && mValues.size() < kExact) {
        mValues.push_back(value);
        return worst;
    }
    for (const int64_t kept : mValues) {
        ++mCounted[binOf(kept)];
    }
    mValues.clear();
    mValues.shrink_to_fit();
    ++mCounted[binOf(value)];
    return worst;
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
    std::map<int64_t, int64_t> magnitudes;
    for (const auto& [value, count] : counts) {
        magnitudes[std::llabs(value)] += count;
    }
    spread.samples = mSamples;
    spread.median = (valueAt(counts, (mSamples + 1) / 2) + valueAt(counts, mSamples / 2 + 1)) / 2;
    spread.p99 = valueAt(magnitudes, (mSamples * 99 + 99) / 100);
    spread.worst = mWorst;
    return spread;
}

}  // namespace korvane::player
