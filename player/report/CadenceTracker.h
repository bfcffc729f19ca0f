// SPDX-License-Identifier: Apache-2.0
// Cadence of a stretch of playback of any length, in bounded memory.
//
// Dwells are laid along the expected pattern with the fewest breaks (see Cadence.h): the cheapest
// way through a table of dwells by phases. The way back through that table is kept for the last
// `kUndecided` to twice as many dwells; what is older is decided by the way that is cheapest then.
// No later dwell could change it but in content that fits its pattern nowhere.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "player/report/Cadence.h"

namespace korvane::player {

class CadenceTracker {
public:
    /// Dwells that may be looked at again before they are decided.
    static constexpr size_t kUndecided = 1024;

    /// @param onBreak  receives each break, in order, once decided
    CadenceTracker(const ExpectedCadence& expected, std::function<void(const DwellBreak&)> onBreak);

    /// The next dwell in order of display; 0: superseded before it was shown.
    void add(int dwell);
    /// Decides the rest. Nothing is added afterwards.
    void finish();

    /// Dwells that are decided: no break before this index will be reported any more.
    size_t decided() const { return mDecided; }
    size_t dwells() const { return mDecided + mWaiting.size(); }
    bool held() const { return mHeld; }
    size_t heldFrom() const { return mHeldFrom; }
    size_t byArithmetic() const { return mByArithmetic; }
    size_t unexpected() const { return mUnexpected; }
    /// Those of them that came before the pattern held; all, as long as it does not.
    size_t unexpectedBefore() const { return mHeld ? mUnexpectedBefore : mUnexpected; }

private:
    static constexpr size_t kMostPhases = 16;
    struct Step {
        int dwell;
        std::array<uint8_t, kMostPhases> cameFrom;
    };

    void decide(size_t count);
    void take(int dwell, size_t phase);
    void judge(DwellBreak found, double movedVsyncs);
    void hold();
    double movedBy(int dwell, size_t inStep, size_t phase) const;
    double endLead(size_t phase) const;

    const ExpectedCadence mExpected;
    const std::function<void(const DwellBreak&)> mOnBreak;
    std::array<int64_t, kMostPhases> mCost{};
    std::vector<Step> mWaiting;
    size_t mDecided = 0;
    size_t mPhase = 0;     ///< of the last dwell decided
    size_t mRunStart = 0;  ///< of the dwells in step, while the pattern has not held yet
    bool mHeld = false;
    size_t mHeldFrom = 0;
    double mSlipped = 0.0;   ///< vsyncs by which breaks by arithmetic have moved the frames
    size_t mSlipsSince = 0;  ///< index from which they are counted
    size_t mByArithmetic = 0;
    size_t mUnexpected = 0;
    size_t mUnexpectedBefore = 0;
};

}  // namespace korvane::player
