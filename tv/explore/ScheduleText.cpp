// SPDX-License-Identifier: Apache-2.0
#include "tv/explore/ScheduleText.h"

#include <charconv>
#include <stdexcept>

namespace korvane::tv {
namespace {

constexpr char kNoDeviation[] = "none";

/// Reads a number and moves on behind it.
template <typename Number>
bool take(const char*& from, const char* end, Number* number) {
    const auto [rest, error] = std::from_chars(from, end, *number);
    from = rest;
    return error == std::errc() && *number >= 0;
}

bool takeMark(const char*& from, const char* end, char mark) {
    const bool found = from != end && *from == mark;
    from += found ? 1 : 0;
    return found;
}

bool parse(const char* from, const char* end, Deviation* deviation) {
    if (!take(from, end, &deviation->thread) || !takeMark(from, end, '.') ||
        !take(from, end, &deviation->step)) {
        return false;
    }
    deviation->spurious = takeMark(from, end, '!');
    if (deviation->spurious) {
        return from == end;
    }
    const bool hasNext = takeMark(from, end, ':');
    if (hasNext && !take(from, end, &deviation->next)) {
        return false;
    }
    const bool away = takeMark(from, end, '+');
    return (!away || take(from, end, &deviation->awayNs)) && (hasNext || away) && from == end;
}

}  // namespace

std::string toText(const std::vector<Deviation>& schedule) {
    std::string text;
    for (const Deviation& deviation : schedule) {
        text += (text.empty() ? "" : ",") + std::to_string(deviation.thread) + "." +
                std::to_string(deviation.step);
        text += deviation.spurious ? "!" : "";
        text += deviation.next != 0 ? ":" + std::to_string(deviation.next) : "";
        text += deviation.awayNs != 0 ? "+" + std::to_string(deviation.awayNs) : "";
    }
    return text.empty() ? kNoDeviation : text;
}

std::vector<Deviation> parseSchedule(const std::string& text) {
    std::vector<Deviation> schedule;
    if (text.empty() || text == kNoDeviation) {
        return schedule;
    }
    for (size_t from = 0; from <= text.size();) {
        const size_t end = std::min(text.find(',', from), text.size());
        if (!parse(text.data() + from, text.data() + end, &schedule.emplace_back())) {
            throw std::invalid_argument("\"" + text.substr(from, end - from) +
                                        "\" is no part of a schedule, such as 3.12:1");
        }
        from = end + 1;
    }
    return schedule;
}

}  // namespace korvane::tv
