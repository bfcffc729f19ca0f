// SPDX-License-Identifier: Apache-2.0
// The renderer's per-frame path as the player sees it, on the simulated TV, log mask 0:
//
//   sendVideoFrame     the call alone: before start; while the drain thread waits for a show time,
//                      as it mostly does; while it waits for this frame
//   send to callback   one frame's whole path: queue, drain thread, tunnel, display, fence, fill
//                      thread, callback; the display's vsync is its lower bound
//   CPU per second     an idle renderer and one at 60 fps, beside bare threads with the same
//   sleeps:
//                      the cost of polling on this machine
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "VideoTunnelRenderer.h"
#include "tv/Log.h"
#include "tv/Properties.h"
#include "tv/Tv.h"

namespace {

using korvane::tv::Tv;

constexpr int kFd = 10'000;  // no open descriptor: a buffer without a picture

class Player {
public:
    explicit Player(double displayHz, bool displayThread = true) {
        korvane::tv::openLog(8);
        korvane::tv::setProperty("vendor.korvane.loglevels", "0");
        korvane::tv::TvConfig config;
        config.display.rateHz = displayHz;
        config.displayThread = displayThread;
        mTv = Tv::powerOn(config);
        renderer.reset(VideoTunnelRenderer_create());
        renderer->init(0);
        renderer->regCallBack(2, &Player::onStatus, this);
        renderer->getTunnelId();
    }
    ~Player() {
        renderer->stop();
        renderer.reset();
        mTv->powerOff();
    }
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    static int onStatus(void* self, void*) {
        auto* player = static_cast<Player*>(self);
        player->returned.fetch_add(1, std::memory_order_release);
        return 0;
    }

    std::unique_ptr<VideoTunnelRenderer> renderer;
    std::atomic<int64_t> returned{0};

private:
    std::shared_ptr<Tv> mTv;
};

void BM_SendVideoFrameNotStarted(benchmark::State& state) {
    constexpr int kBatch = 4096;
    for (auto _ : state) {
        state.PauseTiming();
        auto player = std::make_unique<Player>(60.0, false);
        state.ResumeTiming();
        for (int i = 0; i < kBatch; ++i) {
            player->renderer->sendVideoFrame(kFd, i, false);
        }
        state.PauseTiming();
        player.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    state.counters["s_per_frame"] =
        benchmark::Counter(static_cast<double>(state.iterations() * kBatch),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_SendVideoFrameNotStarted)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The drain thread waits with a frame that is due in an hour.
void BM_SendVideoFrameWhileOneIsDue(benchmark::State& state) {
    Player player(60.0, false);
    player.renderer->updateVideoTime(0);
    player.renderer->start();
    player.renderer->sendVideoFrame(kFd, 3'600'000'000L, false);
    usleep(50'000);
    for (auto _ : state) {
        player.renderer->sendVideoFrame(kFd, 3'600'000'000L, false);
    }
}
BENCHMARK(BM_SendVideoFrameWhileOneIsDue)->Iterations(500'000)->UseRealTime();

// Frames that are an hour late: the drain thread drops each at once, so the queue stays short and
// most calls wake the thread.
void BM_SendVideoFrameWhileDraining(benchmark::State& state) {
    Player player(60.0, false);
    player.renderer->updateVideoTime(0);
    player.renderer->start();
    for (auto _ : state) {
        player.renderer->sendVideoFrame(kFd, -3'600'000'000L, false);
    }
}
BENCHMARK(BM_SendVideoFrameWhileDraining)->Iterations(200'000)->UseRealTime();

// A display of 1000 Hz, so that waiting for a vsync is a small part of the round trip.
void BM_SendToCallback(benchmark::State& state) {
    Player player(1000.0);
    player.renderer->updateVideoTime(0);
    player.renderer->start();
    const auto start = std::chrono::steady_clock::now();
    const auto send = [&] {
        const auto mediaUs = std::chrono::duration_cast<std::chrono::microseconds>(
                                 std::chrono::steady_clock::now() - start)
                                 .count();
        player.renderer->sendVideoFrame(kFd, mediaUs, false);
    };
    for (int i = 0; i < 3; ++i) {
        send();  // two buffers always stay in the tunnel; the third comes back with the next one
        usleep(2000);
    }
    for (auto _ : state) {
        const int64_t before = player.returned.load(std::memory_order_acquire);
        send();
        while (player.returned.load(std::memory_order_acquire) == before) {
            std::this_thread::yield();
        }
    }
}
BENCHMARK(BM_SendToCallback)->Iterations(300)->UseRealTime()->Unit(benchmark::kMicrosecond);

double processCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

/// The process's CPU milliseconds per second of wall time while `during` runs.
template <typename Action>
void measureCpu(benchmark::State& state, Action during) {
    for (auto _ : state) {
        const double cpu = processCpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        during();
        const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
        state.counters["cpu_ms_per_s"] = (processCpuSeconds() - cpu) * 1e3 / wall.count();
    }
}

void BM_CpuIdleRenderer(benchmark::State& state) {
    Player player(60.0, false);
    player.renderer->start();
    measureCpu(state, [] { std::this_thread::sleep_for(std::chrono::seconds(2)); });
}
BENCHMARK(BM_CpuIdleRenderer)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

void BM_CpuRendererAt60Fps(benchmark::State& state) {
    Player player(60.0);
    player.renderer->updateVideoTime(0);
    player.renderer->start();
    measureCpu(state, [&] {
        for (int frame = 0; frame < 120; ++frame) {
            player.renderer->sendVideoFrame(kFd, 100'000 + frame * 16'667L, false);
            usleep(16'667);
        }
    });
}
BENCHMARK(BM_CpuRendererAt60Fps)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

// The least that an idle renderer's threads do: one sleeps 500 us at a time, one waits.
void BM_CpuBareLoops(benchmark::State& state) {
    std::atomic<bool> running{true};
    std::mutex lock;
    std::condition_variable wake;
    std::thread fill([&] {
        while (running) {
            usleep(500);
        }
    });
    std::thread drain([&] {
        std::unique_lock<std::mutex> guard(lock);
        wake.wait(guard, [&] { return !running; });
    });
    measureCpu(state, [] { std::this_thread::sleep_for(std::chrono::seconds(2)); });
    {
        const std::lock_guard<std::mutex> guard(lock);
        running = false;
    }
    wake.notify_all();
    fill.join();
    drain.join();
}
BENCHMARK(BM_CpuBareLoops)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace
