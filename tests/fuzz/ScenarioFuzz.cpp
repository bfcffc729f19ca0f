// SPDX-License-Identifier: Apache-2.0
// Bytes as a scenario file: it is read, or refused in one line.
#include "player/scenario/ScenarioFile.h"
#include "tests/fuzz/Refusal.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace korvane;
    test::takeOrRefuse<player::ScenarioError>(
        [&] { player::parseScenario(test::textOf(data, size), "some.toml"); });
    return 0;
}
