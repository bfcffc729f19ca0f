// SPDX-License-Identifier: Apache-2.0
#include "player/report/EventLine.h"

#include <fmt/compile.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdlib>

namespace korvane::player {
namespace {

/// Room for a line's time, kind and three numbers with their names.
constexpr size_t kLongestNumbers = 256;

/// What a kind is called, and what its numbers are; null: it has none.
struct KindNames {
    const char* name;
    const char* first = nullptr;
    const char* second = nullptr;
};

KindNames namesOf(EventKind kind) {
    switch (kind) {
        case EventKind::Start:
            return {"start"};
        case EventKind::Flush:
            return {"flush"};
        case EventKind::Seek:
            return {"seek", "to_us"};
        case EventKind::Pause:
            return {"pause"};
        case EventKind::Resume:
            return {"resume"};
        case EventKind::Restart:
            return {"restart"};
        case EventKind::Stop:
            return {"stop"};
        case EventKind::Audio:
            return {"audio"};
        case EventKind::Sent:
            return {"sent", "media_us", "buffer"};
        case EventKind::Queued:
            return {"queued", "present_us"};
        case EventKind::Shown:
            return {"shown", "vsync", "offset_us"};
        case EventKind::Replaced:
            return {"replaced", "dwell"};
        case EventKind::Superseded:
            return {"superseded"};
        case EventKind::Returned:
            return {"returned", "rendered"};
        case EventKind::Dropped:
            return {"dropped"};
        case EventKind::Flushed:
            return {"flushed"};
        case EventKind::Refused:
            return {"refused"};
        case EventKind::Discarded:
            return {"discarded"};
        case EventKind::Lost:
            return {"lost"};
        case EventKind::Log:
            break;
    }
    return {"log", "priority"};
}

constexpr int64_t kSecondNs = 1'000'000'000;
/// Times beyond this, three hundred years, do not fit into nanoseconds.
constexpr int64_t kMostSeconds = INT64_MAX / kSecondNs - 1;

bool take(std::string_view start, std::string_view* line) {
    const bool found = line->substr(0, start.size()) == start;
    line->remove_prefix(found ? start.size() : 0);
    return found;
}

bool takeNumber(std::string_view* line, int64_t* number) {
    const auto result = std::from_chars(line->data(), line->data() + line->size(), *number);
    const auto length = static_cast<size_t>(result.ptr - line->data());
    line->remove_prefix(result.ec == std::errc() ? length : 0);
    return result.ec == std::errc();
}

/// " name=123"; no name stands for nothing.
bool takeNamed(const char* name, std::string_view* line, int64_t* number) {
    return name == nullptr ||
           (take(" ", line) && take(name, line) && take("=", line) && takeNumber(line, number));
}

bool takeTime(std::string_view* line, int64_t* timeNs) {
    constexpr size_t kDigits = 9;
    const bool before = take("-", line);
    int64_t whole = 0;
    int64_t part = 0;
    const std::string_view fraction = line->substr(std::min(line->find('.'), line->size()));
    if (!takeNumber(line, &whole) || whole < 0 || whole > kMostSeconds || !take(".", line) ||
        !takeNumber(line, &part) || part < 0 || fraction.size() - line->size() != kDigits + 1) {
        return false;
    }
    *timeNs = (whole * kSecondNs + part) * (before ? -1 : 1);
    return true;
}

bool takeKind(std::string_view* line, EventKind* kind) {
    const std::string_view word = line->substr(0, line->find(' '));
    for (int i = 0; i <= static_cast<int>(EventKind::Log); ++i) {
        *kind = static_cast<EventKind>(i);
        if (word == namesOf(*kind).name) {
            line->remove_prefix(word.size());
            return true;
        }
    }
    return false;
}

}  // namespace

const char* toString(EventKind kind) {
    return namesOf(kind).name;
}

void appendLine(const Event& event, int64_t startNs, std::string* to) {
    const KindNames names = namesOf(event.kind);
    const int64_t timeNs = event.timeNs - startNs;
    char numbers[kLongestNumbers];
    char* end =
        fmt::format_to(numbers, FMT_COMPILE("{}{}.{:09} {}"), timeNs < 0 ? "-" : "",
                       std::abs(timeNs) / kSecondNs, std::abs(timeNs) % kSecondNs, names.name);
    const auto add = [&end](const char* name, int64_t number) {
        end = fmt::format_to(end, FMT_COMPILE(" {}={}"), name, number);
    };
    if (event.frameNo >= 0) {
        add("frame", event.frameNo);
    }
    if (names.first != nullptr) {
        add(names.first, event.first);
    }
    if (names.second != nullptr) {
        add(names.second, event.second);
    }
    to->append(numbers, end);
    if (!event.text.empty()) {
        to->append(" ").append(event.text);
    }
    to->push_back('\n');
}

std::optional<Event> parseLine(std::string_view line) {
    Event event;
    if (!takeTime(&line, &event.timeNs) || !take(" ", &line) || !takeKind(&line, &event.kind)) {
        return std::nullopt;
    }
    const bool ofFrame = take(" frame=", &line);
    const KindNames names = namesOf(event.kind);
    if ((ofFrame && (!takeNumber(&line, &event.frameNo) || event.frameNo < 0)) ||
        !takeNamed(names.first, &line, &event.first) ||
        !takeNamed(names.second, &line, &event.second) || (!line.empty() && !take(" ", &line))) {
        return std::nullopt;
    }
    event.text = line;
    return event;
}

std::string withoutNumbers(const std::string& text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c >= '0' && c <= '9') {
            const bool goesOn = !plain.empty() && plain.back() == '#';
            plain += goesOn ? "" : "#";
        } else if (c == '\n') {
            plain += plain.empty() || i + 1 == text.size() ? "" : " ";
        } else {
            plain += c;
        }
    }
    return plain;
}

}  // namespace korvane::player
