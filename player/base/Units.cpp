// SPDX-License-Identifier: Apache-2.0
#include "player/base/Units.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace korvane::player {
namespace {

/// Longest duration taken: beyond any playback, and far from overflow in nanoseconds.
constexpr double kMaxDurationUs = 1e12;

std::string fixed(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

/// Microseconds of one unit; 0 for a text that is no unit.
double unitUs(const std::string& unit) {
    if (unit.empty() || unit == "s") {
        return 1e6;
    }
    if (unit == "ms") {
        return 1e3;
    }
    return unit == "us" ? 1.0 : 0.0;
}

}  // namespace

std::optional<int64_t> parseDuration(const std::string& text) {
    // strtod alone would also take signs, "inf", "nan" and hexadecimal.
    size_t digits = 0;
    while (digits < text.size() &&
           (std::isdigit(static_cast<unsigned char>(text[digits])) != 0 || text[digits] == '.')) {
        ++digits;
    }
    if (digits == 0) {
        return std::nullopt;
    }
    const std::string number = text.substr(0, digits);
    char* end = nullptr;
    const double value = std::strtod(number.c_str(), &end);
    const double us = value * unitUs(text.substr(digits));
    if (*end != '\0' || unitUs(text.substr(digits)) == 0.0 || us > kMaxDurationUs) {
        return std::nullopt;
    }
    return std::llround(us);
}

std::optional<DurationPair> parseDurationPair(const std::string& text) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    const auto first = parseDuration(text.substr(0, colon));
    const auto second = parseDuration(text.substr(colon + 1));
    if (!first || !second) {
        return std::nullopt;
    }
    return DurationPair{*first, *second};
}

std::string seconds(int64_t us, int decimals) {
    return fixed(static_cast<double>(us) / 1e6, decimals) + " s";
}

std::string counted(int64_t count, const std::string& one) {
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

std::string milliseconds(int64_t us) {
    return fixed(static_cast<double>(us) / 1e3, 1) + " ms";
}

std::string signedMilliseconds(int64_t us) {
    return (us < 0 ? "" : "+") + milliseconds(us);
}

std::string rate(double hz) {
    std::string text = fixed(hz, 3);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') {
        text.pop_back();
    }
    return text;
}

int rateInHundredths(double hz) {
    return static_cast<int>(std::lround(hz * 100.0));
}

}  // namespace korvane::player
