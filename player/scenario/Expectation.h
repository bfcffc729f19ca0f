// SPDX-License-Identifier: Apache-2.0
// Compares a playback with the expectations of a scenario, and with its actions: one that playback
// did not reach tests nothing. Pure.
//
// A failure reads "key: expected X, seen Y, first at frame N (t = 12.345 s)". The frame is the
// first one at which expected and seen differ; without such a frame that part is left out.
#pragma once

#include <string>
#include <vector>

#include "player/playback/Playback.h"
#include "player/report/Summary.h"
#include "player/scenario/Scenario.h"

namespace korvane::player {

/// The lines of the log that match an expectation.
struct LogCount {
    int64_t lines = 0;
    int64_t firstAtUs = -1;  ///< since the library's `start`; -1: none
    std::string first;       ///< the first of them
};

/// "3", "at least 1", "at most 3", "2 to 3".
std::string describe(const Range& range);

/// @return one line per action whose time playback did not reach
std::vector<std::string> neverHappened(const std::vector<TimedAction>& actions,
                                       const PlaybackRecord& record);

/// @param log  one count for each of `expect.log`
/// @return one line per expectation that does not hold; empty: all hold
std::vector<std::string> failures(const Expectations& expect, const PlaybackRecord& record,
                                  const Summary& summary, const std::vector<LogCount>& log);

}  // namespace korvane::player
