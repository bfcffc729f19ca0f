// SPDX-License-Identifier: Apache-2.0
// A clock that a test holds in its hand.
//
// The test executable supplies `systemTime` and `usleep` to every library in the process. Without a
// ManualClock they are the real ones. While one exists, time stands still except that `usleep`
// moves it on and runs what the test scheduled on the way, so a polling loop under test goes
// through its waits at once, in one thread, the same every time. Use it only where no other thread
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
    /// Moves time on, running what is due on the way at its own time.
    void advanceUs(int64_t us);
    /// Runs `action` when time reaches now + `delayUs`.
    void after(int64_t delayUs, std::function<void()> action);
    /// How often anything slept.
    int64_t sleeps() const { return mSleeps; }
    /// A loop that sleeps a million times without an end fails the test instead of hanging it.
    void sleepUs(int64_t us);

private:
    int64_t mNowNs;
    int64_t mSleeps = 0;
    std::multimap<int64_t, std::function<void()>> mActions;
};

/// Polls until `condition` holds or 30 s have passed; for tests whose threads run by themselves.
bool eventually(const std::function<bool()>& condition);

}  // namespace korvane::test
