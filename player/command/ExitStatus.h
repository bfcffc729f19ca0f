// SPDX-License-Identifier: Apache-2.0
// Exit statuses of every command. A hang, which the virtual clock ends, has its own:
// tv::kHangStatus.
#pragma once

namespace korvane::player {

constexpr int kExitOk = 0;
/// An expectation failed, a frame or buffer is missing, or an output could not be written.
constexpr int kExitFailed = 1;
/// Wrong usage or input. No output was touched.
constexpr int kExitUsage = 2;

}  // namespace korvane::player
