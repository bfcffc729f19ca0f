// SPDX-License-Identifier: Apache-2.0
// Median, 99th percentile and worst of any number of values, in bounded memory.
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
    std::map<int64_t, int64_t> mCounted;  ///< once they are many: how many per bin
};

}  // namespace korvane::player
