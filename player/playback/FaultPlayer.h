// SPDX-License-Identifier: Apache-2.0
// Switches a TV's faults at their playback times. It has its own thread, so that a waiting player
// delays no fault; without faults it has none.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "player/playback/PlaybackPlan.h"

namespace korvane::player {

class FaultPlayer {
public:
    /// @param apply  called with each state, on that thread; must not throw
    FaultPlayer(std::vector<TimedFaults> faults, std::function<void(const TvFaults&)> apply);
    ~FaultPlayer();
    FaultPlayer(const FaultPlayer&) = delete;
    FaultPlayer& operator=(const FaultPlayer&) = delete;

    /// Applies the faults of playback time 0 before it returns, and starts the thread.
    /// @param startNs  monotonic time of playback time 0
    void start(int64_t startNs);
    /// Ends the thread; the faults stay switched as they are. Idempotent.
    void stop();

private:
    void run();

    const std::vector<TimedFaults> mFaults;
    const std::function<void(const TvFaults&)> mApply;
    int64_t mStartNs = 0;  ///< `start`'s, then the thread's, as is mNext
    size_t mNext = 0;
    std::mutex mLock;
    std::condition_variable mWake;
    bool mStopping KORVANE_GUARDED_BY(mLock) = false;
    std::thread mThread;
};

}  // namespace korvane::player
