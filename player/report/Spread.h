// SPDX-License-Identifier: Apache-2.0
// Median, 99th percentile and worst of any number of values, in bounded memory.
//
// The first `kExact` values are kept as they are and the percentiles are exact. Beyond that, values
// are counted in steps of at most 1/64 of their size, which bounds the error of a percentile to
// less than one per cent; the worst value stays exact. Same values, same result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace korvane::player {

/// Median, p99 and the value farthest from 0; all 0 without samples.
struct Spread {
    int64_t samples = 0;
    int64_t median = 0;
    int64_t p99 = 0;
    int64_t worst = 0;
};

class SpreadCounter {
public:
    static constexpr size_t kExact = 8192;

    void add(int64_t value);
    Spread spread() const;

private:
    int64_t mSamples = 0;
    int64_t mWorst = 0;
    std::vector<int64_t> mValues;         ///< while they are few
    std::map<int64_t, int64_t> mCounted;  ///< once they are many: how many per step
};

}  // namespace korvane::player
