// SPDX-License-Identifier: Apache-2.0
// The simulated TV: one object that is switched on and off.
//
// While a Tv exists it is the process's TV: the device libraries (video tunnel, media sync, display
// adapter) that the renderer calls find it through `Tv::current()`. It owns the models and the one
// thread of its own, the display's. Without a TV the device libraries answer as a box without its
// drivers does: opening the tunnel fails with ENODEV, every media-sync call returns -1.
//
// The models take time as an argument and read no clock. The clock stands at this edge: the display
// thread and the device libraries read the platform's monotonic clock (`systemTime`) and pass it
// in.
#pragma once

#include <memory>

#include "tv/Display.h"
#include "tv/MediaSyncService.h"
#include "tv/Tunnel.h"

namespace korvane::tv {

struct TvConfig {
    DisplayConfig display;
    TunnelConfig tunnel;
    /// false: no display thread; the owner calls `Tv::runVsyncs` itself (tests that own the clock).
    bool displayThread = true;
};

class Tv {
public:
    /// Switches a TV on and makes it the process's current one, in place of an earlier one. When
    /// the last pointer goes, it is switched off.
    ///
    /// Vsync 0, unless its time is given, lies 0.35 periods before this moment: a panel has been
    /// running for a while when a player comes. At phase 0 every frame of a player that starts in
    /// the same virtual instant would be due within rounding of a vsync. Contents at simple ratios
    /// to the display are due at multiples of 1/2 or 1/5 of a period after their first frame; from
    /// 0.35 on none of them comes nearer than 0.05 periods to a vsync or to the middle of two.
    static std::shared_ptr<Tv> powerOn(const TvConfig& config = {});

    /// The TV that is on, or null. Hold the pointer for one call only: it keeps the TV alive. Any
    /// thread.
    static std::shared_ptr<Tv> current();
    /// Whether any TV is on.
    static bool isAnyOn();

    ~Tv();
    Tv(const Tv&) = delete;
    Tv& operator=(const Tv&) = delete;

    /// Switches this TV off: the display thread ends, `current()` no longer finds it. The models
    /// and their records stay readable through this object. Idempotent.
    void powerOff();

    Display& display();
    Tunnel& tunnel();
    MediaSyncService& mediaSync();

    /// Lets the display scan out every vsync up to and including `nowNs` that it has not done yet.
    void runVsyncs(int64_t nowNs);

private:
    explicit Tv(const TvConfig& config);
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

/// The platform's monotonic clock, nanoseconds (`systemTime(SYSTEM_TIME_MONOTONIC)`).
int64_t nowNs();

}  // namespace korvane::tv
