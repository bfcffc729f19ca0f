// SPDX-License-Identifier: Apache-2.0
// A schedule as text: the decisions in which a run differs from the default, where each thread goes
// on until it waits and then the one that could run longest is next.
//
//   3.12:1         thread 3 loses the processor at its step 12, or has to choose there: thread 1 is
//                  next
//   3.12:1+5000    the same; thread 3 is away for 5000 ns
//   3.12+5000      the same; no other thread can run
//   3.12!          thread 3's wait at step 12 ends spuriously
//
// Joined by commas; "none" without any.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace korvane::tv {

struct Deviation {
    int32_t thread = 0;
    uint64_t step = 0;
    int32_t next = 0;  ///< the thread chosen; 0: none
    int64_t awayNs = 0;
    bool spurious = false;
};

__attribute__((visibility("default"))) std::string toText(const std::vector<Deviation>& schedule);

/// @throws std::invalid_argument with what is wrong where
__attribute__((visibility("default"))) std::vector<Deviation> parseSchedule(
    const std::string& text);

}  // namespace korvane::tv
