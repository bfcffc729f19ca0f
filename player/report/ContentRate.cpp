// SPDX-License-Identifier: Apache-2.0
#include "player/report/ContentRate.h"

#include <algorithm>
#include <cmath>

#include "player/report/Cadence.h"

namespace korvane::player {
namespace {

/// The file's rate is believed when the timestamps agree with it this well.
constexpr double kRateAgreement = 0.01;
/// Timestamps of a constant rate are rounded by at most a millisecond each way.
constexpr double kTimestampRoundingUs = 2'000;
/// A lost picture here and there leaves the rate constant; one step in twenty does not.
constexpr int64_t kStepsPerOff = 20;

/// Mean of the steps that are no gap and no repetition: those within half of the median.
double meanStep(std::vector<int64_t> steps) {
    std::sort(steps.begin(), steps.end());
    const auto median = static_cast<double>(steps[steps.size() / 2]);
    double total = 0.0;
    int64_t count = 0;
    for (const int64_t step : steps) {
        if (std::abs(static_cast<double>(step) - median) <= median / 2) {
            total += static_cast<double>(step);
            ++count;
        }
    }
    return count > 0 ? total / static_cast<double>(count) : 0.0;
}

}  // namespace

void ContentRate::add(int section, int64_t mediaTimeUs) {
    if (mFrames > 0 && section == mSection) {
        const int64_t stepUs = mediaTimeUs - mLastUs;
        if (mDecided) {
            compare(stepUs);
        } else {
            mOpeningSteps.push_back(stepUs);
        }
    }
    mSection = section;
    mLastUs = mediaTimeUs;
    if (++mFrames == kOpeningFrames) {
        decide();
    }
}

void ContentRate::decide() {
    if (mDecided) {
        return;
    }
    mDecided = true;
    if (mOpeningSteps.size() >= kSteadyRunFrames) {
        mStepUs = meanStep(mOpeningSteps);
        const double measuredHz = mStepUs > 0.0 ? 1e6 / mStepUs : mHz;
        mHz = std::abs(measuredHz - mHz) > kRateAgreement * measuredHz ? measuredHz : mHz;
    }
    for (const int64_t stepUs : mOpeningSteps) {
        compare(stepUs);
    }
    mOpeningSteps = {};
}

void ContentRate::compare(int64_t stepUs) {
    if (mStepUs > 0.0) {
        ++mSteps;
        mStepsOff += std::abs(static_cast<double>(stepUs) - mStepUs) > kTimestampRoundingUs ? 1 : 0;
    }
}

bool ContentRate::varies() const {
    return mStepsOff * kStepsPerOff > mSteps;
}

}  // namespace korvane::player
