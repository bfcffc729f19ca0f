// SPDX-License-Identifier: Apache-2.0
// One side of a comparison: an event log, and the summary that the report makes of it.
//
// The report's own code reads the log frame by frame, as it does a playback, so the figures are the
// report's. A log does not have fences and waits for buffers (such breaks count as frames handed in
// late), the renderer's patterns, and changes of the display's rate. The summary in a report folder
// has them.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "player/compare/ToldSummary.h"
#include "player/report/EventLogReader.h"
#include "player/report/Summary.h"

namespace korvane::player {

struct ComparedRun {
    std::string name;
    LoggedPlayback log;
    Summary summary;
    std::optional<ToldSummary> told;  ///< of a report folder
    int64_t worstFirstFrameUs = -1;   ///< from start or a seek to the first frame; -1: none

    const std::string& verdict() const { return told ? told->verdict : summary.verdict; }
    Grade grade() const { return told ? told->grade : summary.grade; }
    std::string pattern() const;
};

/// @param path  an event log, or a folder that has one as events.txt
/// @throws InputError
ComparedRun readRun(const std::string& path);
/// Reads both. Only if both have a summary are the summaries compared.
std::pair<ComparedRun, ComparedRun> readRuns(const std::string& a, const std::string& b);
/// Makes the summary of a log.
ComparedRun runOf(std::string name, LoggedPlayback log);

}  // namespace korvane::player
