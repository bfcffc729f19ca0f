// SPDX-License-Identifier: Apache-2.0
// Shared by the files that define libc's names: the test for real time, and conversions from libc's
// times to the scheduler's.
#pragma once

#include <ctime>

#include "tv/clock/Scheduler.h"

#define KORVANE_INTERPOSE extern "C" __attribute__((visibility("default")))

namespace korvane::tv {

constexpr int64_t kNsPerSecond = 1'000'000'000;

/// In real time, and on a thread that is no fiber: the one branch that every call costs.
inline bool realTime() {
    return KORVANE_LIKELY(gScheduler == nullptr);
}

inline bool isValid(const timespec& time) {
    return time.tv_nsec >= 0 && time.tv_nsec < kNsPerSecond;
}

inline int64_t toNs(const timespec& time) {
    constexpr int64_t kLongestSeconds = kNever / kNsPerSecond - 1;
    return time.tv_sec >= kLongestSeconds ? kNever : time.tv_sec * kNsPerSecond + time.tv_nsec;
}

/// The end of a wait of this length; kNever for null.
inline int64_t endOfWaitNs(const timespec* length) {
    return length == nullptr ? kNever : gScheduler->after(toNs(*length));
}

inline bool showsDate(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE ||
           clock == CLOCK_REALTIME_ALARM || clock == CLOCK_TAI;
}

inline int64_t epochNs(clockid_t clock) {
    return showsDate(clock) ? kVirtualEpochNs : 0;
}

/// A clock's time as the scheduler's.
inline int64_t toDeadlineNs(clockid_t clock, const timespec& time) {
    const int64_t ns = toNs(time);
    return ns == kNever ? kNever : ns - epochNs(clock);
}

}  // namespace korvane::tv
