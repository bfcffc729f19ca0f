// SPDX-License-Identifier: Apache-2.0
// What each fuzz target defines. `make fuzz` links it with libFuzzer, which searches for inputs;
// elsewhere Replay.cpp calls it with those of the corpus.
#pragma once

#include <cstddef>
#include <cstdint>

/// Takes one input. What must not happen ends the process; other inputs are refused in silence.
/// @return 0
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
