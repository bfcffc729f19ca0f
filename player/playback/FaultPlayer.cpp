// SPDX-License-Identifier: Apache-2.0
#include "player/playback/FaultPlayer.h"

#include <chrono>
#include <utility>

#include "tv/ScopedLock.h"

namespace korvane::player {

FaultPlayer::FaultPlayer(std::vector<TimedFaults> faults,
                         std::function<void(const TvFaults&)> apply)
    : mFaults(std::move(faults)), mApply(std::move(apply)) {}

FaultPlayer::~FaultPlayer() {
    stop();
}

void FaultPlayer::start(int64_t startNs) {
    mStartNs = startNs;
    while (mNext < mFaults.size() && mFaults[mNext].atUs <= 0) {
        mApply(mFaults[mNext++].faults);
    }
    if (mNext < mFaults.size()) {
        mThread = std::thread([this] { run(); });
    }
}

void FaultPlayer::run() {
    tv::WaitLock lock(mLock);
    for (; mNext < mFaults.size(); ++mNext) {
        const std::chrono::steady_clock::time_point due(
            std::chrono::nanoseconds(mStartNs + mFaults[mNext].atUs * 1000));
        if (mWake.wait_until(lock.forWait(), due,
                             [this]() KORVANE_REQUIRES(mLock) { return mStopping; })) {
            return;
        }
        mApply(mFaults[mNext].faults);
    }
}

void FaultPlayer::stop() {
    {
        const std::lock_guard<std::mutex> guard(mLock);
        mStopping = true;
    }
    mWake.notify_all();
    if (mThread.joinable()) {
        mThread.join();
    }
}

}  // namespace korvane::player
