// SPDX-License-Identifier: Apache-2.0
// One thing that happened in a playback: when, what, to which frame.
#pragma once

#include <cstdint>
#include <string>

namespace korvane::player {

/// In the order in which events of the same time are written: what leaves the screen makes room for
/// what comes.
enum class EventKind : uint8_t {
    Start,
    Flush,
    Seek,
    Pause,
    Resume,
    Restart,
    Stop,
    Audio,
    Replaced,
    Superseded,
    Returned,
    Sent,
    Queued,
    Shown,
    Dropped,
    Flushed,
    Refused,
    Discarded,
    Lost,
    Log
};

struct Event {
    int64_t timeNs = 0;
    EventKind kind = EventKind::Start;
    int64_t frameNo = -1;
    int64_t first = 0;  ///< what they mean depends on the kind, see report/EventLog.cpp
    int64_t second = 0;
    std::string text;
};

}  // namespace korvane::player
