// SPDX-License-Identifier: Apache-2.0
#include "player/screen/ScreenQueue.h"

#include <utility>

#include "tv/ScopedLock.h"

namespace korvane::player {

ScreenQueue::ScreenQueue(std::vector<ScreenListener*> listeners)
    : mListeners(std::move(listeners)), mThread([this] { run(); }) {}

ScreenQueue::~ScreenQueue() {
    stop();
}

void ScreenQueue::stop() {
    {
        const std::lock_guard<std::mutex> guard(mLock);
        mStopping = true;
    }
    mWake.notify_one();
    if (mThread.joinable()) {
        mThread.join();
    }
}

void ScreenQueue::onVsync(const ScreenMoment& moment, const tv::SoundRecord& sound) {
    {
        const std::lock_guard<std::mutex> guard(mLock);
        if (mWaiting.size() >= kMostWaiting) {
            ++mMissed;
            return;
        }
        mWaiting.push_back({moment, sound});
    }
    mWake.notify_one();
}

void ScreenQueue::onScreenEnd(const tv::SoundRecord& sound) {
    stop();
    for (auto* listener : mListeners) {
        listener->onScreenEnd(sound);
    }
}

int64_t ScreenQueue::missed() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mMissed;
}

void ScreenQueue::run() {
    tv::WaitLock lock(mLock);
    for (;;) {
        mWake.wait(lock.forWait(),
                   [this]() KORVANE_REQUIRES(mLock) { return mStopping || !mWaiting.empty(); });
        if (mWaiting.empty()) {
            return;
        }
        const Entry entry = std::move(mWaiting.front());
        mWaiting.pop_front();
        lock.unlock();
        for (auto* listener : mListeners) {
            listener->onVsync(entry.moment, entry.sound);
        }
        lock.lock();
    }
}

}  // namespace korvane::player
