// SPDX-License-Identifier: Apache-2.0
// Detects a fiber that computes endlessly without a call that the scheduler would see: a timer of
// the process's CPU time checks whether the scheduler has made progress since the last check. Time
// that the process spends suspended or waiting for a disk does not count.
#pragma once

#include <signal.h>

namespace korvane::tv {

class Watchdog {
public:
    /// @param seconds  CPU seconds without progress after which the process is ended; 0: never
    explicit Watchdog(int seconds);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    const bool mOn;
    struct sigaction mPrevious {};
};

}  // namespace korvane::tv
