// SPDX-License-Identifier: Apache-2.0
// Reads an event log back: each frame with what became of it, and what the player did.
//
// Refuses, in one line, a file that is not an event log, a log of another version, and one that
// ends before its playback did: figures of half a log would look like those of a bad playback.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "player/playback/Playback.h"

namespace korvane::player {

/// A frame as the log has it. Times count from the library's `start`; unset ones are 0.
struct LoggedFrame {
    int64_t mediaTimeUs = 0;
    int64_t sentNs = -1;  ///< -1: not read yet
    int64_t queuedNs = 0;
    int64_t presentUs = 0;
    int64_t shownNs = 0;
    int64_t vsync = 0;
    int64_t offsetUs = 0;  ///< from the sync clock
    std::optional<int64_t> lipSyncUs;
    int64_t releasedNs = 0;
    int64_t returnedNs = 0;
    int64_t dwellVsyncs = 0;
    int buffer = -1;
    int section = 0;  ///< counts flushes, seeks and restarts before it was sent
    Outcome outcome = Outcome::Pending;
    DropReason dropReason = DropReason::None;
    bool queued = false;
    bool atOnce = false;
    bool sentLate = false;
    bool returned = false;
    bool rendered = false;
};

struct LoggedPlayback {
    std::vector<LoggedFrame> frames;  ///< by number
    std::vector<Event> actions;       ///< of no frame
    int64_t bytes = 0;
    std::string hash;  ///< as EventLog tells it

    /// Vsyncs per second between two frames, of most frames; 0: too few were shown.
    double displayHz() const;
};

/// @param name  for messages
/// @throws InputError
LoggedPlayback readEventLog(std::istream& in, const std::string& name);
/// The frame as in the playback, as far as the log has it.
FrameEntry entryOf(const LoggedPlayback& playback, size_t frameNo);

}  // namespace korvane::player
