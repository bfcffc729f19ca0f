// SPDX-License-Identifier: Apache-2.0
#include "player/report/EventLine.h"

#include <fmt/compile.h>
#include <fmt/format.h>

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

}  // namespace

const char* toString(EventKind kind) {
    return namesOf(kind).name;
}

void appendLine(const Event& event, int64_t startNs, std::string* to) {
    constexpr int64_t kSecond = 1'000'000'000;
    const KindNames names = namesOf(event.kind);
    const int64_t timeNs = event.timeNs - startNs;
    char numbers[kLongestNumbers];
    char* end = fmt::format_to(numbers, FMT_COMPILE("{}{}.{:09} {}"), timeNs < 0 ? "-" : "",
                               std::abs(timeNs) / kSecond, std::abs(timeNs) % kSecond, names.name);
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
