// SPDX-License-Identifier: Apache-2.0
// The names that the command line of `explore` takes, apart from exploring itself: korvane-tv reads
// the command line of a command that another program carries out (command/HandOver.h).
#pragma once

#include <cstdint>

namespace korvane::player {

/// As tv/explore/Strategies.h has them.
enum class StrategyKind : uint8_t { Random, Pct, Exhaustive };

constexpr const char* kStrategyNames[] = {"random", "pct", "exhaustive"};

constexpr const char* toString(StrategyKind kind) {
    return kStrategyNames[static_cast<int>(kind)];
}

/// Of `builtInPrograms`, in their order.
constexpr const char* kProgramNames[] = {
    "start-flush-stop", "stop-idle",      "stop-early",    "stop-drain",
    "play-through",     "flush-send",     "seek-storm",    "two-senders",
    "send-stop",        "flush-stop",     "audio",         "audio-peek",
    "audio-peek-flush", "audio-flush",    "notify-twice",  "register",
    "call-back-flush",  "call-back-send", "slow-callback", "two-renderers",
    "passthrough",      "fence-never",    "restart",       "delete-running",
    "two-sessions"};

}  // namespace korvane::player
