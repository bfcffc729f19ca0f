// SPDX-License-Identifier: Apache-2.0
// Cost of one call through the simulated device libraries, for the calls that a renderer's threads
// poll. Runs in virtual time make hundreds of millions of them, so nanoseconds count.
#include <benchmark/benchmark.h>

#include "platform/MediaSync.h"
#include "platform/VideoTunnelLibrary.h"
#include "tv/Tv.h"

namespace {

using korvane::tv::Tv;

/// A TV with a connected tunnel and a media-sync client whose clock runs.
class Device {
public:
    Device() {
        korvane::tv::TvConfig config;
        config.displayThread = false;
        mTv = Tv::powerOn(config);
        device = tovak_vt_open();
        tovak_vt_alloc_id(device, &tunnelId);
        tovak_vt_connect(device, tunnelId, 0);
        const auto instance = mTv->mediaSync().create();
        instance->updateAnchorFromVideo(0, 0, 0);
        sync.bindInstance(static_cast<unsigned int>(instance->id()), MEDIA_VIDEO);
    }

    int device = -1;
    int tunnelId = -1;
    MediaSync sync;

private:
    std::shared_ptr<Tv> mTv;
};

void BM_Clock(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(korvane::tv::nowNs());
    }
}
BENCHMARK(BM_Clock);

void BM_CurrentTv(benchmark::State& state) {
    const Device tv;
    for (auto _ : state) {
        benchmark::DoNotOptimize(Tv::current());
    }
}
BENCHMARK(BM_CurrentTv);

void BM_DequeueNothing(benchmark::State& state) {
    const Device tv;
    int buffer = -1;
    int fence = -1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tovak_vt_dequeue_buffer(tv.device, tv.tunnelId, &buffer, &fence));
    }
}
BENCHMARK(BM_DequeueNothing);

void BM_DisplayVsync(benchmark::State& state) {
    const Device tv;
    int64_t timestampNs = 0;
    int32_t periodNs = 0;
    for (auto _ : state) {
        tovak_vt_getDisplayVsyncAndPeroid(tv.device, tv.tunnelId, &timestampNs, &periodNs);
    }
}
BENCHMARK(BM_DisplayVsync);

void BM_GetRealTimeFor(benchmark::State& state) {
    Device tv;
    long realUs = 0;
    for (auto _ : state) {
        tv.sync.getRealTimeFor(1000, &realUs);
    }
}
BENCHMARK(BM_GetRealTimeFor);

void BM_GetPause(benchmark::State& state) {
    Device tv;
    bool paused = false;
    for (auto _ : state) {
        tv.sync.getPause(&paused);
    }
}
BENCHMARK(BM_GetPause);

void BM_GetTrackMediaTime(benchmark::State& state) {
    Device tv;
    long mediaUs = 0;
    for (auto _ : state) {
        tv.sync.getTrackMediaTime(&mediaUs);
    }
}
BENCHMARK(BM_GetTrackMediaTime);

}  // namespace
