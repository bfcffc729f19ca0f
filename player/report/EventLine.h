// SPDX-License-Identifier: Apache-2.0
// One event as a line of the event log.
//
//   0.050000000 sent frame=12 media_us=500000 buffer=3
//   0.391262166 shown frame=12 vsync=23 offset_us=12262
//
// A line is the time since the library's `start` in seconds, what happened, and its numbers.
// Nothing in it depends on the machine: no wall time, address, process or descriptor number.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "player/playback/Event.h"

namespace korvane::player {

/// "seek".
const char* toString(EventKind kind);

/// Appends the line, with its line feed.
void appendLine(const Event& event, int64_t startNs, std::string* to);

/// Reads a line back, without its line feed. The time counts from the library's `start`.
/// @return nothing for a line that `appendLine` does not write
std::optional<Event> parseLine(std::string_view line);

/// A text that the library logged, as it may stand in an event: its numbers, which may be
/// descriptors or times, are replaced by "#".
std::string withoutNumbers(const std::string& text);

}  // namespace korvane::player
