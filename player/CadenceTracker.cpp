// SPDX-License-Identifier: Apache-2.0
#include "player/CadenceTracker.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace korvane::player {

CadenceTracker::CadenceTracker(const ExpectedCadence& expected,
                               std::function<void(const DwellBreak&)> onBreak)
    : mExpected(expected), mOnBreak(std::move(onBreak)) {}

void CadenceTracker::add(int dwell) {
    const auto& pattern = mExpected.pattern;
    if (pattern.empty()) {
        ++mDecided;
        return;
    }
    const size_t phases = pattern.size();
    const auto* cheapest = std::min_element(mCost.data(), mCost.data() + phases);
    const auto cheapestPhase = static_cast<size_t>(cheapest - mCost.data());
    const bool first = dwells() == 0;
    std::array<int64_t, kMostPhases> next{};
    Step step{dwell, {}};
    for (size_t phase = 0; phase < phases; ++phase) {
        const size_t before = phase == 0 ? phases - 1 : phase - 1;
        const bool jump = !first && *cheapest + 1 < mCost[before];
        const size_t from = jump ? cheapestPhase : before;
        step.cameFrom[phase] = static_cast<uint8_t>(from);
        next[phase] =
            (first ? 0 : mCost[from] + (jump ? 1 : 0)) + (dwell == pattern[phase] ? 0 : 1);
    }
    mCost = next;
    mWaiting.push_back(step);
    if (mWaiting.size() == 2 * kUndecided) {
        decide(kUndecided);
    }
}

void CadenceTracker::finish() {
    decide(mWaiting.size());
}

/// Goes back along the way that is cheapest now and takes its first dwells as decided.
void CadenceTracker::decide(size_t count) {
    if (mWaiting.empty()) {
        return;
    }
    std::vector<size_t> way(mWaiting.size());
    const int64_t* costs = mCost.data();
    auto phase =
        static_cast<size_t>(std::min_element(costs, costs + mExpected.pattern.size()) - costs);
    for (size_t i = mWaiting.size(); i-- > 0;) {
        way[i] = phase;
        phase = mWaiting[i].cameFrom[phase];
    }
    for (size_t i = 0; i < count; ++i) {
        take(mWaiting[i].dwell, way[i]);
    }
    mWaiting.erase(mWaiting.begin(), mWaiting.begin() + static_cast<std::ptrdiff_t>(count));
}

void CadenceTracker::take(int dwell, size_t phase) {
    const size_t index = mDecided++;
    const size_t inStep = index == 0 ? phase : (mPhase + 1) % mExpected.pattern.size();
    mPhase = phase;
    const bool isBreak = phase != inStep || dwell != mExpected.pattern[phase];
    if (isBreak && mHeld) {
        judge({index, dwell, mExpected.pattern[inStep], false});
    } else if (isBreak) {
        mRunStart = index + 1;
    } else if (!mHeld && index + 1 - mRunStart >= kSteadyRunFrames) {
        mHeld = true;
        mHeldFrom = mRunStart;
    }
}

void CadenceTracker::judge(DwellBreak found) {
    const bool slips = mExpected.secondsPerSlip() > 0.0;
    const int offBy = found.dwell - found.expected;
    // Where in the slip's own cycle the run began is not known, so the first may come at once.
    const double due = 1.0 + std::floor(static_cast<double>(found.index - mHeldFrom) *
                                        std::abs(mExpected.slipPerFrame));
    found.byArithmetic = slips && offBy == (mExpected.slipPerFrame > 0.0 ? 1 : -1) &&
                         static_cast<double>(mByArithmetic) < due;
    (found.byArithmetic ? mByArithmetic : mUnexpected) += 1;
    if (mOnBreak) {
        mOnBreak(found);
    }
}

}  // namespace korvane::player
