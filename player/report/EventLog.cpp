// SPDX-License-Identifier: Apache-2.0
#include "player/report/EventLog.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <tuple>
#include <utility>

namespace korvane::player {
namespace {

// FNV-1a, 64 bits: the offset basis and prime that its authors give.
constexpr uint64_t kHashBasis = 0xcbf29ce484222325;
constexpr uint64_t kHashPrime = 0x100000001b3;
/// Lines are hashed and written in blocks of about this size.
constexpr size_t kBlockBytes = 1 << 16;
/// Room for one number, and for a line's time, kind and three numbers with their names.
constexpr size_t kLongestNumber = 24;
constexpr size_t kLongestNumbers = 256;

/// What a kind is called, and what its numbers are; null: it has none.
struct KindNames {
    const char* name;
    const char* first;
    const char* second;
};

KindNames namesOf(EventKind kind) {
    switch (kind) {
        case EventKind::Start:
            return {"start", nullptr, nullptr};
        case EventKind::Flush:
            return {"flush", nullptr, nullptr};
        case EventKind::Seek:
            return {"seek", "to_us", nullptr};
        case EventKind::Pause:
            return {"pause", nullptr, nullptr};
        case EventKind::Resume:
            return {"resume", nullptr, nullptr};
        case EventKind::Restart:
            return {"restart", nullptr, nullptr};
        case EventKind::Stop:
            return {"stop", nullptr, nullptr};
        case EventKind::Audio:
            return {"audio", nullptr, nullptr};
        case EventKind::Sent:
            return {"sent", "media_us", "buffer"};
        case EventKind::Queued:
            return {"queued", "present_us", nullptr};
        case EventKind::Shown:
            return {"shown", "vsync", "offset_us"};
        case EventKind::Replaced:
            return {"replaced", "dwell", nullptr};
        case EventKind::Superseded:
            return {"superseded", nullptr, nullptr};
        case EventKind::Returned:
            return {"returned", "rendered", nullptr};
        case EventKind::Dropped:
            return {"dropped", nullptr, nullptr};
        case EventKind::Flushed:
            return {"flushed", nullptr, nullptr};
        case EventKind::Refused:
            return {"refused", nullptr, nullptr};
        case EventKind::Discarded:
            return {"discarded", nullptr, nullptr};
        case EventKind::Lost:
            return {"lost", nullptr, nullptr};
        case EventKind::Log:
            break;
    }
    return {"log", "priority", nullptr};
}

// A line is put together in place: each of these writes at `to` and returns where the next one
// goes.

char* put(char* to, const char* text) {
    return std::copy(text, text + std::strlen(text), to);
}

char* put(char* to, int64_t number) {
    return std::to_chars(to, to + kLongestNumber, number).ptr;
}

char* putNamed(char* to, const char* name, int64_t number) {
    if (name == nullptr) {
        return to;
    }
    *to++ = ' ';
    to = put(to, name);
    *to++ = '=';
    return put(to, number);
}

/// Seconds with nine decimals, from whole numbers.
char* putTime(char* to, int64_t ns) {
    constexpr int64_t kSecond = 1'000'000'000;
    if (ns < 0) {
        *to++ = '-';
        ns = -ns;
    }
    to = put(to, ns / kSecond);
    char* const end = put(to, kSecond + ns % kSecond);
    *to = '.';  // where the leading 1 stands, which keeps the decimals' zeros
    return end;
}

}  // namespace

EventLog::EventLog(std::ostream* out) : mOut(out), mHash(kHashBasis) {}

void EventLog::begin(int64_t startNs) {
    const std::lock_guard<std::mutex> guard(mLock);
    mStartNs = startNs;
}

void EventLog::add(Event event) {
    const std::lock_guard<std::mutex> guard(mLock);
    mWaiting.push_back(std::move(event));
}

void EventLog::release(int64_t beforeNs) {
    const std::lock_guard<std::mutex> guard(mLock);
    const auto later =
        std::stable_partition(mWaiting.begin(), mWaiting.end(),
                              [beforeNs](const Event& event) { return event.timeNs < beforeNs; });
    std::stable_sort(mWaiting.begin(), later, [](const Event& left, const Event& right) {
        return std::tie(left.timeNs, left.kind, left.frameNo) <
               std::tie(right.timeNs, right.kind, right.frameNo);
    });
    for (auto event = mWaiting.begin(); event != later; ++event) {
        write(*event);
    }
    mWaiting.erase(mWaiting.begin(), later);
}

void EventLog::write(const Event& event) {
    const KindNames names = namesOf(event.kind);
    char line[kLongestNumbers];
    char* end = putTime(line, event.timeNs - mStartNs);
    *end++ = ' ';
    end = put(end, names.name);
    end = event.frameNo >= 0 ? putNamed(end, "frame", event.frameNo) : end;
    end = putNamed(end, names.first, event.first);
    end = putNamed(end, names.second, event.second);
    mBlock.append(line, static_cast<size_t>(end - line));
    if (!event.text.empty()) {
        mBlock.push_back(' ');
        mBlock.append(event.text);
    }
    mBlock.push_back('\n');
    ++mLines;
    if (mBlock.size() >= kBlockBytes) {
        drainBlock();
    }
}

void EventLog::drainBlock() {
    for (const char c : mBlock) {
        mHash = (mHash ^ static_cast<unsigned char>(c)) * kHashPrime;
    }
    if (mOut != nullptr) {
        mOut->write(mBlock.data(), static_cast<std::streamsize>(mBlock.size()));
    }
    mBlock.clear();
}

void EventLog::finish() {
    release(INT64_MAX);
    const std::lock_guard<std::mutex> guard(mLock);
    drainBlock();
}

int64_t EventLog::lines() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mLines;
}

std::string EventLog::hash() const {
    const std::lock_guard<std::mutex> guard(mLock);
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(mHash));
    return text;
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
