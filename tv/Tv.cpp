// SPDX-License-Identifier: Apache-2.0
// Power and the display thread. The thread sleeps until the next vsync or fence. What it does then
// depends on the grid and on when each buffer was queued, not on when it woke up.
#include "tv/Tv.h"

#include <utils/Timers.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>

#include "tv/Observer.h"
#include "tv/ScopedLock.h"
#include "tv/Trace.h"

namespace korvane::tv {
namespace {

struct CurrentTv {
    std::mutex lock;
    std::shared_ptr<Tv> tv KORVANE_GUARDED_BY(lock);
    std::atomic<bool> any{false};

    /// Destroys no TV under the lock: the owner of a replaced one still holds it.
    void set(std::shared_ptr<Tv> next) KORVANE_REQUIRES(lock) {
        tv = std::move(next);
        any = tv != nullptr;
    }
};

/// Never destroyed: libraries may ask while the process ends.
CurrentTv& currentTv() {
    static CurrentTv& instance = *new CurrentTv;
    return instance;
}

/// Periods since vsync 0 when a TV is switched on (see `Tv::powerOn`).
constexpr double kPhaseAtPowerOn = 0.35;

DisplayConfig withOrigin(DisplayConfig config) {
    if (config.originNs == 0) {
        config.originNs = nowNs() - std::llround(kPhaseAtPowerOn * 1e9 / config.rateHz);
    }
    return config;
}

}  // namespace

int64_t nowNs() {
    return systemTime(SYSTEM_TIME_MONOTONIC);
}

struct Tv::Impl {
    explicit Impl(const TvConfig& config)
        : display(withOrigin(config.display)),
          tunnel(config.tunnel, display),
          scannedNs(nowNs() - 1) {}

    int64_t runVsyncs(int64_t nowNs) KORVANE_EXCLUDES(scanLock);
    void runDisplay() KORVANE_EXCLUDES(scanLock, lock);

    Display display;
    Tunnel tunnel;
    MediaSyncService mediaSync;
    Observer<const Vsync&> vsyncs;
    std::mutex scanLock;
    int64_t scannedNs KORVANE_GUARDED_BY(scanLock);  ///< vsyncs up to here are scanned out
    std::mutex lock;
    std::condition_variable wake;
    bool stopping KORVANE_GUARDED_BY(lock) = false;
    std::thread displayThread;
};

Tv::Tv(const TvConfig& config) : mImpl(std::make_unique<Impl>(config)) {
    if (config.displayThread) {
        mImpl->displayThread = std::thread([impl = mImpl.get()] { impl->runDisplay(); });
    }
}

Tv::~Tv() {
    powerOff();
}

std::shared_ptr<Tv> Tv::powerOn(const TvConfig& config) {
    const std::shared_ptr<Tv> tv(new Tv(config));
    {
        const std::lock_guard<std::mutex> guard(currentTv().lock);
        currentTv().set(tv);
    }
    return {tv.get(), [tv](Tv* owned) { owned->powerOff(); }};
}

std::shared_ptr<Tv> Tv::current() {
    const std::lock_guard<std::mutex> guard(currentTv().lock);
    return currentTv().tv;
}

bool Tv::isAnyOn() {
    return currentTv().any;
}

void Tv::powerOff() {
    {
        const std::lock_guard<std::mutex> guard(currentTv().lock);
        if (currentTv().tv.get() == this) {
            currentTv().set(nullptr);
        }
    }
    {
        const std::lock_guard<std::mutex> guard(mImpl->lock);
        mImpl->stopping = true;
    }
    mImpl->wake.notify_all();
    if (mImpl->displayThread.joinable()) {
        mImpl->displayThread.join();
    }
    // The panel is off and reads no buffer any more.
    mImpl->tunnel.signalFences(std::numeric_limits<int64_t>::max() - 1);
}

Display& Tv::display() {
    return mImpl->display;
}
Tunnel& Tv::tunnel() {
    return mImpl->tunnel;
}
MediaSyncService& Tv::mediaSync() {
    return mImpl->mediaSync;
}

void Tv::observeVsyncs(std::function<void(const Vsync&)> observer) {
    mImpl->vsyncs.set(std::move(observer));
}

void Tv::runVsyncs(int64_t nowNs) {
    mImpl->runVsyncs(nowNs);
}

/// @return when to run again
int64_t Tv::Impl::runVsyncs(int64_t nowNs) {
    const std::lock_guard<std::mutex> guard(scanLock);
    Vsync vsync = display.nextVsyncAfter(scannedNs);
    while (vsync.timeNs <= nowNs) {
        const Vsync next = display.nextVsyncAfter(vsync.timeNs);
        tunnel.scanOut(vsync, next);
        // As in Android's traces: the counter toggles at each vsync.
        traceCounter("display/vsync", vsync.index % 2, vsync.timeNs);
        vsyncs.call(vsync);
        scannedNs = vsync.timeNs;
        vsync = next;
    }
    return std::min(vsync.timeNs, tunnel.signalFences(nowNs));
}

void Tv::Impl::runDisplay() {
    WaitLock guard(lock);
    while (!stopping) {
        guard.unlock();
        const int64_t wakeNs = runVsyncs(nowNs());
        const int64_t waitNs = std::max<int64_t>(wakeNs - nowNs(), 0);
        guard.lock();
        wake.wait_for(guard.forWait(), std::chrono::nanoseconds(waitNs),
                      [this]() KORVANE_REQUIRES(lock) { return stopping; });
    }
}

}  // namespace korvane::tv
