// SPDX-License-Identifier: Apache-2.0
// Receives stretches, and each break once it is decided, some frames after it happened. The summary
// keeps only the first ones.
#pragma once

#include <cstdint>
#include <string>

#include "player/report/BreakCause.h"
#include "player/report/Summary.h"

namespace korvane::player {

enum class BreakKind { Unexpected, ByArithmetic, AtStart };

struct FrameBreak {
    int64_t frameNo = 0;
    int dwell = 0;
    int expected = 0;
    BreakKind kind = BreakKind::Unexpected;
    BreakCause cause = BreakCause::Unexplained;
    std::string text;  ///< the cause in words, of an unexpected one
};

class CadenceListener {
public:
    virtual ~CadenceListener() = default;
    virtual void onBreak(const FrameBreak& found) = 0;
    /// No later call of `onBreak` has a smaller number.
    virtual void onJudgedUpTo(int64_t frameNo) = 0;
    /// After its breaks. Frames from `firstFrame` on were its own; `report` is null if none of them
    /// was shown.
    virtual void onStretch(int64_t firstFrame, const StretchReport* report) {
        static_cast<void>(firstFrame);
        static_cast<void>(report);
    }
};

}  // namespace korvane::player
