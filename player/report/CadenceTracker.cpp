// SPDX-License-Identifier: Apache-2.0
#include "player/report/CadenceTracker.h"

#include <algorithm>
#include <cmath>
#include <numeric>
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

/// Where the cheapest way goes over to another phase, dwells before and after may fit both. The one
/// that shows the difference is the first that no longer fits the phase so far.
void CadenceTracker::take(int dwell, size_t phase) {
    const auto& pattern = mExpected.pattern;
    const size_t index = mDecided++;
    const size_t inStep = index == 0 ? phase : (mPhase + 1) % pattern.size();
    if (dwell == pattern[inStep]) {
        mPhase = inStep;
    } else {
        mPhase = phase;
        mRunStart = dwell == pattern[phase] ? index : index + 1;
        judge({index, dwell, pattern[inStep]}, movedBy(dwell, inStep, phase));
    }
    if (!mHeld && index + 1 - mRunStart >= kSteadyRunFrames) {
        hold();
    }
}

void CadenceTracker::hold() {
    mHeld = true;
    mHeldFrom = mRunStart;
    mUnexpectedBefore = mUnexpected;
    mSlipped = 0.0;
    mSlipsSince = mHeldFrom;
}

/// Vsyncs by which the end of a phase's frame comes later than its share of the cycle.
double CadenceTracker::endLead(size_t phase) const {
    const auto& pattern = mExpected.pattern;
    const auto end = pattern.begin() + static_cast<std::ptrdiff_t>(phase) + 1;
    const int cycle = std::accumulate(pattern.begin(), pattern.end(), 0);
    return std::accumulate(pattern.begin(), end, 0) - static_cast<double>(cycle) *
                                                          static_cast<double>(phase + 1) /
                                                          static_cast<double>(pattern.size());
}

/// Vsyncs by which frames come later on average once a dwell of the phase in step was this one, and
/// the pattern went on from `phase`.
double CadenceTracker::movedBy(int dwell, size_t inStep, size_t phase) const {
    return dwell - mExpected.pattern[inStep] + endLead(inStep) - endLead(phase);
}

void CadenceTracker::judge(DwellBreak found, double movedVsyncs) {
    constexpr double kRounding = 1e-9;
    const bool slips = mExpected.secondsPerSlip() > 0.0;
    const double direction = mExpected.slipPerFrame > 0.0 ? 1.0 : -1.0;
    const double moved = movedVsyncs * direction;
    // Where in the slip's own cycle the frames began is not known, so the first may come at once.
    const double due =
        1.0 + static_cast<double>(found.index - mSlipsSince) * std::abs(mExpected.slipPerFrame);
    found.atStart = found.index == 0 && std::abs(found.dwell - found.expected) == 1;
    found.byArithmetic = !found.atStart && slips &&
                         (found.dwell - found.expected) * direction == 1.0 && moved > kRounding &&
                         moved <= 1.0 + kRounding && mSlipped + moved <= due + kRounding;
    mSlipped += found.byArithmetic ? moved : 0.0;
    mByArithmetic += found.byArithmetic ? 1 : 0;
    mUnexpected += found.atStart || found.byArithmetic ? 0 : 1;
    if (mOnBreak) {
        mOnBreak(found);
    }
}

}  // namespace korvane::player
