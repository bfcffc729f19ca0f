// SPDX-License-Identifier: Apache-2.0
#include "player/base/Units.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <system_error>

#include "player/base/Limits.h"

namespace korvane::player {
namespace {

struct Unit {
    const char* name;
    double us;
};
constexpr Unit kUnits[] = {{"us", 1.0}, {"ms", 1e3}, {"s", 1e6}, {"m", 60e6}, {"h", 3600e6}};
constexpr double kUsPerSecond = 1e6;
constexpr char kPpm[] = "ppm";

std::string fixed(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

bool isNumberCharacter(char c) {
    return (c >= '0' && c <= '9') || c == '.';
}

std::optional<double> unitUs(const std::string& name) {
    for (const auto& unit : kUnits) {
        if (name == unit.name) {
            return unit.us;
        }
    }
    return std::nullopt;
}

/// Reads one number with its unit at `position`, in microseconds, and moves `position` past it.
/// @param lastUnitUs  of the part before, whose unit must be larger; becomes this part's
std::optional<double> takePart(const std::string& text, size_t* position, double* lastUnitUs) {
    size_t end = *position;
    while (end < text.size() && isNumberCharacter(text[end])) {
        ++end;
    }
    size_t unitEnd = end;
    while (unitEnd < text.size() && !isNumberCharacter(text[unitEnd])) {
        ++unitEnd;
    }
    const auto number = parseDecimal(text.substr(*position, end - *position));
    const auto us = unitUs(text.substr(end, unitEnd - end));
    if (!number || !us || *us >= *lastUnitUs) {
        return std::nullopt;
    }
    *position = unitEnd;
    *lastUnitUs = *us;
    return *number * *us;
}

/// A duration of any length, in microseconds.
std::optional<double> durationUs(const std::string& text) {
    const bool negative = !text.empty() && text[0] == '-';
    const bool sign = negative || (!text.empty() && text[0] == '+');
    const std::string digits = text.substr(sign ? 1 : 0);
    double us = 0.0;
    if (const auto bareSeconds = parseDecimal(digits)) {
        us = *bareSeconds * kUsPerSecond;
    } else {
        size_t position = 0;
        double unit = std::numeric_limits<double>::infinity();
        do {
            const auto part = takePart(digits, &position, &unit);
            if (!part) {
                return std::nullopt;
            }
            us += *part;
        } while (position < digits.size());
    }
    return negative ? -us : us;
}

}  // namespace

std::optional<int64_t> parseCount(const std::string& text) {
    int64_t value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    const bool digits = !text.empty() && text[0] >= '0' && text[0] <= '9';
    return digits && result.ec == std::errc() && result.ptr == end ? std::optional(value)
                                                                   : std::nullopt;
}

std::optional<double> parseDecimal(const std::string& text) {
    // strtod alone would also take signs, spaces, exponents, "inf", "nan" and hexadecimal.
    const bool plain = std::all_of(text.begin(), text.end(), isNumberCharacter) &&
                       std::count(text.begin(), text.end(), '.') <= 1;
    if (!plain || text.empty() || text == ".") {
        return std::nullopt;
    }
    return std::strtod(text.c_str(), nullptr);
}

std::optional<int64_t> parseDuration(const std::string& text) {
    const auto us = durationUs(text);
    return us && std::fabs(*us) <= static_cast<double>(kLongestUs)
               ? std::optional<int64_t>(std::llround(*us))
               : std::nullopt;
}

bool isTooLong(const std::string& text) {
    return durationUs(text) && !parseDuration(text);
}

std::optional<DurationPair> parseDurationPair(const std::string& text) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    const auto first = parseDuration(text.substr(0, colon));
    const auto second = parseDuration(text.substr(colon + 1));
    if (!first || !second || *first < 0 || *second < 0) {
        return std::nullopt;
    }
    return DurationPair{*first, *second};
}

std::optional<double> parseDrift(const std::string& text) {
    const size_t unit = text.rfind(kPpm);
    const bool ends = unit != std::string::npos && unit + std::strlen(kPpm) == text.size();
    const std::string number = ends ? text.substr(0, unit) : text;
    // strtod alone would also take spaces, "inf", "nan" and hexadecimal.
    const bool decimal = number.find_first_not_of("+-.0123456789eE") == std::string::npos;
    char* end = nullptr;
    const double ppm = std::strtod(number.c_str(), &end);
    const bool whole = decimal && !number.empty() && *end == '\0';
    return whole && std::fabs(ppm) <= kMostDriftPpm ? std::optional(ppm) : std::nullopt;
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
