// SPDX-License-Identifier: Apache-2.0
// Bytes as random players of the renderer library.
#include <cstdio>
#include <cstdlib>

#include "tests/fuzz/FuzzTarget.h"
#include "tests/fuzz/PlayerRun.h"

using namespace korvane::test;

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const PlayerProgram program = decodeProgram(data, size);
    const auto findings = runProgram(program);
    for (const auto& finding : findings) {
        std::fprintf(stderr, "%s\n", finding.c_str());
    }
    if (!findings.empty()) {
        std::fputs(toText(program).c_str(), stderr);
        std::abort();
    }
    return 0;
}
