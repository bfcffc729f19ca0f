// SPDX-License-Identifier: Apache-2.0
#include "player/report/CadenceTracker.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace korvane::player {

std::vector<DwellBreak> CadenceTracker::add(int dwell) {
    const auto& pattern = mExpected.pattern;
    if (pattern.empty()) {
        ++mDecided;
        return {};
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
    return mWaiting.size() == 2 * kUndecided ? decide(kUndecided) : std::vector<DwellBreak>{};
}

std::vector<DwellBreak> CadenceTracker::finish() {
    return decide(mWaiting.size());
}

/// Goes back along the path that is shortest now and takes its first dwells as decided.
std::vector<DwellBreak> CadenceTracker::decide(size_t count) {
    std::vector<DwellBreak> breaks;
    if (mWaiting.empty()) {
        return breaks;
    }
    std::vector<size_t> path(mWaiting.size());
    const int64_t* costs = mCost.data();
    auto phase =
        static_cast<size_t>(std::min_element(costs, costs + mExpected.pattern.size()) - costs);
    for (size_t i = mWaiting.size(); i-- > 0;) {
        path[i] = phase;
        phase = mWaiting[i].cameFrom[phase];
    }
    for (size_t i = 0; i < count; ++i) {
        if (const auto found = take(mWaiting[i].dwell, path[i])) {
            breaks.push_back(*found);
        }
    }
    mWaiting.erase(mWaiting.begin(), mWaiting.begin() + static_cast<std::ptrdiff_t>(count));
    return breaks;
}

/// Where the shortest path changes its phase, dwells before and after may fit both. The one that
/// shows the difference is the first that no longer fits the phase so far.
std::optional<DwellBreak> CadenceTracker::take(int dwell, size_t phase) {
    const auto& pattern = mExpected.pattern;
    const size_t index = mDecided++;
    const size_t inStep = index == 0 ? phase : (mPhase + 1) % pattern.size();
    std::optional<DwellBreak> found;
    if (dwell == pattern[inStep]) {
        mPhase = inStep;
        mResult.inStep += mResult.held ? 1 : 0;
    } else {
        mPhase = phase;
        mRunStart = dwell == pattern[phase] ? index : index + 1;
        found = judge({index, dwell, pattern[inStep]}, movedBy(dwell, inStep, phase));
    }
    if (!mResult.held && index + 1 - mRunStart >= kSteadyRunFrames) {
        hold();
    }
    return found;
}

void CadenceTracker::hold() {
    mResult.held = true;
    mResult.heldFrom = mRunStart;
    mResult.inStep = mDecided - mRunStart;
    mSlipped = 0.0;
    mSlipsSince = mRunStart;
}

/// Vsyncs by which a phase's frame ends later than in a cycle of equally long frames.
double CadenceTracker::endLead(size_t phase) const {
    const auto& pattern = mExpected.pattern;
    const auto end = pattern.begin() + static_cast<std::ptrdiff_t>(phase) + 1;
    const int cycle = std::accumulate(pattern.begin(), pattern.end(), 0);
    return std::accumulate(pattern.begin(), end, 0) - static_cast<double>(cycle) *
                                                          static_cast<double>(phase + 1) /
                                                          static_cast<double>(pattern.size());
}

/// Vsyncs by which frames come later on average after a break: this dwell instead of that of the
/// phase in step, and the pattern going on from `phase`.
double CadenceTracker::movedBy(int dwell, size_t inStep, size_t phase) const {
    return dwell - mExpected.pattern[inStep] + endLead(inStep) - endLead(phase);
}

DwellBreak CadenceTracker::judge(DwellBreak found, double movedVsyncs) {
    constexpr double kRounding = 1e-9;
    const bool slips = mExpected.secondsPerSlip() > 0.0;
    const double direction = mExpected.slipPerFrame > 0.0 ? 1.0 : -1.0;
    const double moved = movedVsyncs * direction;
    // Playback may begin anywhere between two slips, so the first one may come at once.
    const double due =
        1.0 + static_cast<double>(found.index - mSlipsSince) * std::abs(mExpected.slipPerFrame);
    found.atStart = found.index == 0 && std::abs(found.dwell - found.expected) == 1;
    found.byArithmetic = !found.atStart && slips &&
                         (found.dwell - found.expected) * direction == 1.0 && moved > kRounding &&
                         moved <= 1.0 + kRounding && mSlipped + moved <= due + kRounding;
    mSlipped += found.byArithmetic ? moved : 0.0;
    mResult.byArithmetic += found.byArithmetic ? 1 : 0;
    mResult.unexpected += found.atStart || found.byArithmetic ? 0 : 1;
    if (!mResult.held) {
        mResult.unexpectedBefore = mResult.unexpected;
    }
    return found;
}

}  // namespace korvane::player
