// SPDX-License-Identifier: Apache-2.0
// Instructions as places in the source: "function file:line", by addr2line; without it, or without
// line tables, "function library+offset". Slow: for reports only, and not in virtual time.
#pragma once

#include <string>
#include <vector>

namespace korvane::tv {

/// @param codes  return addresses; null gives an empty string
std::vector<std::string> placesOf(const std::vector<const void*>& codes);

}  // namespace korvane::tv
