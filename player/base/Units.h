// SPDX-License-Identifier: Apache-2.0
// Values as people write and read them on the command line and in reports.
//
// Durations are written with a unit, "2s", "200ms", "500us", or as bare seconds, "1.5". Inside, a
// time is a signed 64-bit number of microseconds, or of nanoseconds where the TV's record has them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace korvane::player {

/// Reads a duration of 0 to a million seconds.
/// @return microseconds, or nothing when the text is none
std::optional<int64_t> parseDuration(const std::string& text);

/// Two durations joined by a colon, such as "5s:800ms".
struct DurationPair {
    int64_t firstUs = 0;
    int64_t secondUs = 0;
};
std::optional<DurationPair> parseDurationPair(const std::string& text);

/// "0.417 s": seconds with this many decimals.
std::string seconds(int64_t us, int decimals = 3);
/// "1 frame", "2 frames".
std::string counted(int64_t count, const std::string& one);
/// "+12.4 ms": milliseconds with a sign.
std::string signedMilliseconds(int64_t us);
/// "12.4 ms".
std::string milliseconds(int64_t us);
/// A rate without needless zeros: "24", "59.94", "23.976".
std::string rate(double hz);
/// Content rate in hundredths of a frame per second as the renderer takes it: 29.97 gives 2997.
int rateInHundredths(double hz);

}  // namespace korvane::player
