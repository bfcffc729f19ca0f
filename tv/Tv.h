// SPDX-License-Identifier: Apache-2.0
// The simulated TV: one object that is switched on and off.
//
// While a Tv is on it is the process's TV: the device libraries (video tunnel, media sync, display
// adapter) that the renderer calls find it through `Tv::current()`. It owns the models and one
// thread, the display's. Without a TV the device libraries answer as on a device without drivers:
// opening the tunnel fails with ENODEV, every media-sync call returns -1.
//
// The models take time as an argument and read no clock. The display thread and the device
// libraries read the platform's monotonic clock (`systemTime`) and pass the time in.
#pragma once

#include <functional>
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
    /// Switches a TV on and makes it the process's current one; an earlier one is replaced. The TV
    /// is switched off when the last pointer is released.
    ///
    /// Unless its time is configured, vsync 0 is 0.35 periods before now, as if the panel had been
    /// running. With phase 0, every frame of a player that starts at the same virtual time would be
    /// due within rounding of a vsync. Content whose rate has a simple ratio to the display's is
    /// due at multiples of 1/2 or 1/5 of a period after its first frame; with phase 0.35 all of
    /// these stay at least 0.05 periods away from a vsync and from the middle between two.
    static std::shared_ptr<Tv> powerOn(const TvConfig& config = {});

    /// The current TV, or null. The pointer keeps it valid even if it is switched off meanwhile.
    /// Any thread.
    static std::shared_ptr<Tv> current();
    /// Whether any TV is on.
    static bool isAnyOn();

    ~Tv();
    Tv(const Tv&) = delete;
    Tv& operator=(const Tv&) = delete;

    /// Switches this TV off: the display thread ends and `current()` no longer returns it. The
    /// models and their records stay readable through this object. Idempotent.
    void powerOff();

    Display& display();
    Tunnel& tunnel();
    MediaSyncService& mediaSync();

    /// Calls this after each scan-out, on the thread that scans out; null: no longer. It must be
    /// quick in real time. `Tunnel::onScreen` tells what the vsync shows.
    void observeVsyncs(std::function<void(const Vsync&)> observer);

    /// Scans out every vsync up to and including `nowNs` that has not been scanned out yet.
    void runVsyncs(int64_t nowNs);

private:
    explicit Tv(const TvConfig& config);
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

/// The platform's monotonic clock, nanoseconds (`systemTime(SYSTEM_TIME_MONOTONIC)`).
int64_t nowNs();

}  // namespace korvane::tv
