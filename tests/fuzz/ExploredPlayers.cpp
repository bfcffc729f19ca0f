// SPDX-License-Identifier: Apache-2.0
// Bytes as random players of the library that is compiled for exploring: each of its accesses can
// be a switch of threads. The program's seed says which schedule it plays under: a random walk or
// one with priorities. Races, locks in a circle, leaks and uses after free are findings, too.
#include "tests/fuzz/FuzzTarget.h"
#include "tests/fuzz/PlayerRun.h"
#include "tv/explore/Exploration.h"
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

/// A descriptor that is no fence stays open.
bool deliberate(const tv::ExploredFault& fault, const test::PlayerProgram& program) {
    return fault.kind == tv::ExploredFault::Kind::DescriptorLeak &&
           program.uses(test::Knob::FenceWrongMode);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static tv::Exploration exploration;
    const test::PlayerProgram program = test::decodeProgram(data, size);
    tv::VirtualTimeOptions options;
    options.schedule = &strategyOf(program.seed);
    options.observer = &exploration;
    options.plainAccesses = true;
    exploration.beginRun();
    auto findings = test::runProgram(program, options);
    exploration.endRun();
    for (const auto& fault : exploration.faults()) {
        if (fault.inThisRun && !deliberate(fault, program)) {
            findings.push_back(fault.what + "\n" + fault.details);
        }
    }
    test::endIfAny(findings, program);
    return 0;
}
