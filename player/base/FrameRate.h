// SPDX-License-Identifier: Apache-2.0
// A rate as a fraction: frames of content or vsyncs of a display per second.
//
// Broadcast rates are written with few decimals and mean fractions of 1001:
//
//   written                 is taken as
//   23.976, 23.98           24000/1001
//   29.97                   30000/1001
//   47.952, 47.95           48000/1001
//   59.94                   60000/1001
//   119.88                  120000/1001
//
// Options and scenarios, content and display all go through `nominalRate`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace korvane::player {

struct FrameRate {
    int64_t frames = 24;
    int64_t seconds = 1;
    double hz() const { return static_cast<double>(frames) / static_cast<double>(seconds); }
};

/// The fraction that a decimal means: the broadcast rate within 0.005 Hz of it, else the decimal
/// itself to six places. 0 if `hz` is not a rate: 0 or less, or higher than any display's.
FrameRate nominalRate(double hz);

/// Reads "24", "23.976" or "60000/1001".
/// @return nothing if the text is not a rate, or is 0
std::optional<FrameRate> parseRate(const std::string& text);

/// "24", "59.94", "60000/1001": as it was taken, with the fraction where the decimals are rounded.
std::string toString(const FrameRate& rate);

}  // namespace korvane::player
