// SPDX-License-Identifier: Apache-2.0
// Values as people write and read them on the command line and in reports.
//
// Options and scenarios read their values through the same parsers. Inside, a time is a signed
// 64-bit number of microseconds, or of nanoseconds where the TV's record has them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace korvane::player {

/// Reads digits only, "1920".
std::optional<int64_t> parseCount(const std::string& text);
/// Reads a number of 0 or more without sign or exponent, "59.94".
std::optional<double> parseDecimal(const std::string& text);

/// Reads a duration: "90s", "200ms", "16us", "1h30m" from the largest unit down, with a sign
/// "-20ms"; a number alone is seconds, "1.5".
/// @return microseconds, or nothing when the text is not a duration or is longer than `kLongestUs`
std::optional<int64_t> parseDuration(const std::string& text);
/// Whether a text is a duration that `parseDuration` refuses for its length alone.
bool isTooLong(const std::string& text);

/// Two durations of 0 or more joined by a colon, such as "5s:800ms".
struct DurationPair {
    int64_t firstUs = 0;
    int64_t secondUs = 0;
};
std::optional<DurationPair> parseDurationPair(const std::string& text);

/// Reads how much faster than it should something runs, in parts per million: "50ppm", "-0.5",
/// "1e2".
/// @return nothing when the text is not such a number or is beyond `kMostDriftPpm`
std::optional<double> parseDrift(const std::string& text);

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
