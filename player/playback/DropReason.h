// SPDX-License-Identifier: Apache-2.0
// Why the library returned a frame without showing it.
//
// The callback gives no reason. It comes from the line that the library logs on the same thread
// right before it drops the frame, if the log mask enables that line; else from the clock's values
// at that time, by the library's rules. Each reason says which of the two it comes from. Pure
// functions.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace korvane::player {

enum class DropReason {
    None,              ///< not dropped
    BeforeAudio,       ///< audio has not taken the clock yet
    Late,              ///< more than 40 ms behind the clock
    UnderflowCatchUp,  ///< behind audio, or not early, after an underflow
    Policy,            ///< pass-through: the sync instance decided to drop it
    Flush,             ///< a flush ended its wait
    Unknown            ///< none of the rules fits the values
};
const char* toString(DropReason reason);

enum class DropEvidence {
    None,
    LogLine,  ///< the library's own line
    Values    ///< the clock's values at the drop
};
const char* toString(DropEvidence evidence);

/// The values at the time of a drop.
struct DropValues {
    bool passthrough = false;
    bool hasAudio = false;
    /// Between a flush and the next frame sent.
    bool flushing = false;
    /// The sync instance's mode: 0 nobody leads, 1 audio leads.
    int syncMode = 0;
    /// There was an audio underflow earlier in this playback.
    bool underflowSeen = false;
    /// How far the frame was behind the clock, microseconds; negative: early.
    int64_t lateUs = 0;
    int64_t vsyncPeriodUs = 0;
};

/// The reason that fits the values.
DropReason dropReasonFromValues(const DropValues& values);

/// The reason that a line of the library's log gives for the next frame dropped on its thread.
std::optional<DropReason> dropReasonFromLog(const std::string& text);

}  // namespace korvane::player
