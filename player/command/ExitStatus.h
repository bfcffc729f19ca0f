// SPDX-License-Identifier: Apache-2.0
// Exit statuses of every command. A hang, which the virtual clock ends, has its own:
// tv::kHangStatus, 3. A playback that a signal ended has 128 plus the signal's number, as a shell
// says it of a program that the signal killed.
#pragma once

namespace korvane::player {

constexpr int kExitOk = 0;
/// An expectation failed, a frame or buffer is missing, or an output could not be written.
constexpr int kExitFailed = 1;
/// Wrong usage or input. No output was touched.
constexpr int kExitUsage = 2;
/// All that was played is accounted for, but playback stalled or the film breaks off.
constexpr int kExitCutShort = 4;

}  // namespace korvane::player
