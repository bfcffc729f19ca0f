// SPDX-License-Identifier: Apache-2.0
// Bytes as random players of the renderer library.
#include "tests/fuzz/FuzzTarget.h"
#include "tests/fuzz/PlayerRun.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace korvane::test;
    const PlayerProgram program = decodeProgram(data, size);
    endIfAny(runProgram(program), program);
    return 0;
}
