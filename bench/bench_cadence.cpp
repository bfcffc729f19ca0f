// SPDX-License-Identifier: Apache-2.0
// Cost of the cadence tracker per frame and per vsync report, with the log switched off.
//
// Presents content whose repeat counts have a cycle of four. The pattern in a benchmark's name must
// be in force before the timing starts. Aim: below 50 ns per frame, with the lock and the record's
// copy.
#include <benchmark/benchmark.h>

#include <array>

#include "tests/frac/FracTestSupport.h"

namespace {

using korvane::test::inForce;
using korvane::test::setLogMask;

constexpr int kPeriodUs = 16666;
constexpr int64_t kStartUs = 1'000'000'000;
constexpr int kRendererMask = 11;  // what the renderer enables: all but [4:1]
constexpr int kFourOneMask = 4;

class Content {
public:
    Content(const std::array<int64_t, 4>& counts, int enableMask) : mCounts(counts) {
        mTracker.setFrameRate(2400);
        mTracker.setEnablePattern(enableMask);
        mTracker.updateHWCVsyncInfo(kStartUs, kPeriodUs);
    }

    long present() {
        long resultUs = 0;
        mTracker.getRealTime(mTimeUs, mTimeUs, 0, &resultUs);
        mTimeUs += mCounts[mNext] * kPeriodUs;
        mNext = (mNext + 1) % mCounts.size();
        return resultUs;
    }

    std::string pattern() { return inForce(mTracker); }

private:
    const std::array<int64_t, 4> mCounts;
    VideoSyncFRAC mTracker;
    int64_t mTimeUs = kStartUs + 8000;
    size_t mNext = 0;
};

void getRealTime(benchmark::State& state, const std::array<int64_t, 4>& counts, int enableMask,
                 const char* pattern) {
    setLogMask(0);
    Content content(counts, enableMask);
    for (int frame = 0; frame < 20 || (frame < 100 && content.pattern() != pattern); ++frame) {
        content.present();
    }
    if (content.pattern() != pattern) {
        state.SkipWithError("the pattern to be measured is not in force");
    }
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(content.present());
    }
}
BENCHMARK_CAPTURE(getRealTime, off, {3, 2, 3, 2}, 0, "-");
BENCHMARK_CAPTURE(getRealTime, no_pattern, {3, 2, 2, 3}, kRendererMask, "-");
BENCHMARK_CAPTURE(getRealTime, pattern_3_2, {3, 2, 3, 2}, kRendererMask, "[3:2]");
BENCHMARK_CAPTURE(getRealTime, pattern_2_2, {2, 2, 2, 2}, kRendererMask, "[2:2]");
BENCHMARK_CAPTURE(getRealTime, pattern_1_1, {1, 1, 1, 1}, kRendererMask, "[1:1]");
// [4:1] expects no count, so it breaks at the next frame: detected, applied, broken, again and
// again.
BENCHMARK_CAPTURE(getRealTime, pattern_4_1, {2, 1, 1, 1}, kFourOneMask, "[4:1]");

void updateHWCVsyncInfo(benchmark::State& state) {
    setLogMask(0);
    VideoSyncFRAC tracker;
    int64_t vsyncUs = kStartUs;
    for ([[maybe_unused]] auto _ : state) {
        vsyncUs += int64_t{10} * kPeriodUs;
        benchmark::DoNotOptimize(tracker.updateHWCVsyncInfo(vsyncUs, kPeriodUs));
    }
}
BENCHMARK(updateHWCVsyncInfo);

}  // namespace
