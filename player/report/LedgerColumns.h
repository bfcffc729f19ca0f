// SPDX-License-Identifier: Apache-2.0
// What is told of each frame, as one table of columns: the CSV, the ledger's JSON lines and the
// report page all read it, so that their numbers are the same.
//
// Times are microseconds since the library's `start`, media times as in the file. An empty value is
// unknown or does not apply.
#pragma once

#include <cstdint>
#include <optional>

#include "player/playback/Playback.h"

namespace korvane::player {

/// A number, a word, or both: a word has the number that stands for it on the page. Neither: empty.
struct LedgerValue {
    std::optional<int64_t> number;
    const char* word = nullptr;
};

struct LedgerColumn {
    const char* name;
    LedgerValue (*value)(const FrameEntry& frame, const PlaybackRecord& record);
};

constexpr int kLedgerColumns = 22;
extern const LedgerColumn kLedger[kLedgerColumns];

}  // namespace korvane::player
