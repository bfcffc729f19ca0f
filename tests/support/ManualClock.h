// SPDX-License-Identifier: Apache-2.0
// A clock that a test advances by hand.
//
// The test executable defines `systemTime` and `usleep` for every library in the process. Without a
// ManualClock they are the real ones. While one exists, time stands still; `usleep` advances it at
// once and runs what the test scheduled for that time. So a polling loop under test runs through
// its waits in one thread, without delay and deterministically. Use it only where no other thread
// sleeps.
#pragma once

#include <cstdint>
#include <functional>
#include <map>

namespace korvane::test {

class ManualClock {
public:
    explicit ManualClock(int64_t startNs = 1'000'000'000'000);
    ~ManualClock();
    ManualClock(const ManualClock&) = delete;
    ManualClock& operator=(const ManualClock&) = delete;

    int64_t nowNs() const { return mNowNs; }
    int64_t nowUs() const { return mNowNs / 1000; }
    void setNowNs(int64_t nowNs) { mNowNs = nowNs; }
    /// Advances time; runs each scheduled action at its own time.
    void advanceUs(int64_t us);
    /// Runs `action` when time reaches now + `delayUs`.
    void after(int64_t delayUs, std::function<void()> action);
    /// Number of sleeps.
    int64_t sleeps() const { return mSleeps; }
    /// Advances time; after a million sleeps it aborts, so that an endless loop cannot hang the
    /// test.
    void sleepUs(int64_t us);

private:
    int64_t mNowNs;
    int64_t mSleeps = 0;
    std::multimap<int64_t, std::function<void()>> mActions;
};

/// Polls until `condition` holds or 30 s have passed; for tests whose threads run by themselves.
bool eventually(const std::function<bool()>& condition);

}  // namespace korvane::test
