// SPDX-License-Identifier: Apache-2.0
// The tracker's lifecycle, its configuration, and the display's vsync grid.
//
// The grid keeps two vsyncs: the first since the last reset and the last reported. A report with
// the same period advances the last one by whole periods; a report with another period starts over.
// Reports come from the drain thread every tenth frame and after each reset.
#include "frac/VideoSyncFRAC.h"

#include <algorithm>
#include <iterator>
#include <new>

#include "frac/CadenceState.h"
#include "platform/Clock.h"

namespace korvane::frac {

LogMask gLogMask;

}  // namespace korvane::frac

namespace {

using korvane::kLogFrame;
using korvane::kLogInfo;
using korvane::saturatingAdd;
using korvane::frac::gLogMask;
using korvane::frac::isMissing;
using korvane::frac::kTag;

// Line numbers that the constructor's and the destructor's messages have always carried.
constexpr int kConstructorLine = 172;
constexpr int kDestructorLine = 184;

constexpr int kLowestFrameRate = 1;
constexpr int kHighestFrameRate = 6000;  // 60 fps, the most that these display modes show
constexpr uint32_t kHundredthsUsPerSecond = 100'000'000;
constexpr int32_t kAnyPatternMask = (1 << kPatternCount) - 1;

/// The display modes in which content has a known cadence. A mode is found by its period: the
/// display's, truncated to microseconds, must match exactly.
struct DispModeRow {
    int32_t mode;
    const char* name;
    int32_t periodUs;
};
constexpr DispModeRow kDispModes[] = {
    {kDispMode5994, "59.94HZ", 16683},
    {kDispMode60, "60HZ", 16666},
};

int64_t wholeHertz(int32_t periodUs) {
    return periodUs == 0 ? 0 : 1'000'000 / periodUs;
}

/// Starts the grid at a vsync and looks up the display mode.
/// @param dispModeRow  index into the display-mode table, or below 0
void startGrid(videoSyncFrac_priv& priv, int64_t vsyncTimeUs, int32_t vsyncIncUs, int dispModeRow)
    KORVANE_REQUIRES(priv.lock) {
    priv.firstVsync = {vsyncTimeUs, vsyncIncUs, 1};
    priv.lastVsync = priv.firstVsync;
    priv.patternCheckSupported = false;
    if (dispModeRow >= 0) {
        const DispModeRow& row = kDispModes[dispModeRow];
        priv.dispMode = row.mode;
        priv.dispModeName = row.name;
        priv.dispPeriodUs = row.periodUs;
        KORVANE_LOGD(gLogMask, kLogFrame, kTag, "hwc dispmode: %s", priv.dispModeName);
    }
    if (priv.dispMode == kDispMode5994 || priv.dispMode == kDispMode60) {
        KORVANE_LOGD(gLogMask, kLogFrame, kTag, "hwc %s support pattern check", priv.dispModeName);
        priv.patternCheckSupported = true;
    }
}

/// Advances the last vsync to a later one with the same period.
/// @param vsyncTimeUs  not before the last vsync
void advanceGrid(videoSyncFrac_priv& priv, int64_t vsyncTimeUs) KORVANE_REQUIRES(priv.lock) {
    VsyncInfo& last = priv.lastVsync;
    const int64_t elapsedUs = vsyncTimeUs - last.vsyncTime;
    // Rounded to the nearest: half a period counts as one.
    const int64_t elapsedVsyncs = saturatingAdd(elapsedUs, last.vsyncInc >> 1) / last.vsyncInc;
    last.vsyncCnt = saturatingAdd(last.vsyncCnt, elapsedVsyncs);
    KORVANE_LOGD(gLogMask, kLogFrame, kTag,
                 "[%s]hwcvsync:%ld, prevsync:%ld syncdiff:%ld, synccntdiff:%ld vsyncinc:%d, "
                 "vsynccnt:%ld",
                 "updateHWCVsyncInfo", vsyncTimeUs, last.vsyncTime, elapsedUs, elapsedVsyncs,
                 last.vsyncInc, last.vsyncCnt);
    last.vsyncTime = vsyncTimeUs;
}

}  // namespace

VideoSyncFRAC::VideoSyncFRAC() {
    KORVANE_LOGI(gLogMask, kLogInfo, kTag, "[%s%d]", "VideoSyncFRAC", kConstructorLine);
    korvane::refreshLogMask(gLogMask, kTag);
    mPriv = new (std::nothrow) videoSyncFrac_priv();
    if (mPriv == nullptr) {
        KORVANE_LOGE(kTag, "malloc error");
    }
    mDispModeCount = static_cast<int32_t>(std::size(kDispModes));
    resetFRC();
}

VideoSyncFRAC::~VideoSyncFRAC() {
    KORVANE_LOGI(gLogMask, kLogInfo, kTag, "[%s%d]", "~VideoSyncFRAC", kDestructorLine);
    delete mPriv;
    mPriv = nullptr;
}

// Does not take the lock, which is not recursive: updateHWCVsyncInfo calls this under it.
KORVANE_LOCKS_UNCHECKED bool VideoSyncFRAC::resetFRC() {
    if (isMissing(mPriv, __func__)) {
        return false;
    }
    KORVANE_LOGD(gLogMask, kLogFrame, kTag, "[%s] reset FRAC", __func__);
    mPriv->firstVsync = {};
    mPriv->lastVsync = {};
    mPriv->prevFrame = {};
    mPriv->curFrame = {};
    mPriv->spareFrame = {};
    mPriv->dispMode = kDispModeUnknown;
    mPriv->dispModeName = nullptr;
    mPriv->dispPeriodUs = 0;
    mPriv->hwcOffset = 0;
    std::fill(std::begin(mPriv->patternMatchCnt), std::end(mPriv->patternMatchCnt), 0);
    std::fill(std::begin(mPriv->fourOneHistory), std::end(mPriv->fourOneHistory), 0);
    mPriv->fourOneIndex = 0;
    mPriv->curPattern = kNoPattern;
    return true;
}

bool VideoSyncFRAC::setFrameRate(int rate) {
    if (isMissing(mPriv, __func__)) {
        return false;
    }
    if (rate < kLowestFrameRate || rate > kHighestFrameRate) {
        KORVANE_LOGE(kTag, "[%s]invalid framerate:%d", __func__, rate);
        return true;
    }
    mPriv->frameRate.store(rate, std::memory_order_relaxed);
    mPriv->frameDurationUs.store(kHundredthsUsPerSecond / static_cast<uint32_t>(rate),
                                 std::memory_order_relaxed);
    KORVANE_LOGI(gLogMask, kLogInfo, kTag, "[%s] framerate:%d", __func__, rate);
    return true;
}

bool VideoSyncFRAC::setEnablePattern(int mask) {
    if (isMissing(mPriv, __func__)) {
        return false;
    }
    if ((mask & kAnyPatternMask) != 0) {
        mPriv->enablePattern.store(mask, std::memory_order_relaxed);
    }
    return true;
}

int VideoSyncFRAC::getDispMode(int periodUs) {
    for (int row = 0; row < mDispModeCount; ++row) {
        if (kDispModes[row].periodUs == periodUs) {
            return row;
        }
    }
    return -1;
}

bool VideoSyncFRAC::updateHWCVsyncInfo(long vsyncTimeUs, int vsyncIncUs) {
    if (isMissing(mPriv, __func__)) {
        return false;
    }
    const std::lock_guard<std::mutex> guard(mPriv->lock);
    if (vsyncTimeUs < 1 || vsyncIncUs < 1) {
        KORVANE_LOGE(kTag, "[%s]invalid hwc vsync info, vsynctime:%ld, vsyncinc:%d", __func__,
                     vsyncTimeUs, vsyncIncUs);
        return true;
    }
    if (mPriv->firstVsync.vsyncTime < 1) {
        startGrid(*mPriv, vsyncTimeUs, vsyncIncUs, getDispMode(vsyncIncUs));
        KORVANE_LOGD(gLogMask, kLogFrame, kTag, "first hwcvsync:%ld, vsyncinc:%d", vsyncTimeUs,
                     vsyncIncUs);
        return true;
    }
    if (vsyncIncUs != mPriv->lastVsync.vsyncInc) {
        KORVANE_LOGI(gLogMask, kLogInfo, kTag, "[%s]hdmi frequency changed from %ld->%ld", __func__,
                     wholeHertz(mPriv->lastVsync.vsyncInc), wholeHertz(vsyncIncUs));
        resetFRC();
        startGrid(*mPriv, vsyncTimeUs, vsyncIncUs, getDispMode(vsyncIncUs));
        return true;
    }
    if (mPriv->lastVsync.vsyncTime > vsyncTimeUs) {
        KORVANE_LOGE(kTag,
                     "invalid vsync info, never should enter here, need hwc check  soft vsync");
        return false;
    }
    advanceGrid(*mPriv, vsyncTimeUs);
    return true;
}
