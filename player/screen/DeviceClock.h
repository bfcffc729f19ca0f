// SPDX-License-Identifier: Apache-2.0
// The clock of the machine's audio device, followed smoothly.
//
//   in    the number of samples that have left the device's queue, at every poll
//   out   the time of each sample, and by how much the device is fast
//
// Devices take samples in blocks, so single polls are milliseconds off. Every second their mean
// distance from the prediction corrects rate and prediction (a control loop of second order): the
// rate settles within half a minute, and the times of samples never jump.
#pragma once

#include <cstdint>

#include "player/screen/HeardSound.h"

namespace korvane::player {

class DeviceClock {
public:
    /// The device plays sample 0 now. The rate stays as it was found.
    void restart(int64_t nowNs);
    /// @param played  samples that have left the queue since the restart
    /// @return whether the rate has changed
    bool see(int64_t nowNs, int64_t played);
    /// The device has stood still or jumped: restart.
    bool lost(int64_t nowNs, int64_t played) const;

    /// How much faster than the monotonic clock the device plays, parts per million.
    double driftPpm() const { return mDrift * 1e6; }
    SampleTimes times() const { return mTimes; }

private:
    double errorSeconds(int64_t nowNs, int64_t played) const;
    void follow(int64_t nowNs, double errorSeconds);

    SampleTimes mTimes;
    double mRate = 0.0;         ///< the loop's estimate, as a share of the nominal rate
    double mDrift = 0.0;        ///< the same with the correction of the present error
    double mOffsetSeconds = 0;  ///< of the blocks that the device took at once when it began
    bool mSettled = false;      ///< that offset is known
    double mErrors = 0.0;       ///< sum over the polls
    int mLooks = 0;
    int64_t mSinceNs = 0;  ///< of the first of these polls
};

}  // namespace korvane::player
