// The TV's switch and its display thread. The thread sleeps until the next vsync or fence,
// whichever is first; what it then does depends on the grid and on when each buffer was queued, not
// on when it woke up.
#include "tv/Tv.h"

#include <utils/Timers.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <thread>

namespace korvane::tv {
namespace {

struct CurrentTv {
    std::mutex lock;
    std::weak_ptr<Tv> tv;
};

/// Never destroyed: libraries may ask while the process ends.
CurrentTv& currentTv() {
    static CurrentTv& instance = *new CurrentTv;
    return instance;
}

DisplayConfig withOrigin(DisplayConfig config) {
    if (config.originNs == 0) {
        config.originNs = nowNs();
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

    int64_t runVsyncs(int64_t nowNs);
    void runDisplay();

    Display display;
    Tunnel tunnel;
    MediaSyncService mediaSync;
    std::mutex scanLock;
    int64_t scannedNs;  ///< vsyncs up to here are done; guarded by scanLock
    std::mutex lock;
    std::condition_variable wake;
    bool stopping = false;  ///< guarded by lock
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
    std::shared_ptr<Tv> tv(new Tv(config));
    const std::lock_guard<std::mutex> guard(currentTv().lock);
    currentTv().tv = tv;
    return tv;
}

std::shared_ptr<Tv> Tv::current() {
    const std::lock_guard<std::mutex> guard(currentTv().lock);
    return currentTv().tv.lock();
}

void Tv::powerOff() {
    {
        const std::lock_guard<std::mutex> guard(currentTv().lock);
        if (currentTv().tv.lock().get() == this) {
            currentTv().tv.reset();
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
    // A dark panel reads no buffer any more.
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

void Tv::runVsyncs(int64_t nowNs) {
    mImpl->runVsyncs(nowNs);
}

/// @return when there will be something to do again
int64_t Tv::Impl::runVsyncs(int64_t nowNs) {
    const std::lock_guard<std::mutex> guard(scanLock);
    Vsync vsync = display.nextVsyncAfter(scannedNs);
    while (vsync.timeNs <= nowNs) {
        const Vsync next = display.nextVsyncAfter(vsync.timeNs);
        tunnel.scanOut(vsync, next);
        scannedNs = vsync.timeNs;
        vsync = next;
    }
    return std::min(vsync.timeNs, tunnel.signalFences(nowNs));
}

void Tv::Impl::runDisplay() {
    std::unique_lock<std::mutex> guard(lock);
    while (!stopping) {
        guard.unlock();
        const int64_t wakeNs = runVsyncs(nowNs());
        const int64_t waitNs = std::max<int64_t>(wakeNs - nowNs(), 0);
        guard.lock();
        wake.wait_for(guard, std::chrono::nanoseconds(waitNs), [this] { return stopping; });
    }
}

}  // namespace korvane::tv
