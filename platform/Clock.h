// SPDX-License-Identifier: Apache-2.0
// The platform's monotonic clock, in nanoseconds or microseconds, and arithmetic on times that
// saturates instead of overflowing.
#pragma once

#include <utils/Timers.h>

#include <cstdint>
#include <limits>

namespace korvane {

inline int64_t monotonicNowNs() {
    return systemTime(SYSTEM_TIME_MONOTONIC);
}
inline int64_t monotonicNowUs() {
    return monotonicNowNs() / 1000;
}

/// a + b, saturated.
inline int64_t saturatingAdd(int64_t a, int64_t b) {
    int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum)) {
        return sum;
    }
    return a > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

/// a - b, saturated.
inline int64_t saturatingSub(int64_t a, int64_t b) {
    int64_t difference = 0;
    if (!__builtin_sub_overflow(a, b, &difference)) {
        return difference;
    }
    return a >= 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

/// a * b, saturated.
inline int64_t saturatingMul(int64_t a, int64_t b) {
    int64_t product = 0;
    if (!__builtin_mul_overflow(a, b, &product)) {
        return product;
    }
    return (a > 0) == (b > 0) ? std::numeric_limits<int64_t>::max()
                              : std::numeric_limits<int64_t>::min();
}

inline int64_t usToNs(int64_t us) {
    return saturatingMul(us, 1000);
}

}  // namespace korvane
