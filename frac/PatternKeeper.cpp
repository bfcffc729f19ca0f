// SPDX-License-Identifier: Apache-2.0
// Pattern keeping: from a frame's real time to its presentation time.
//
// Input: the frame's real time. State: its record and the previous frame's. First the frame is put
// on the vsync grid (updateSyncFrame): interval, vsync number, repeat count. Then its time is
// corrected (checkPattern) so that its repeat count is the one that the pattern in force expects;
// with no pattern in force it is only kept off the edges of its interval. Then the detectors get
// the corrected count. Runs on the drain thread under the tracker's lock.
//
//   count against expected   correction                          new time
//   equal                    none; off the edges                 within the margins
//   one less                 hold: next interval                 start + margin
//   two less, 59.94 Hz,      short frame: next interval, or      start + margin
//   after a hold             the one after it for 60 fps soon
//                            after a short frame
//   one more                 pull: previous interval             end - margin
//   two more, 60 Hz,         freeze: previous interval           start + margin
//   after a pull
//   anything else            none; reported                      as it is
//
// Sums saturate, because the caller's real times are not checked.
#include "frac/CadenceState.h"
#include "frac/VideoSyncFRAC.h"
#include "platform/Clock.h"

namespace {

using korvane::kLogFrame;
using korvane::monotonicNowUs;
using korvane::saturatingAdd;
using korvane::saturatingSub;
using korvane::frac::gLogMask;
using korvane::frac::isMissing;
using korvane::frac::kTag;
using korvane::frac::patternName;

constexpr char kUpdateSyncFrame[] = "updateSyncFrame";
constexpr char kCheckPattern[] = "checkPattern";

// Distance of a presentation time from both edges of its vsync interval: about a quarter of a
// period at 60 Hz, more than the jitter of vsync reports and of the tunnel.
constexpr int64_t kMarginUs = 4000;

// 60 fps on 59.94 Hz has 1000 frames for 999 vsyncs, so one short frame in 1000. An error of two
// vsyncs sooner than this after a short frame has another cause and is corrected in full.
constexpr int32_t kSixtyFps = 6000;
constexpr int64_t kLittleDifferVsyncs = 994;

/// Where a time lies on the grid.
struct GridPosition {
    int64_t vsyncs;      ///< whole periods from the last vsync, truncated towards zero
    int64_t intervalUs;  ///< that many periods from the last vsync: start of the interval
};

/// @param vsync  a known one: its period is at least 1
GridPosition positionOnGrid(const VsyncInfo& vsync, int64_t timeUs) {
    // The product is no larger than the difference, and the vsync's time is positive: neither the
    // product nor the sum can overflow.
    const int64_t vsyncs = saturatingSub(timeUs, vsync.vsyncTime) / vsync.vsyncInc;
    return {vsyncs, vsync.vsyncTime + vsyncs * vsync.vsyncInc};
}

void fillRecord(videoSyncFrac_priv& priv, int64_t mediaTimeUs, int64_t realTimeUs, int32_t frameNo)
    KORVANE_REQUIRES(priv.lock) {
    SyncFrame& frame = priv.curFrame;
    frame.mediaTimeUs = mediaTimeUs;
    frame.realTimeUs = realTimeUs;
    frame.frameNo = frameNo;
    const int64_t frameDurationUs = priv.frameDurationUs.load(std::memory_order_relaxed);
    if (frameDurationUs >= 1) {
        frame.frameEndTimeUs = saturatingAdd(frameDurationUs, realTimeUs);
    }
    frame.vsync = priv.lastVsync;
}

/// The first frame after a reset sets the offset between real time and grid: it is placed a quarter
/// of a period after the start of its interval.
void placeFirstFrame(videoSyncFrac_priv& priv) KORVANE_REQUIRES(priv.lock) {
    SyncFrame& frame = priv.curFrame;
    const int64_t startUs = positionOnGrid(priv.lastVsync, frame.realTimeUs).intervalUs;
    const int64_t quarterUs = priv.lastVsync.vsyncInc / 4;
    frame.repeatVsyncCnt = 0;
    // 0 after a reset: the first frame's number is not tied to the grid, so the second frame's
    // repeat count is its whole vsync number.
    frame.vsyncCnt = frame.targetVsyncCnt = frame.baseVsyncCnt;
    frame.vsyncTime = frame.targetVsyncTime = startUs;
    frame.syncRealTimeUs = saturatingAdd(startUs, quarterUs);
    priv.hwcOffset = saturatingAdd(saturatingSub(startUs, frame.realTimeUs), quarterUs);
    KORVANE_LOGD(gLogMask, kLogFrame, kTag,
                 "[%s]first hwcvsync:%ld [%ld-%ld], diff=%ld, hwcoffset:%ld", kUpdateSyncFrame,
                 priv.lastVsync.vsyncTime, startUs, saturatingAdd(startUs, priv.lastVsync.vsyncInc),
                 quarterUs, priv.hwcOffset);
}

/// Later frames are shifted by the first one's offset and counted against the frame before.
/// pullFrame is not cleared here: once a frame was pulled, every later record says so until a
/// reset.
void placeNextFrame(videoSyncFrac_priv& priv) KORVANE_REQUIRES(priv.lock) {
    SyncFrame& frame = priv.curFrame;
    frame.holdFrame = 0;
    frame.syncRealTimeUs = saturatingAdd(frame.realTimeUs, priv.hwcOffset);
    const auto [vsyncs, startUs] = positionOnGrid(priv.lastVsync, frame.syncRealTimeUs);
    const int64_t vsyncCnt = saturatingAdd(priv.lastVsync.vsyncCnt, vsyncs);
    frame.vsyncTime = frame.targetVsyncTime = startUs;
    frame.vsyncCnt = frame.targetVsyncCnt = frame.baseVsyncCnt = vsyncCnt;
    frame.repeatVsyncCnt =
        static_cast<int32_t>(saturatingSub(vsyncCnt, priv.prevFrame.targetVsyncCnt));
    KORVANE_LOGD(gLogMask, kLogFrame, kTag,
                 "[%s]hwcvsync:%ld vsyncnt:%ld, realtime:%ld mediatimeus:%ld vsyncnt:%ld, "
                 "timediff=%ld, repeatVsynCnt:%d",
                 kUpdateSyncFrame, startUs, vsyncCnt, frame.syncRealTimeUs, frame.mediaTimeUs,
                 frame.vsyncCnt, saturatingSub(frame.syncRealTimeUs, startUs),
                 frame.repeatVsyncCnt);
}

/// Repeat counts that the pattern in force expects, given the previous frame's count.
struct ExpectedCounts {
    int32_t should;      ///< this frame's repeat count
    int32_t prevShould;  ///< the previous frame's
};

ExpectedCounts expectedCounts(int32_t pattern, int32_t prevRepeatVsyncCnt) {
    switch (pattern) {
        case kPattern32:
            if (prevRepeatVsyncCnt == 2) {
                return {3, 2};
            }
            if (prevRepeatVsyncCnt == 3) {
                return {2, 3};
            }
            return {0, 0};
        case kPattern22:
            return {2, 2};
        case kPattern11:
            return {1, 1};
        default:
            // [4:1] has no expected count: in force, a count of 0 fits, a higher one is too long, a
            // lower one too early.
            return {0, 0};
    }
}

/// The part of the frame's interval that keeps the margin to both edges.
struct SafeRange {
    int64_t earliestUs;
    int64_t latestUs;
};

SafeRange safeRange(const videoSyncFrac_priv& priv) KORVANE_REQUIRES(priv.lock) {
    const int64_t startUs = priv.curFrame.vsyncTime;
    return {saturatingAdd(startUs, kMarginUs),
            saturatingAdd(startUs, priv.lastVsync.vsyncInc - kMarginUs)};
}

/// No pattern: moves a time near either edge to the start of its interval plus the margin.
void keepOffEdges(videoSyncFrac_priv& priv) KORVANE_REQUIRES(priv.lock) {
    SyncFrame& frame = priv.curFrame;
    const auto [earliestUs, latestUs] = safeRange(priv);
    if (earliestUs < frame.syncRealTimeUs && frame.syncRealTimeUs < latestUs) {
        return;
    }
    const int64_t newTimeUs = saturatingAdd(frame.targetVsyncTime, kMarginUs);
    KORVANE_LOGD(gLogMask, kLogFrame, kTag,
                 "[%s]no pattern may also adjust realtime, %ld->%ld diff:%ld", kCheckPattern,
                 frame.syncRealTimeUs, newTimeUs, saturatingSub(newTimeUs, frame.syncRealTimeUs));
    frame.syncRealTimeUs = newTimeUs;
}

/// Pattern in force: moves a time near an edge to the margin at that edge.
void clampOffEdges(videoSyncFrac_priv& priv) KORVANE_REQUIRES(priv.lock) {
    SyncFrame& frame = priv.curFrame;
    const auto [earliestUs, latestUs] = safeRange(priv);
    if (frame.syncRealTimeUs <= earliestUs) {
        frame.syncRealTimeUs = earliestUs;
    } else if (frame.syncRealTimeUs >= latestUs) {
        frame.syncRealTimeUs = latestUs;
    }
}

/// Moves the frame by whole vsyncs, to the start of the new interval plus the margin. The repeat
/// count becomes the expected one, whatever the move amounts to.
void moveByVsyncs(videoSyncFrac_priv& priv, int64_t vsyncs, int32_t repeatVsyncCnt)
    KORVANE_REQUIRES(priv.lock) {
    SyncFrame& frame = priv.curFrame;
    frame.repeatVsyncCnt = repeatVsyncCnt;
    frame.targetVsyncCnt = saturatingAdd(frame.targetVsyncCnt, vsyncs);
    frame.targetVsyncTime = saturatingAdd(frame.vsyncTime, vsyncs * priv.lastVsync.vsyncInc);
    frame.syncRealTimeUs = saturatingAdd(frame.targetVsyncTime, kMarginUs);
}

/// One vsync too early: hold the previous frame for one more.
void holdOneVsync(videoSyncFrac_priv& priv, int32_t should) KORVANE_REQUIRES(priv.lock) {
    KORVANE_LOGD(gLogMask, kLogFrame, kTag, "need hold one sync !!");
    moveByVsyncs(priv, 1, should);
    priv.curFrame.holdFrame = 1;
    KORVANE_LOGD(gLogMask, kLogFrame, kTag, "[%s]pattern %s hold one frame", kCheckPattern,
                 patternName(priv.curPattern));
}

/// Two vsyncs too early right after a held frame, on 59.94 Hz: the content is now ahead of the
/// display by a whole vsync. Corrects one vsync; the other makes this a short frame.
void makeShortFrame(videoSyncFrac_priv& priv, int32_t should) KORVANE_REQUIRES(priv.lock) {
    SyncFrame& frame = priv.curFrame;
    const char* name = patternName(priv.curPattern);
    // Numbers restart with the grid while the last short frame's stays, so this can be negative.
    const int64_t sinceShortFrame =
        saturatingSub(frame.targetVsyncCnt, priv.lastShortFrameVsyncCnt);
    if (priv.frameRate.load(std::memory_order_relaxed) == kSixtyFps &&
        sinceShortFrame <= kLittleDifferVsyncs) {
        moveByVsyncs(priv, 2, should);
        frame.holdFrame = 1;
        KORVANE_LOGD(gLogMask, kLogFrame, kTag,
                     "[%s] little differ pattern %s No:%d, not seen should short frame",
                     kCheckPattern, name, frame.frameNo);
        return;
    }
    moveByVsyncs(priv, 1, should);
    priv.lastShortFrameVsyncCnt = frame.targetVsyncCnt;
    KORVANE_LOGD(gLogMask, kLogFrame, kTag, "[%s] pattern %s No:%d will occur one short frame",
                 kCheckPattern, name, frame.frameNo);
}

/// Two or more vsyncs too early.
void escape(videoSyncFrac_priv& priv, ExpectedCounts expected) KORVANE_REQUIRES(priv.lock) {
    const int32_t repeatVsyncCnt = priv.curFrame.repeatVsyncCnt;
    const char* name = patternName(priv.curPattern);
    KORVANE_LOGE(kTag,
                 "[%s] pattern %s here may need escape one sync, holdFrame:%d, prevcnt:%d, %d, "
                 "shouldcnt:%d, nowrepeatcnt:%d",
                 kCheckPattern, name, priv.prevFrame.holdFrame, priv.prevFrame.repeatVsyncCnt,
                 expected.prevShould, expected.should, repeatVsyncCnt);
    if (priv.dispMode == kDispMode60) {
        KORVANE_LOGD(gLogMask, kLogFrame, kTag, "[%s] pattern %s will hold frame", kCheckPattern,
                     name);
    } else if (priv.dispMode == kDispMode5994) {
        if (priv.prevFrame.holdFrame == 1 && priv.prevFrame.repeatVsyncCnt == expected.prevShould &&
            repeatVsyncCnt == expected.should - 2) {
            makeShortFrame(priv, expected.should);
        } else {
            KORVANE_LOGE(kTag,
                         "[%s]diff is too large[%d->%d], cannnot pull frame to keep pattern %s",
                         kCheckPattern, expected.should, repeatVsyncCnt, name);
        }
    }
}

/// One vsync too long: pull the frame one vsync earlier, to the end of that interval.
void pullOneVsync(videoSyncFrac_priv& priv, int32_t should) KORVANE_REQUIRES(priv.lock) {
    SyncFrame& frame = priv.curFrame;
    moveByVsyncs(priv, -1, should);
    frame.syncRealTimeUs = saturatingSub(frame.vsyncTime, kMarginUs);
    frame.pullFrame = 1;
    KORVANE_LOGD(gLogMask, kLogFrame, kTag, "[%s]pattern %s pull one frame", kCheckPattern,
                 patternName(priv.curPattern));
}

/// Two or more vsyncs too long. Two, on 60 Hz after a pulled frame: the content is now behind the
/// display by a whole vsync. Corrects one vsync; the other makes this a freeze frame.
void freeze(videoSyncFrac_priv& priv, ExpectedCounts expected) KORVANE_REQUIRES(priv.lock) {
    const int32_t repeatVsyncCnt = priv.curFrame.repeatVsyncCnt;
    const char* name = patternName(priv.curPattern);
    KORVANE_LOGE(kTag,
                 "[%s] pattern %s here may need freeze one sync, pullFrame:%d, prevcnt:%d, %d, "
                 "shouldcnt:%d, nowrepeatcnt:%d",
                 kCheckPattern, name, priv.prevFrame.pullFrame, priv.prevFrame.repeatVsyncCnt,
                 expected.prevShould, expected.should, repeatVsyncCnt);
    if (priv.dispMode == kDispMode5994) {
        KORVANE_LOGD(gLogMask, kLogFrame, kTag,
                     "[%s]diff is too large[%d->%d], cannnot pull frame to pattern %s",
                     kCheckPattern, expected.should, repeatVsyncCnt, name);
    } else if (priv.dispMode == kDispMode60 && priv.prevFrame.pullFrame == 1 &&
               priv.prevFrame.repeatVsyncCnt == expected.prevShould &&
               repeatVsyncCnt == expected.should + 2) {
        moveByVsyncs(priv, -1, expected.should);
        KORVANE_LOGD(gLogMask, kLogFrame, kTag, "[%s] pattern %s No:%d will occur one freeze frame",
                     kCheckPattern, name, priv.curFrame.frameNo);
    }
}

void keepPattern(videoSyncFrac_priv& priv) KORVANE_REQUIRES(priv.lock) {
    const ExpectedCounts expected = expectedCounts(priv.curPattern, priv.prevFrame.repeatVsyncCnt);
    const int64_t excess = int64_t{priv.curFrame.repeatVsyncCnt} - expected.should;
    if (excess == 0) {
        clampOffEdges(priv);
    } else if (excess == -1) {
        holdOneVsync(priv, expected.should);
    } else if (excess < -1) {
        escape(priv, expected);
    } else {
        KORVANE_LOGD(gLogMask, kLogFrame, kTag, "[%s]pattern %s need pull one frame", kCheckPattern,
                     patternName(priv.curPattern));
        if (excess == 1) {
            pullOneVsync(priv, expected.should);
        } else {
            freeze(priv, expected);
        }
    }
}

}  // namespace

bool VideoSyncFRAC::getRealTime(long mediaTimeUs, long realTimeUs, int frameNo,
                                long* outRealTimeUs) {
    if (isMissing(mPriv, __func__)) {
        return false;
    }
    if (mPriv->enablePattern.load(std::memory_order_relaxed) == 0) {
        KORVANE_LOGD(gLogMask, kLogFrame, kTag, "[%s]no pattern enable, return", __func__);
        return true;
    }
    const std::lock_guard<std::mutex> guard(mPriv->lock);
    updateSyncFrame(mediaTimeUs, realTimeUs, frameNo);
    checkPattern(outRealTimeUs);
    if (mPriv->patternCheckSupported) {
        // After the correction: a pattern found now is in force from the next frame on.
        for (int pattern = 0; pattern < kPatternCount; ++pattern) {
            if ((mPriv->enablePattern.load(std::memory_order_relaxed) & (1 << pattern)) != 0) {
                detectPattern(pattern);
            }
        }
    }
    mPriv->prevFrame = mPriv->curFrame;
    return true;
}

// Called by getRealTime, which holds the lock.
KORVANE_LOCKS_UNCHECKED bool VideoSyncFRAC::updateSyncFrame(long mediaTimeUs, long realTimeUs,
                                                            int frameNo) {
    if (isMissing(mPriv, __func__)) {
        return false;
    }
    // If there is a previous frame, it was placed after the last reset, when a vsync was known.
    const bool isFirst = mPriv->prevFrame.realTimeUs < 1;
    if (isFirst && mPriv->lastVsync.vsyncTime < 1) {
        KORVANE_LOGD(gLogMask, kLogFrame, kTag,
                     "[%s]first hwcvsync have not get,  %ld not calculate pattern", __func__,
                     mediaTimeUs);
        return true;
    }
    fillRecord(*mPriv, mediaTimeUs, realTimeUs, frameNo);
    if (isFirst) {
        placeFirstFrame(*mPriv);
        mPriv->prevFrame = mPriv->curFrame;
    } else {
        placeNextFrame(*mPriv);
    }
    return true;
}

// Called by getRealTime, which holds the lock.
KORVANE_LOCKS_UNCHECKED bool VideoSyncFRAC::checkPattern(long* outRealTimeUs) {
    if (isMissing(mPriv, __func__)) {
        return false;
    }
    const SyncFrame& frame = mPriv->curFrame;
    const bool isPatternInForce = mPriv->curPattern != kNoPattern;
    if (isPatternInForce) {
        keepPattern(*mPriv);
    } else {
        keepOffEdges(*mPriv);
    }
    *outRealTimeUs = frame.syncRealTimeUs;

    if (isPatternInForce) {
        KORVANE_LOGD(gLogMask, kLogFrame, kTag,
                     "[%s]pattern %s No:%d finnal repeatcnt:%d vsynccnt:%ld, vsynctime[%ld-%ld], "
                     "diffvsync:%ld, diffnow:%ld",
                     __func__, patternName(mPriv->curPattern), frame.frameNo, frame.repeatVsyncCnt,
                     frame.targetVsyncCnt, frame.targetVsyncTime,
                     saturatingAdd(frame.targetVsyncTime, mPriv->lastVsync.vsyncInc),
                     saturatingSub(frame.syncRealTimeUs, frame.targetVsyncTime),
                     saturatingSub(frame.syncRealTimeUs, monotonicNowUs()));
    } else {
        KORVANE_LOGD(gLogMask, kLogFrame, kTag,
                     "[%s] NO:%d finnal repeatcnt:%d vsynccnt:%ld, vsynctime[%ld-%ld], "
                     "diffvsync:%ld, diffnow:%ld",
                     __func__, frame.frameNo, frame.repeatVsyncCnt, frame.targetVsyncCnt,
                     frame.targetVsyncTime,
                     saturatingAdd(frame.targetVsyncTime, mPriv->lastVsync.vsyncInc),
                     saturatingSub(frame.syncRealTimeUs, frame.targetVsyncTime),
                     saturatingSub(frame.syncRealTimeUs, monotonicNowUs()));
    }
    return true;
}
