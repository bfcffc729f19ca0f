// SPDX-License-Identifier: Apache-2.0
#include "player/report/JudderMeter.h"

#include <algorithm>
#include <cstdlib>
#include <numeric>

namespace korvane::player {
namespace {

constexpr int64_t kLongestContentUs = 400'000;
constexpr int64_t kPauseUs = 200'000;
constexpr int64_t kLeastErrorUs = 2'000;

/// Counts a value at the last lower end that it reaches.
template <size_t N>
bool count(std::array<int64_t, N>* counters, const std::array<int64_t, N>& lowerEnds,
           int64_t value) {
    const auto above = std::upper_bound(lowerEnds.begin(), lowerEnds.end(), value);
    if (above == lowerEnds.begin()) {
        return false;
    }
    ++(*counters)[static_cast<size_t>(above - lowerEnds.begin()) - 1];
    return true;
}

template <size_t N>
int64_t sum(const std::array<int64_t, N>& counters) {
    return std::accumulate(counters.begin(), counters.end(), int64_t{0});
}

}  // namespace

void JudderMeter::shown(int64_t frameNo, int64_t mediaTimeUs, int64_t shownUs) {
    ++mFrames;
    followContent(mediaTimeUs);
    if (mLast) {
        const Duration duration{mediaTimeUs - mLast->mediaTimeUs, shownUs - mLast->shownUs};
        mShownUs += duration.actualUs;
        noteLongest(duration);
        if (mDiscontinuous) {
            mDurations.clear();
        } else {
            ++mReport.durations;
            mErrorUs += std::abs(duration.errorUs());
            if (mSkipped) {
                freeze(duration, shownUs);
                mDurations.clear();
            } else {
                mDurations.push_back(duration);
                judder();
            }
        }
    }
    mLast = {frameNo, mediaTimeUs, shownUs};
    mSkipped = false;
    mDiscontinuous = false;
}

void JudderMeter::skipped(int64_t mediaTimeUs) {
    ++mFrames;
    followContent(mediaTimeUs);
    mSkipped = true;
}

void JudderMeter::ended(int64_t releasedUs) {
    if (mLast && mSkipped) {
        noteLongest({*mContentUs - mLast->mediaTimeUs, releasedUs - mLast->shownUs});
    }
}

/// Frames that were skipped count, too: many in a row are a long freeze and no jump of the content.
void JudderMeter::followContent(int64_t mediaTimeUs) {
    const int64_t stepUs = mediaTimeUs - mContentUs.value_or(mediaTimeUs);
    mDiscontinuous = mDiscontinuous || stepUs < 0 || stepUs > kLongestContentUs;
    mContentUs = mediaTimeUs;
}

void JudderMeter::restart() {
    mLast.reset();
    mDurations.clear();
    mContentUs.reset();
    mSkipped = false;
    mDiscontinuous = false;
}

void JudderMeter::noteLongest(const Duration& duration) {
    const bool froze =
        duration.contentUs >= 0 && (mSkipped || duration.errorUs() >= duration.contentUs);
    if (froze && duration.actualUs > mReport.longestFreezeUs) {
        mReport.longestFreezeUs = duration.actualUs;
        mReport.longestFreezeFrame = mLast->frameNo;
    }
}

void JudderMeter::freeze(const Duration& duration, int64_t endUs) {
    if (duration.contentUs <= kPauseUs && duration.errorUs() > kPauseUs) {
        return;
    }
    count(&mReport.freezes, kFreezeMs, duration.actualUs / 1000);
    mFrozenUs += duration.actualUs;
    if (mFreezeEndUs >= 0) {
        count(&mReport.freezeDistances, kFreezeDistanceMs,
              (endUs - duration.actualUs - mFreezeEndUs) / 1000);
    }
    mFreezeEndUs = endUs;
}

/// Of the duration before the newest.
void JudderMeter::judder() {
    if (mDurations.size() > 3) {
        mDurations.pop_front();
    }
    if (mDurations.size() < 3) {
        return;
    }
    const Duration& judged = mDurations[1];
    const int64_t before = mDurations[0].errorUs();
    int64_t error = judged.errorUs();
    if (judged.actualUs >= 2 * judged.contentUs || std::abs(error) < kLeastErrorUs) {
        return;
    }
    error = std::abs(error) + (std::abs(before) >= kLeastErrorUs ? std::abs(error + before) : 0);
    if (error * 4 >= judged.contentUs) {
        count(&mReport.judders, kJudderMs, error / 1000);
    }
}

JudderReport JudderMeter::report() const {
    JudderReport report = mReport;
    report.meanErrorUs = report.durations > 0 ? mErrorUs / report.durations : 0;
    report.freezeScore = sum(report.freezes);
    report.judderScore = sum(report.judders);
    const auto share = [](int64_t part, int64_t whole) {
        return whole > 0 ? static_cast<double>(part) / static_cast<double>(whole) : 0.0;
    };
    report.freezeRate = share(mFrozenUs, mShownUs);
    report.judderRate = share(report.judderScore, mFrames);
    return report;
}

}  // namespace korvane::player
