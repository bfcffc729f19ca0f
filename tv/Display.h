// SPDX-License-Identifier: Apache-2.0
// The display: the true vsync grid and what the display reports of it.
//
// Vsync k happens at origin + k periods exactly. The period is a real number of nanoseconds and is
// never accumulated, so the grid does not wander. The display reports the time of the last vsync,
// with the configured jitter, and the period in whole nanoseconds. A mode change takes effect at
// the first vsync at or after the requested time and starts a new segment of the grid there; vsync
// numbers continue.
//
//   rate      true period ns     reported ns   in the renderer, us
//   60        16666666.67        16666666      16666   ("60HZ")
//   59.94     16683333.33        16683333      16683   ("59.94HZ")
//   50        20000000           20000000      20000   (no pattern handling)
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <random>
#include <vector>

#include "include/ThreadAnnotations.h"

namespace korvane::tv {

struct DisplayConfig {
    /// Vsyncs per second; a broadcast rate is its fraction, 60000.0 / 1001.
    double rateHz = 60.0;
    /// By how much the true rate differs from the reported one, parts per million; positive is
    /// fast.
    double driftPpm = 0.0;
    /// Largest error, either way, of a reported vsync time.
    int64_t reportJitterNs = 0;
    /// Time of vsync 0 on the monotonic clock; 0: the TV chooses (see `Tv::powerOn`).
    int64_t originNs = 0;
    /// Seed of the report jitter: the same seed gives the same errors, another seed others.
    uint64_t seed = 1;
};

/// One vsync of the grid.
struct Vsync {
    int64_t index = 0;
    int64_t timeNs = 0;
};

/// What the display reports: time of the last vsync and the period.
struct VsyncReport {
    int64_t timestampNs = 0;
    int32_t periodNs = 0;
};

/// All operations may be called from any thread.
class Display {
public:
    explicit Display(const DisplayConfig& config);

    /// The last vsync at or before a time (index -1 before vsync 0).
    Vsync lastVsyncAt(int64_t timeNs) const;
    /// The first vsync after a time.
    Vsync nextVsyncAfter(int64_t timeNs) const;
    Vsync vsync(int64_t index) const;
    /// The true period in force at a time.
    double periodNsAt(int64_t timeNs) const;
    /// The rate last requested.
    double rateHz() const;

    /// Answers a vsync query at a time. Queries are counted.
    /// @return false while the fault `setReportFails` is on
    bool report(int64_t nowNs, VsyncReport* out);

    /// Changes the rate at the first vsync at or after a time, which is now or later. It replaces
    /// earlier requests that would take effect at or after that vsync.
    void changeMode(int64_t atNs, double rateHz);

    /// Faults: the report fails, or succeeds with this period (also 0 and below; empty restores the
    /// display's own).
    void setReportFails(bool fails);
    void setReportedPeriodNs(std::optional<int32_t> periodNs);
    int64_t reportCount() const;

    /// The display adapter's remote objects, by which vsync is asked for: one was made or
    /// destroyed.
    void onRemoteMade() { ++mRemotes; }
    void onRemoteDestroyed() { --mRemotes; }
    int openRemotes() const { return mRemotes; }

private:
    struct Segment {
        int64_t firstIndex;
        int64_t originNs;
        double periodNs;
        int32_t reportedPeriodNs;
        double rateHz;
    };
    Segment makeSegment(int64_t firstIndex, int64_t originNs, double rateHz) const;
    static int64_t timeOf(const Segment& segment, int64_t index);
    const Segment& segmentAt(int64_t timeNs) const KORVANE_REQUIRES(mLock);
    Vsync lastLocked(int64_t timeNs) const KORVANE_REQUIRES(mLock);
    Vsync vsyncLocked(int64_t index) const KORVANE_REQUIRES(mLock);
    int64_t nextErrorNs() KORVANE_REQUIRES(mLock);

    const DisplayConfig mConfig;
    mutable std::mutex mLock;
    std::vector<Segment> mSegments KORVANE_GUARDED_BY(mLock);
    std::mt19937_64 mJitter KORVANE_GUARDED_BY(mLock);
    bool mReportFails KORVANE_GUARDED_BY(mLock) = false;
    std::atomic<int> mRemotes{0};
    std::optional<int32_t> mPeriodOverrideNs KORVANE_GUARDED_BY(mLock);
    int64_t mReportCount KORVANE_GUARDED_BY(mLock) = 0;
};

}  // namespace korvane::tv
