// SPDX-License-Identifier: Apache-2.0
#include "tv/AudioOutput.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <optional>
#include <thread>

#include "tv/ScopedLock.h"
#include "tv/Trace.h"
#include "tv/Tv.h"

namespace korvane::tv {

struct AudioOutput::Impl {
    Impl(std::shared_ptr<SyncInstance> instance, const AudioConfig& config)
        : model(std::move(instance), config), thread([this] { run(); }) {}

    void run();
    /// Runs one operation on the model, then wakes the thread for the step after it.
    template <typename Operation>
    void change(Operation operation) {
        {
            const std::lock_guard<std::mutex> guard(lock);
            const int64_t nowUs = nowNs() / 1000;
            operation(model, nowUs);
            trace(nowUs);
        }
        wake.notify_one();
    }

    void trace(int64_t nowUs) KORVANE_REQUIRES(lock);

    mutable std::mutex lock;
    std::condition_variable wake;
    AudioModel model KORVANE_GUARDED_BY(lock);
    std::optional<AudioReport> traced KORVANE_GUARDED_BY(lock);
    bool stopping KORVANE_GUARDED_BY(lock) = false;
    std::thread thread;  // last: it uses the other members as soon as it starts
};

void AudioOutput::Impl::run() {
    // Longer waits are split, so that the thread notices a clock that a test moves by hand.
    constexpr int64_t kLongestWaitUs = 1'000'000;
    WaitLock guard(lock);
    while (!stopping) {
        const int64_t nowUs = nowNs() / 1000;
        const int64_t nextUs = model.step(nowUs);
        trace(nowUs);
        if (nextUs == std::numeric_limits<int64_t>::max()) {
            wake.wait(guard.forWait());
        } else if (nextUs > nowUs) {
            wake.wait_for(guard.forWait(),
                          std::chrono::microseconds(std::min(nextUs - nowUs, kLongestWaitUs)));
        }
    }
}

/// The changes of state and position since the last report.
void AudioOutput::Impl::trace(int64_t nowUs) {
    if (!recordingTrace()) {
        return;
    }
    const AudioReport now = model.report();
    if (!traced || traced->state != now.state) {
        traceState("sound/audio", toString(now.state), nowUs * 1000);
    }
    if (now.positionUs >= 0 && (!traced || traced->positionUs != now.positionUs)) {
        traceCounter("sound/audio position us", now.positionUs, nowUs * 1000);
    }
    traced = now;
}

AudioOutput::AudioOutput(std::shared_ptr<SyncInstance> instance, const AudioConfig& config)
    : mImpl(std::make_unique<Impl>(std::move(instance), config)) {}

AudioOutput::~AudioOutput() {
    stop();
}

void AudioOutput::queue(int64_t mediaTimeUs, int64_t durationUs) {
    mImpl->change(
        [&](AudioModel& model, int64_t nowUs) { model.queue(mediaTimeUs, durationUs, nowUs); });
}

void AudioOutput::endOfStream() {
    mImpl->change([](AudioModel& model, int64_t) { model.endOfStream(); });
}

void AudioOutput::pause() {
    mImpl->change([](AudioModel& model, int64_t nowUs) { model.pause(nowUs); });
}

void AudioOutput::resume() {
    mImpl->change([](AudioModel& model, int64_t nowUs) { model.resume(nowUs); });
}

void AudioOutput::flush() {
    mImpl->change([](AudioModel& model, int64_t nowUs) { model.flush(nowUs); });
}

void AudioOutput::setDriftPpm(double driftPpm) {
    mImpl->change([&](AudioModel& model, int64_t nowUs) { model.setDriftPpm(driftPpm, nowUs); });
}

void AudioOutput::stop() {
    {
        const std::lock_guard<std::mutex> guard(mImpl->lock);
        mImpl->stopping = true;
    }
    mImpl->wake.notify_one();
    if (mImpl->thread.joinable()) {
        mImpl->thread.join();
    }
}

AudioReport AudioOutput::report() const {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    return mImpl->model.report();
}

SoundRecord AudioOutput::sound() const {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    return mImpl->model.sound();
}

std::string AudioOutput::dump() const {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    return mImpl->model.dump();
}

}  // namespace korvane::tv
