// SPDX-License-Identifier: Apache-2.0
// Instructions as places in the source: "function file:line", by addr2line. For inlined calls, the
// innermost one outside of the system's headers. Without addr2line, or without line tables,
// "function library+offset". Slow: for reports only, and not in virtual time.
#pragma once

#include <string>
#include <vector>

namespace korvane::tv {

struct SourcePlace {
    std::string text;
    bool ofSystem = false;  ///< in a header of the system, wherever it was inlined
};

/// @param codes  return addresses; null gives an empty text
std::vector<SourcePlace> placesOf(const std::vector<const void*>& codes);

}  // namespace korvane::tv
