// SPDX-License-Identifier: Apache-2.0
#include "player/base/FrameRate.h"

#include <cmath>
#include <numeric>

#include "player/base/Units.h"

namespace korvane::player {
namespace {

/// Half of the last place of "23.98", the coarsest name in use, and well below the distance of any
/// two rates that displays or content have.
constexpr double kToleranceHz = 0.005;
constexpr int64_t kBroadcastDivisor = 1001;
/// Decimals that a rate keeps.
constexpr int64_t kParts = 1'000'000;
/// Beyond any display.
constexpr double kHighestHz = 100'000.0;
/// Beyond any rate, and small enough for exact arithmetic with a day of microseconds.
constexpr int64_t kLargestTerm = 100'000'000;

FrameRate reduced(int64_t frames, int64_t seconds) {
    const int64_t divisor = std::gcd(frames, seconds);
    return {frames / divisor, seconds / divisor};
}

std::optional<FrameRate> parseFraction(const std::string& text, size_t slash) {
    const auto frames = parseCount(text.substr(0, slash));
    const auto seconds = parseCount(text.substr(slash + 1));
    if (!frames || !seconds || *frames < 1 || *seconds < 1 || *frames > kLargestTerm ||
        *seconds > kLargestTerm) {
        return std::nullopt;
    }
    return FrameRate{*frames, *seconds};
}

}  // namespace

FrameRate nominalRate(double hz) {
    if (!(hz > 0.0 && hz <= kHighestHz)) {
        return {0, 1};
    }
    for (const int64_t whole : {24, 30, 48, 60, 120}) {
        const FrameRate broadcast{whole * 1000, kBroadcastDivisor};
        if (std::fabs(hz - broadcast.hz()) < kToleranceHz) {
            return broadcast;
        }
    }
    return reduced(std::llround(hz * static_cast<double>(kParts)), kParts);
}

std::optional<FrameRate> parseRate(const std::string& text) {
    if (const size_t slash = text.find('/'); slash != std::string::npos) {
        return parseFraction(text, slash);
    }
    const auto hz = parseDecimal(text);
    const bool inRange = hz && *hz * static_cast<double>(kParts) >= 1.0 && *hz <= kHighestHz;
    return inRange ? std::optional(nominalRate(*hz)) : std::nullopt;
}

std::string toString(const FrameRate& rate) {
    return rate.seconds == kBroadcastDivisor
               ? std::to_string(rate.frames) + "/" + std::to_string(rate.seconds)
               : korvane::player::rate(rate.hz());
}

}  // namespace korvane::player
