// SPDX-License-Identifier: Apache-2.0
// What a viewer's window asks of a running playback: keys, and that audio keeps the time of the
// device on which the viewer hears it. The player's thread looks here at least every 20 ms.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>

#include "include/ThreadAnnotations.h"

namespace korvane::player {

struct RemoteKey {
    enum class Kind {
        Pause,  ///< or goes on
        Step,   ///< goes on for one vsync and pauses
        Seek,   ///< goes on from there, paused or not
        Quit
    };
    Kind kind = Kind::Pause;
    int64_t byUs = 0;  ///< Seek: media time from the present position
};

/// Any thread.
class Remote {
public:
    void press(const RemoteKey& key) {
        const std::lock_guard<std::mutex> guard(mLock);
        mKeys.push_back(key);
    }
    /// The oldest key that waits; empty: none does.
    std::optional<RemoteKey> take() {
        const std::lock_guard<std::mutex> guard(mLock);
        if (mKeys.empty()) {
            return std::nullopt;
        }
        const RemoteKey key = mKeys.front();
        mKeys.pop_front();
        return key;
    }

    /// How much faster than the monotonic clock the viewer's audio device plays.
    void setDeviceDriftPpm(double ppm) { mDeviceDriftPpm = ppm; }
    double deviceDriftPpm() const { return mDeviceDriftPpm; }

private:
    std::atomic<double> mDeviceDriftPpm{0.0};
    std::mutex mLock;
    std::deque<RemoteKey> mKeys KORVANE_GUARDED_BY(mLock);
};

}  // namespace korvane::player
