// SPDX-License-Identifier: Apache-2.0
// Median, 99th percentile and worst of any number of values, in bounded memory. Every spread in the
// report is defined so:
//
//   median   the middle value; of an even number of values the mean of the two in the middle,
//            towards 0
//   p99      of the magnitudes: the smallest that 99 per cent of the values do not exceed
//   worst    the value with the largest magnitude, with its sign; of several the first
//
// Up to `kExact` values are kept and the percentiles are exact. Beyond that, values are counted in
// bins of at most 1/64 of their size, so a percentile is off by less than one per cent; the worst
// value stays exact.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace korvane::player {

/// All 0 without samples.
struct Spread {
    int64_t samples = 0;
    int64_t median = 0;
    int64_t p99 = 0;  ///< a magnitude
    int64_t worst = 0;
};

class SpreadCounter {
public:
    static constexpr size_t kExact = 8192;

    /// @return whether it is the worst so far
    bool add(int64_t value);
    Spread spread() const;

private:
    int64_t mSamples = 0;
    int64_t mWorst = 0;
    std::vector<int64_t> mValues;         ///< while they are few
    std::map<int64_t, int64_t> mCounted;  ///< once they are many: how many per bin
};

}  // namespace korvane::player
