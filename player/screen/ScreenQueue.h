// SPDX-License-Identifier: Apache-2.0
// Hands vsyncs to slow listeners on a thread of its own, so that in real time the display does not
// wait for them. Listeners that fall behind by more than a second miss vsyncs.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "player/playback/ScreenFeed.h"

namespace korvane::player {

class ScreenQueue final : public ScreenListener {
public:
    /// @param listeners  outlive the queue; must not throw
    explicit ScreenQueue(std::vector<ScreenListener*> listeners);
    ~ScreenQueue() override;
    ScreenQueue(const ScreenQueue&) = delete;
    ScreenQueue& operator=(const ScreenQueue&) = delete;

    void onVsync(const ScreenMoment& moment, const tv::SoundRecord& sound) override;
    /// Returns once the listeners have seen all.
    void onScreenEnd(const tv::SoundRecord& sound) override;

    int64_t missed() const;

private:
    static constexpr size_t kMostWaiting = 60;
    struct Entry {
        ScreenMoment moment;
        tv::SoundRecord sound;
    };
    void run();
    void stop();

    const std::vector<ScreenListener*> mListeners;
    mutable std::mutex mLock;
    std::condition_variable mWake;
    std::deque<Entry> mWaiting KORVANE_GUARDED_BY(mLock);
    bool mStopping KORVANE_GUARDED_BY(mLock) = false;
    int64_t mMissed KORVANE_GUARDED_BY(mLock) = 0;
    std::thread mThread;  // last: it uses the other members as soon as it starts
};

}  // namespace korvane::player
