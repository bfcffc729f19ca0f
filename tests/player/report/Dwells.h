// SPDX-License-Identifier: Apache-2.0
// Series of dwells, in vsyncs, as the tests of the report write them.
#pragma once

#include <vector>

namespace korvane::player {

/// The second series after the first.
inline std::vector<int> join(std::vector<int> head, const std::vector<int>& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

}  // namespace korvane::player
