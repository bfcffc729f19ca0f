// SPDX-License-Identifier: Apache-2.0
// The vsync grid is a list of segments, one per mode. A vsync's time is always computed from its
// segment's origin and its number, rounded once, so errors do not add up.
#include "tv/Display.h"

#include <algorithm>
#include <cmath>

namespace korvane::tv {
namespace {

constexpr double kNsPerSecond = 1e9;

/// Rounds to nearest like std::llround, but inline: every vsync rounds.
int64_t rounded(double ns) {
    return static_cast<int64_t>(ns < 0.0 ? ns - 0.5 : ns + 0.5);
}

}  // namespace

Display::Display(const DisplayConfig& config) : mConfig(config), mJitter(config.seed) {
    mSegments.push_back(makeSegment(0, config.originNs, config.rateHz));
}

Display::Segment Display::makeSegment(int64_t firstIndex, int64_t originNs, double rateHz) const {
    const double reportedNs = kNsPerSecond / rateHz;
    return {firstIndex, originNs, reportedNs / (1.0 + mConfig.driftPpm * 1e-6),
            static_cast<int32_t>(reportedNs), rateHz};
}

int64_t Display::timeOf(const Segment& segment, int64_t index) {
    const auto periods = static_cast<double>(index - segment.firstIndex);
    return segment.originNs + rounded(periods * segment.periodNs);
}

const Display::Segment& Display::segmentAt(int64_t timeNs) const {
    for (auto segment = mSegments.rbegin(); segment != mSegments.rend(); ++segment) {
        if (segment->originNs <= timeNs) {
            return *segment;
        }
    }
    return mSegments.front();
}

Vsync Display::lastLocked(int64_t timeNs) const {
    const Segment& segment = segmentAt(timeNs);
    if (timeNs < segment.originNs) {
        return {-1, timeOf(segment, -1)};
    }
    const auto sinceOriginNs = static_cast<double>(timeNs - segment.originNs);
    int64_t index =
        segment.firstIndex + static_cast<int64_t>(std::floor(sinceOriginNs / segment.periodNs));
    // The grid's times are rounded, so the division can be off by one.
    int64_t atNs = timeOf(segment, index);
    while (atNs > timeNs) {
        atNs = timeOf(segment, --index);
    }
    for (int64_t nextNs = timeOf(segment, index + 1); nextNs <= timeNs;
         nextNs = timeOf(segment, index + 1)) {
        ++index;
        atNs = nextNs;
    }
    return {index, atNs};
}

Vsync Display::vsyncLocked(int64_t index) const {
    for (auto segment = mSegments.rbegin(); segment != mSegments.rend(); ++segment) {
        if (segment->firstIndex <= index) {
            return {index, timeOf(*segment, index)};
        }
    }
    return {index, timeOf(mSegments.front(), index)};
}

Vsync Display::lastVsyncAt(int64_t timeNs) const {
    const std::lock_guard<std::mutex> guard(mLock);
    return lastLocked(timeNs);
}

Vsync Display::nextVsyncAfter(int64_t timeNs) const {
    const std::lock_guard<std::mutex> guard(mLock);
    return vsyncLocked(lastLocked(timeNs).index + 1);
}

Vsync Display::vsync(int64_t index) const {
    const std::lock_guard<std::mutex> guard(mLock);
    return vsyncLocked(index);
}

double Display::periodNsAt(int64_t timeNs) const {
    const std::lock_guard<std::mutex> guard(mLock);
    return segmentAt(timeNs).periodNs;
}

double Display::rateHz() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mSegments.back().rateHz;
}

/// Uniform in [-jitter, jitter]: Lemire's method ("Fast Random Integer Generation in an Interval",
/// 2019). Not std::uniform_int_distribution, whose results differ between C++ libraries.
int64_t Display::nextErrorNs() {
    using Product = unsigned __int128;
    const int64_t jitterNs = mConfig.reportJitterNs;
    const auto values = 2 * static_cast<uint64_t>(jitterNs) + 1;
    const uint64_t surplus = (0 - values) % values;
    Product product = Product{mJitter()} * values;
    while (static_cast<uint64_t>(product) < surplus) {
        product = Product{mJitter()} * values;
    }
    return static_cast<int64_t>(product >> 64) - jitterNs;
}

bool Display::report(int64_t nowNs, VsyncReport* out) {
    const std::lock_guard<std::mutex> guard(mLock);
    ++mReportCount;
    if (mReportFails) {
        return false;
    }
    out->timestampNs = lastLocked(nowNs).timeNs + (mConfig.reportJitterNs > 0 ? nextErrorNs() : 0);
    out->periodNs = mPeriodOverrideNs.value_or(segmentAt(nowNs).reportedPeriodNs);
    return true;
}

void Display::changeMode(int64_t atNs, double rateHz) {
    const std::lock_guard<std::mutex> guard(mLock);
    const Vsync start = vsyncLocked(lastLocked(atNs - 1).index + 1);
    mSegments.erase(
        std::remove_if(mSegments.begin(), mSegments.end(),
                       [&](const Segment& segment) { return segment.originNs >= start.timeNs; }),
        mSegments.end());
    mSegments.push_back(makeSegment(start.index, start.timeNs, rateHz));
}

void Display::setReportFails(bool fails) {
    const std::lock_guard<std::mutex> guard(mLock);
    mReportFails = fails;
}

void Display::setReportedPeriodNs(std::optional<int32_t> periodNs) {
    const std::lock_guard<std::mutex> guard(mLock);
    mPeriodOverrideNs = periodNs;
}

int64_t Display::reportCount() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mReportCount;
}

}  // namespace korvane::tv
