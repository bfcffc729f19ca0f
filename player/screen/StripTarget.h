// SPDX-License-Identifier: Apache-2.0
// The moment that a contact sheet is about, as it is asked for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace korvane::player {

struct StripTarget {
    enum class Kind { FirstBreak, Frame, Time };
    Kind kind = Kind::FirstBreak;
    int64_t value = 0;  ///< number of the frame, or microseconds since `start`
};

/// Reads "break", "frame:500" or a duration.
std::optional<StripTarget> parseStripTarget(const std::string& text);

}  // namespace korvane::player
