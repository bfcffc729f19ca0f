// SPDX-License-Identifier: Apache-2.0
#include "player/report/ContentRate.h"

#include <algorithm>
#include <cmath>

#include "player/report/Cadence.h"

namespace korvane::player {
namespace {

/// The file's rate is taken when the timestamps agree with it this well.
constexpr double kRateAgreement = 0.01;
/// Broadcast rates lie 0.1 % from their whole-number relatives: half of it tells them apart.
constexpr double kBroadcastAgreement = 0.0005;
constexpr double kBroadcastRates[] = {24 / 1.001, 24, 25,  30 / 1.001,  30, 48 / 1.001, 48, 50,
                                      60 / 1.001, 60, 100, 120 / 1.001, 120};
/// Timestamps are rounded to a millisecond at worst.
constexpr double kMediaRoundingUs = 1'000;
/// Longest cycle of shorter and longer frames, and how much a step may differ from that one cycle
/// before.
constexpr size_t kLongestCycle = 5;
constexpr int64_t kCycleRoundingUs = 2'000;
/// A new rate differs at least so much.
constexpr double kLeastChange = 0.02;

double mean(const std::vector<int64_t>& steps) {
    double total = 0.0;
    for (const int64_t step : steps) {
        total += static_cast<double>(step);
    }
    return steps.empty() ? 0.0 : total / static_cast<double>(steps.size());
}

/// Steps that are no gap and no repetition: those within three quarters of the median.
std::vector<int64_t> regular(std::vector<int64_t> steps) {
    if (steps.empty()) {
        return steps;
    }
    std::vector<int64_t> sorted = steps;
    const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
    std::nth_element(sorted.begin(), middle, sorted.end());
    const int64_t median = *middle;
    steps.erase(std::remove_if(steps.begin(), steps.end(),
                               [median](int64_t step) {
                                   return std::abs(step - median) * 4 > std::abs(median) * 3;
                               }),
                steps.end());
    return steps;
}

double meanDeviation(const std::vector<int64_t>& steps, double from) {
    double total = 0.0;
    for (const int64_t step : steps) {
        total += std::abs(static_cast<double>(step) - from);
    }
    return steps.empty() ? 0.0 : total / static_cast<double>(steps.size());
}

/// The nearest broadcast rate, if it is near enough.
double asBroadcast(double hz, double tolerance) {
    double nearest = kBroadcastRates[0];
    for (const double rate : kBroadcastRates) {
        nearest = std::abs(rate - hz) < std::abs(nearest - hz) ? rate : nearest;
    }
    return std::abs(nearest - hz) <= tolerance * hz ? nearest : hz;
}

}  // namespace

std::optional<FramePace> ContentRate::take() {
    if (mFrames.empty()) {
        return std::nullopt;
    }
    if (mInOpening == 0) {
        if (mSpan >= 0 && !canLookAhead()) {
            return std::nullopt;
        }
        if ((mSpan < 0 || changesAt(0)) && !beginSpan()) {
            return std::nullopt;
        }
    }
    mInOpening -= mInOpening > 0 ? 1 : 0;
    mFrames.pop_front();
    return FramePace{mSpan, mContent.hz};
}

bool ContentRate::beginSpan() {
    if (!mEnded && mFrames.size() < kOpeningFrames + kLookAheadSteps + 1) {
        return false;
    }
    const size_t most = std::min(kOpeningFrames, mFrames.size());
    size_t frames = std::min(kLookAheadSteps, most);
    learnStep(frames);
    while (frames < most && !changesAt(frames)) {
        ++frames;
        if (frames % kLookAheadSteps == 0) {
            learnStep(frames);
        }
    }
    learnStep(frames);
    learnCycle(frames);
    mContent.hz = mNominalHz;
    if (mMeanOf >= kSteadyRunFrames && mStepUs > 0.0) {
        const double measuredHz = 1e6 / mStepUs;
        const bool agrees = std::abs(measuredHz - mNominalHz) <= kRateAgreement * measuredHz;
        const double rounding = kMediaRoundingUs / (mStepUs * static_cast<double>(mMeanOf));
        mContent.hz =
            agrees ? mNominalHz : asBroadcast(measuredHz, std::max(kBroadcastAgreement, rounding));
    }
    mInOpening = frames;
    ++mSpan;
    return true;
}

/// Learns the step from the first frames that wait.
void ContentRate::learnStep(size_t frames) {
    const auto opening = regular(steps(0, frames));
    mStepUs = mean(opening);
    mMeanOf = std::max<size_t>(opening.size(), 1);
}

/// Frames follow a cycle if nearly all steps are as long as the one a cycle before, and nearly
/// every cycle has steps of two lengths.
void ContentRate::learnCycle(size_t frames) {
    mContent.cycle.clear();
    const auto all = steps(0, frames);
    size_t changes = 0;
    for (size_t i = 1; i < all.size(); ++i) {
        changes += std::abs(all[i] - all[i - 1]) > 2 * kCycleRoundingUs ? 1 : 0;
    }
    for (size_t length = 2; length <= kLongestCycle && all.size() >= kLookAheadSteps; ++length) {
        size_t repeats = 0;
        size_t run = 0;
        std::vector<int64_t> cycle;
        for (size_t i = length; i < all.size(); ++i) {
            const bool same = std::abs(all[i] - all[i - length]) <= kCycleRoundingUs;
            repeats += same ? 1 : 0;
            run = same ? run + 1 : 0;
            if (run == length && cycle.empty()) {
                cycle.assign(&all[i] - length + 1, &all[i] + 1);
            }
        }
        if (repeats * 20 >= (all.size() - length) * 19 && changes * length * 10 >= all.size() * 9) {
            // A cycle that is cut short would move the mean.
            learnStep(all.size() / length * length);
            for (const int64_t step : cycle) {
                mContent.cycle.push_back(static_cast<double>(step) / mean(cycle));
            }
            return;
        }
    }
}

/// Whether a span of another rate begins with this frame.
bool ContentRate::changesAt(size_t frame) const {
    // The first step belongs to the new rate, so it is nearer to that than to the span's. Nearly
    // all frames of a steady film end here.
    const auto first = steps(frame, 1);
    if (!first.empty() &&
        std::abs(static_cast<double>(first.front()) - mStepUs) <= kLeastChange / 2 * mStepUs) {
        return false;
    }
    const auto next = steps(frame, kLookAheadSteps);
    if (mStepUs <= 0.0 || next.size() < kLookAheadSteps) {
        return false;
    }
    const auto half = next.begin() + kLookAheadSteps / 2;
    const auto whole = regular(next);
    const double step = mean(whole);
    const double firstHalf = mean(regular({next.begin(), half}));
    const double secondHalf = mean(regular({half, next.end()}));
    // Timestamps that are off by up to J move a mean by less than this, in each half and in both.
    // The span's own mean is off likewise, by less the more steps it is the mean of.
    const double jitter = 4.0 * meanDeviation(whole, step) *
                          (1.0 / kLookAheadSteps + 1.0 / static_cast<double>(mMeanOf));
    const double least = std::max(kLeastChange * mStepUs, jitter);
    const double direction = step > mStepUs ? 1.0 : -1.0;
    const auto changed = [&](double by) { return (by - mStepUs) * direction > least; };
    const auto own = static_cast<double>(next.front());
    return changed(step) && changed(firstHalf) && changed(secondHalf) &&
           std::abs(own - step) < std::abs(own - mStepUs);
}

bool ContentRate::canLookAhead() const {
    return mEnded || mFrames.size() > kLookAheadSteps;
}

/// The steps of so many frames from one on to the next, as far as their section goes.
std::vector<int64_t> ContentRate::steps(size_t from, size_t count) const {
    std::vector<int64_t> found;
    for (size_t i = from; i < from + count && i + 1 < mFrames.size(); ++i) {
        if (mFrames[i].section == mFrames[i + 1].section) {
            found.push_back(mFrames[i + 1].mediaTimeUs - mFrames[i].mediaTimeUs);
        }
    }
    return found;
}

}  // namespace korvane::player
