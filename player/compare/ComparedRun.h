// SPDX-License-Identifier: Apache-2.0
// One side of a comparison: an event log, and the summary that the report makes of it.
//
// The log is told to the report frame by frame, as the playback was, so that its figures are the
// report's own. What a log does not have stays out: fences and waits for buffers (such breaks count
// as frames handed in late), the renderer's patterns, changes of the display's rate.
#pragma once

#include <string>

#include "player/report/EventLogReader.h"
#include "player/report/Summary.h"

namespace korvane::player {

struct ComparedRun {
    std::string name;
    LoggedPlayback log;
    Summary summary;
    int64_t worstFirstFrameUs = -1;  ///< from start or a seek to the first frame; -1: none
};

/// @param path  an event log, or a folder that has one as events.txt
/// @throws InputError
ComparedRun readRun(const std::string& path);
/// Makes the summary of a log.
ComparedRun runOf(std::string name, LoggedPlayback log);

}  // namespace korvane::player
