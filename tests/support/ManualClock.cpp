// SPDX-License-Identifier: Apache-2.0
#include "tests/support/ManualClock.h"

#include <unistd.h>
#include <utils/Timers.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

namespace korvane::test {
namespace {

std::atomic<ManualClock*> gClock{nullptr};

}  // namespace

ManualClock::ManualClock(int64_t startNs) : mNowNs(startNs) {
    gClock = this;
}

ManualClock::~ManualClock() {
    gClock = nullptr;
}

void ManualClock::advanceUs(int64_t us) {
    const int64_t endNs = mNowNs + us * 1000;
    while (!mActions.empty() && mActions.begin()->first <= endNs) {
        auto action = mActions.extract(mActions.begin());
        mNowNs = std::max(mNowNs, action.key());
        action.mapped()();
    }
    mNowNs = std::max(mNowNs, endNs);
}

void ManualClock::after(int64_t delayUs, std::function<void()> action) {
    mActions.emplace(mNowNs + delayUs * 1000, std::move(action));
}

void ManualClock::sleepUs(int64_t us) {
    if (++mSleeps > 1'000'000) {
        std::fprintf(stderr, "ManualClock: a loop slept %lld times without an end\n",
                     static_cast<long long>(mSleeps));
        std::abort();
    }
    advanceUs(us);
}

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace korvane::test

extern "C" {

__attribute__((visibility("default"))) nsecs_t systemTime(int clock) {
    if (const auto* manual = korvane::test::gClock.load();
        manual != nullptr && clock == SYSTEM_TIME_MONOTONIC) {
        return manual->nowNs();
    }
    timespec now{};
    clock_gettime(clock == SYSTEM_TIME_REALTIME ? CLOCK_REALTIME : CLOCK_MONOTONIC, &now);
    return static_cast<nsecs_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

__attribute__((visibility("default"))) int usleep(useconds_t us) {
    if (auto* manual = korvane::test::gClock.load()) {
        manual->sleepUs(us);
        return 0;
    }
    const timespec wait{static_cast<time_t>(us / 1'000'000),
                        static_cast<long>(us % 1'000'000) * 1000};
    return nanosleep(&wait, nullptr);
}
}
