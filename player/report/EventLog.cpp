// SPDX-License-Identifier: Apache-2.0
#include "player/report/EventLog.h"

#include <fmt/core.h>

#include <algorithm>
#include <ostream>
#include <tuple>
#include <utility>

#include "player/report/EventLine.h"

namespace korvane::player {
namespace {

// FNV-1a, 64 bits: the prime that its authors give.
constexpr uint64_t kHashPrime = 0x100000001b3;
/// Lines are hashed and written in blocks of about this size.
constexpr size_t kBlockBytes = 1 << 16;

}  // namespace

void EventHash::add(std::string_view lines) {
    for (const char c : lines) {
        mHash = (mHash ^ static_cast<unsigned char>(c)) * kHashPrime;
    }
}

std::string EventHash::text() const {
    return fmt::format("{:016x}", mHash);
}

EventLog::EventLog(std::vector<std::ostream*> outs) : mOuts(std::move(outs)) {}

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
    appendLine(event, mStartNs, &mBlock);
    ++mLines;
    if (mBlock.size() >= kBlockBytes) {
        drainBlock();
    }
}

void EventLog::drainBlock() {
    mHash.add(mBlock);
    for (std::ostream* out : mOuts) {
        out->write(mBlock.data(), static_cast<std::streamsize>(mBlock.size()));
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
    return mHash.text();
}

}  // namespace korvane::player
