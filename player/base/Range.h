// SPDX-License-Identifier: Apache-2.0
// Ranges of numbers and spans of time.
#pragma once

#include <cstdint>

namespace korvane::player {

/// A span of time: from `atUs` on, for `forUs`.
struct Span {
    int64_t atUs = 0;
    int64_t forUs = 0;
    bool covers(int64_t timeUs) const { return timeUs >= atUs && timeUs - atUs < forUs; }
};

/// A range with both ends included; the defaults leave an end open.
struct Range {
    int64_t least = INT64_MIN;
    int64_t most = INT64_MAX;
    bool holds(int64_t value) const { return value >= least && value <= most; }
};

}  // namespace korvane::player
