// SPDX-License-Identifier: Apache-2.0
// Virtual time:
//
//   counter "ns"            one usleep alone at the front, two that need a switch each, switches,
//                           locks, signals: the primitives that a frame's way is made of
//   counter "hours_per_s"   virtual time per CPU second: the polling alone, a renderer that
//                           waits for its first frame while audio plays, one that plays with audio
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "VideoTunnelRenderer.h"
#include "tv/AudioOutput.h"
#include "tv/Log.h"
#include "tv/Properties.h"
#include "tv/Tv.h"
#include "tv/clock/VirtualTime.h"

namespace {

using korvane::tv::VirtualTime;
using korvane::tv::VirtualTimeOptions;

/// The loops below go on for as long as the benchmark likes.
VirtualTimeOptions patient() {
    VirtualTimeOptions options;
    options.callsPerInstant = int64_t{1} << 62;
    options.longestRunNs = int64_t{1} << 62;
    return options;
}

/// CPU seconds of the process: in virtual time the clocks show that, these do not.
template <typename Action>
double cpuSeconds(const Action& action) {
    timespec start{};
    timespec end{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &start);
    action();
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &end);
    return static_cast<double>(end.tv_sec - start.tv_sec) +
           static_cast<double>(end.tv_nsec - start.tv_nsec) * 1e-9;
}

/// Times `action` in batches and reports the cost of one.
template <typename Action>
void measure(benchmark::State& state, const Action& action) {
    constexpr int kBatch = 1 << 20;
    double spent = 0.0;
    for (auto _ : state) {
        const double seconds = cpuSeconds([&] {
            for (int i = 0; i < kBatch; ++i) {
                action();
            }
        });
        spent += seconds;
        state.SetIterationTime(seconds);
    }
    state.counters["ns"] = spent * 1e9 / (static_cast<double>(state.iterations()) * kBatch);
}

void BM_SleepAlone(benchmark::State& state) {
    const VirtualTime time(1, patient());
    measure(state, [] { usleep(500); });
}
BENCHMARK(BM_SleepAlone)->UseManualTime();

/// Two threads that sleep alternately: each sleep is a timer slot in the heap and a switch.
void BM_TwoSleepEvents(benchmark::State& state) {
    const VirtualTime time(1, patient());
    bool running = true;
    std::thread other([&] {
        usleep(250);
        while (running) {
            usleep(500);
        }
    });
    measure(state, [] { usleep(500); });
    running = false;
    other.join();
}
BENCHMARK(BM_TwoSleepEvents)->UseManualTime();

/// There and back.
void BM_TwoSwitches(benchmark::State& state) {
    const VirtualTime time(1, patient());
    bool running = true;
    std::thread other([&] {
        while (running) {
            std::this_thread::yield();
        }
    });
    measure(state, [] { std::this_thread::yield(); });
    running = false;
    other.join();
}
BENCHMARK(BM_TwoSwitches)->UseManualTime();

void BM_LockAndUnlock(benchmark::State& state) {
    const VirtualTime time(1, patient());
    std::mutex lock;
    measure(state, [&] { const std::lock_guard<std::mutex> guard(lock); });
}
BENCHMARK(BM_LockAndUnlock)->UseManualTime();

void BM_LockAndUnlockInRealTime(benchmark::State& state) {
    std::mutex lock;
    measure(state, [&] { const std::lock_guard<std::mutex> guard(lock); });
}
BENCHMARK(BM_LockAndUnlockInRealTime)->UseManualTime();

void BM_ReadClock(benchmark::State& state) {
    const VirtualTime time(1, patient());
    measure(state, [] { benchmark::DoNotOptimize(korvane::tv::nowNs()); });
}
BENCHMARK(BM_ReadClock)->UseManualTime();

/// One thread passes a token to the other and waits until it is returned.
void BM_SignalAndWaitThereAndBack(benchmark::State& state) {
    const VirtualTime time(1, patient());
    std::mutex lock;
    std::condition_variable wake;
    bool others = false;
    bool running = true;
    std::thread other([&] {
        std::unique_lock<std::mutex> guard(lock);
        while (running) {
            wake.wait(guard, [&] { return others; });
            others = false;
            wake.notify_one();
        }
    });
    const auto handOver = [&] {
        std::unique_lock<std::mutex> guard(lock);
        others = true;
        wake.notify_one();
        wake.wait(guard, [&] { return !others; });
    };
    measure(state, handOver);
    running = false;
    handOver();
    other.join();
}
BENCHMARK(BM_SignalAndWaitThereAndBack)->UseManualTime();

// ---- hours of virtual time per second ----

constexpr unsigned kHour = 3600;

template <typename Action>
void measureHours(benchmark::State& state, const VirtualTime& time, const Action& action) {
    double spent = 0.0;
    for (auto _ : state) {
        const double seconds = cpuSeconds(action);
        spent += seconds;
        state.SetIterationTime(seconds);
    }
    const double hours = static_cast<double>(time.statistics().elapsedNs) / 3.6e12;
    state.counters["hours_per_s"] = hours / spent;
    state.counters["s_per_24_hours"] = spent * 24 / hours;
}

/// What an idle renderer's threads do at the least: one sleeps 500 us at a time, one waits 100 ms.
void BM_WorkerLoops(benchmark::State& state) {
    const VirtualTime time(1, patient());
    std::mutex lock;
    std::condition_variable wake;
    bool running = true;
    std::thread fill([&] {
        while (running) {
            usleep(500);
        }
    });
    std::thread drain([&] {
        std::unique_lock<std::mutex> guard(lock);
        while (running) {
            wake.wait_for(guard, std::chrono::milliseconds(100));
        }
    });
    measureHours(state, time, [] { std::this_thread::sleep_for(std::chrono::seconds(kHour)); });
    running = false;
    fill.join();
    drain.join();
}
BENCHMARK(BM_WorkerLoops)->Unit(benchmark::kMillisecond)->UseManualTime();

/// Renderers on one 59.94 Hz TV, each with a tunnel and an audio output of its own.
class Player {
public:
    explicit Player(int64_t renderers) {
        const auto heard = [](void*, void*) { return 0; };
        korvane::tv::openLog(8);
        korvane::tv::setProperty("vendor.korvane.loglevels", "0");
        korvane::tv::TvConfig config;
        config.display.rateHz = 60000.0 / 1001;
        mTv = korvane::tv::Tv::powerOn(config);
        for (int64_t i = 0; i < renderers; ++i) {
            const auto clock = mTv->mediaSync().create();
            auto* const renderer = mRenderers.emplace_back(VideoTunnelRenderer_create()).get();
            renderer->init(clock->id());
            renderer->regCallBack(1, heard, nullptr);
            renderer->regCallBack(2, heard, nullptr);
            mTunnelIds.push_back(renderer->getTunnelId());
            renderer->start();
            mAudio.push_back(
                std::make_unique<korvane::tv::AudioOutput>(clock, korvane::tv::AudioConfig()));
            mAudio.back()->queue(0, int64_t{1} << 60);
        }
    }
    ~Player() {
        for (const auto& renderer : mRenderers) {
            renderer->stop();
        }
        mRenderers.clear();
        mAudio.clear();
        mTv->powerOff();
    }
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    /// 24 frames a second to each renderer, each handed in 100 ms ahead.
    void play(unsigned seconds) {
        for (const int64_t end = mFrame + int64_t{24} * seconds; mFrame < end; ++mFrame) {
            const int64_t dueUs = mFrame * 1'000'000 / 24;
            for (const auto& renderer : mRenderers) {
                renderer->sendVideoFrame(kFd, dueUs + 100'000, false);
            }
            usleep(static_cast<useconds_t>((mFrame + 1) * 1'000'000 / 24 - dueUs));
            if (mFrame % 1000 == 0) {
                for (const int tunnelId : mTunnelIds) {
                    mTv->tunnel().takeFinished(tunnelId);
                }
            }
        }
    }

private:
    static constexpr int kFd = 10'000;  // no open descriptor: a buffer without a picture

    std::shared_ptr<korvane::tv::Tv> mTv;
    std::vector<std::unique_ptr<VideoTunnelRenderer>> mRenderers;
    std::vector<std::unique_ptr<korvane::tv::AudioOutput>> mAudio;
    std::vector<int> mTunnelIds;
    int64_t mFrame = 0;
};

void BM_IdleRenderer(benchmark::State& state) {
    const VirtualTime time(1, patient());
    const Player player(1);
    measureHours(state, time, [] { std::this_thread::sleep_for(std::chrono::seconds(kHour)); });
}
BENCHMARK(BM_IdleRenderer)->Unit(benchmark::kMillisecond)->UseManualTime();

void BM_PlayingRenderer(benchmark::State& state) {
    const VirtualTime time(1, patient());
    Player player(1);
    measureHours(state, time, [&] { player.play(kHour); });
}
BENCHMARK(BM_PlayingRenderer)->Unit(benchmark::kMillisecond)->UseManualTime();

/// Many renderers in one process: what one of them costs for a minute and for a frame.
void BM_PlayingRenderers(benchmark::State& state) {
    constexpr unsigned kMinute = 60;
    const VirtualTime time(1, patient());
    Player player(state.range(0));
    double spent = 0.0;
    for (auto _ : state) {
        const double seconds = cpuSeconds([&] { player.play(kMinute); });
        spent += seconds;
        state.SetIterationTime(seconds);
    }
    const double minutes = static_cast<double>(state.iterations() * state.range(0));
    state.counters["ms_per_renderer_minute"] = spent * 1e3 / minutes;
    state.counters["us_per_frame"] = spent * 1e6 / (minutes * kMinute * 24);
}
BENCHMARK(BM_PlayingRenderers)
    ->RangeMultiplier(4)
    ->Range(1, 64)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();

}  // namespace
