// SPDX-License-Identifier: Apache-2.0
// Bytes as random players of the library that is compiled for exploring: each of its accesses can
// be a switch of threads. The program's seed says which schedule it plays under: a random walk or
// one with priorities.
#include "player/explore/Runner.h"
#include "tests/fuzz/FuzzTarget.h"
#include "tests/fuzz/PlayerProgram.h"
#include "tv/explore/Strategies.h"

namespace {

using namespace korvane;

tv::Strategy& strategyOf(uint64_t seed) {
    tv::RandomOptions options;
    options.longestAwayNs = 1'000'000;
    constexpr int kDepth = 3;
    constexpr uint64_t kPoints = 20'000;
    static tv::RandomWalk walk(options);
    static tv::Pct pct(options, kDepth, kPoints);
    tv::Strategy& strategy = seed % 2 == 0 ? static_cast<tv::Strategy&>(walk) : pct;
    strategy.startAt(seed);
    strategy.next();
    return strategy;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static player::Runner runner(test::kAllBuffers);
    const test::RandomPlayer random = test::decodePlayer(data, size);
    test::setLogging(random);
    player::RunnerOptions options;
    options.plainAccesses = true;
    test::endIfAny(runner.play(random.program, strategyOf(random.seed), options).faults, random);
    return 0;
}
