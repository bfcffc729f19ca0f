// SPDX-License-Identifier: Apache-2.0
// Compares the dwells of a stretch of any length with its pattern, in bounded memory.
//
// Of all ways to assign each dwell a phase (a frame of the pattern), the one with the fewest breaks
// counts: a shortest path through a table of dwells by phases. Its edges are kept for the last
// `kUndecided` to twice as many dwells; what is older is decided by the path that is shortest then.
// A later dwell could change that only in content that fits its pattern nowhere.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "player/report/Cadence.h"

namespace korvane::player {

class CadenceTracker {
public:
    /// Dwells that may be looked at again before they are decided.
    static constexpr size_t kUndecided = 1024;

    explicit CadenceTracker(const ExpectedCadence& expected) : mExpected(expected) {}

    /// Takes the next dwell in order of display; 0: superseded before it was shown.
    /// @return the breaks that are decided now, in order
    std::vector<DwellBreak> add(int dwell);
    /// Decides the rest. Nothing is added afterwards.
    std::vector<DwellBreak> finish();

    /// Dwells that are decided: no break before this index will be reported any more.
    size_t decided() const { return mDecided; }
    size_t dwells() const { return mDecided + mWaiting.size(); }
    /// Of the dwells decided.
    const CadenceResult& result() const { return mResult; }

private:
    static constexpr size_t kMostPhases = 16;
    struct Step {
        int dwell;
        std::array<uint8_t, kMostPhases> cameFrom;
    };

    std::vector<DwellBreak> decide(size_t count);
    std::optional<DwellBreak> take(int dwell, size_t phase);
    DwellBreak judge(DwellBreak found, double movedVsyncs);
    void hold();
    double movedBy(int dwell, size_t inStep, size_t phase) const;
    double endLead(size_t phase) const;

    const ExpectedCadence mExpected;
    std::array<int64_t, kMostPhases> mCost{};
    std::vector<Step> mWaiting;
    CadenceResult mResult;
    size_t mDecided = 0;
    size_t mPhase = 0;       ///< of the last dwell decided
    size_t mRunStart = 0;    ///< of the dwells in step, while the pattern has not held yet
    double mSlipped = 0.0;   ///< vsyncs by which breaks by arithmetic have moved the frames
    size_t mSlipsSince = 0;  ///< index from which they are counted
};

}  // namespace korvane::player
