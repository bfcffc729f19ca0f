// SPDX-License-Identifier: Apache-2.0
// The columns of the per-frame output, as one table: the CSV, the ledger's JSON lines and the
// report page all read it, so that their numbers are the same.
//
// Times are microseconds since the library's `start`, media times as in the file. An empty value is
// unknown or does not apply.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>

#include "player/playback/Playback.h"
#include "player/report/BreakCause.h"
#include "player/report/CadenceListener.h"

namespace korvane::player {

/// A number, or a word with the number that stands for it on the page. Neither: an empty field.
struct LedgerValue {
    std::optional<int64_t> number;
    const char* word = nullptr;
};

struct LedgerRow {
    const FrameEntry& frame;
    int64_t startNs;
    std::optional<BreakCause> cause;  ///< of an unexpected dwell
};

struct LedgerColumn {
    const char* name;
    LedgerValue (*value)(const LedgerRow& row);
};

constexpr int kLedgerColumns = 23;
extern const LedgerColumn kLedger[kLedgerColumns];

/// Holds frames back until their dwell is judged, so that a row is complete.
class LedgerListener : public PlaybackListener, public CadenceListener {
public:
    void onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) override;
    void onBreak(const FrameBreak& found) override;
    void onJudgedUpTo(int64_t frameNo) override;
    /// Takes the next row, in the order of frames.
    virtual void onRow(const LedgerRow& row) = 0;

private:
    int64_t mStartNs = 0;
    std::deque<FrameEntry> mWaiting;
    std::map<int64_t, BreakCause> mCauses;  ///< of those that wait
};

}  // namespace korvane::player
