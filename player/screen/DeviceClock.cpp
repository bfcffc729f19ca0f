// SPDX-License-Identifier: Apache-2.0
#include "player/screen/DeviceClock.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace korvane::player {
namespace {

constexpr int64_t kFollowNs = 1000'000'000;
/// Natural frequency of a critically damped loop that settles in seven seconds: its gains are twice
/// this for the time and the square of this for the rate.
constexpr double kPerSecond = 0.15;
/// Crystals are off by 0.02 %, virtual machines' devices by up to 1 %.
constexpr double kMostDrift = 0.02;
constexpr double kLostSeconds = 0.1;

}  // namespace

void DeviceClock::restart(int64_t nowNs) {
    mTimes.originUs = static_cast<double>(nowNs) / 1000.0;
    mSettled = false;
    mOffsetSeconds = 0.0;
    mErrors = 0.0;
    mLooks = 0;
    mSinceNs = nowNs;
}

bool DeviceClock::see(int64_t nowNs, int64_t played) {
    mErrors += errorSeconds(nowNs, played);
    ++mLooks;
    if (nowNs - mSinceNs < kFollowNs) {
        return false;
    }
    const double error = mErrors / mLooks;
    const double before = mDrift;
    if (std::exchange(mSettled, true)) {
        follow(nowNs, error);
    } else {
        mOffsetSeconds = error;
    }
    mErrors = 0.0;
    mLooks = 0;
    mSinceNs = nowNs;
    return mDrift != before;
}

bool DeviceClock::lost(int64_t nowNs, int64_t played) const {
    return std::abs(errorSeconds(nowNs, played)) > kLostSeconds;
}

/// How far the device is ahead of the prediction.
double DeviceClock::errorSeconds(int64_t nowNs, int64_t played) const {
    const double predicted = (static_cast<double>(nowNs) / 1000.0 - mTimes.originUs) * mTimes.perUs;
    return (static_cast<double>(played) - predicted) / kSoundHz - mOffsetSeconds;
}

void DeviceClock::follow(int64_t nowNs, double errorSeconds) {
    const double seconds = static_cast<double>(nowNs - mSinceNs) * 1e-9;
    const auto possible = [](double drift) { return std::clamp(drift, -kMostDrift, kMostDrift); };
    mRate = possible(mRate + kPerSecond * kPerSecond * errorSeconds * seconds);
    mDrift = possible(mRate + 2.0 * kPerSecond * errorSeconds);
    const double nowUs = static_cast<double>(nowNs) / 1000.0;
    const double sample = (nowUs - mTimes.originUs) * mTimes.perUs;
    mTimes.perUs = kSoundHz / 1e6 * (1.0 + mDrift);
    mTimes.originUs = nowUs - sample / mTimes.perUs;
}

}  // namespace korvane::player
