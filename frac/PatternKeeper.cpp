// SPDX-License-Identifier: Apache-2.0
// Pattern keeping: one frame's way from its real time to its presentation time.
//
// In: the frame's real time; kept: its record and the one of the frame before. First the frame is
// put on the vsync grid (updateSyncFrame): interval, vsync number, repeat count. Then its time is
// corrected (checkPattern) so that its repeat count is the one that the pattern in force expects,
// or, with none in force, only kept off the edges of its interval. Then the detectors see the
// corrected count. On the drain thread, with the tracker's lock held throughout.
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
// Real times come from the caller unchecked, so sums of them saturate.
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

// Distance that a presentation time keeps from both edges of its vsync interval: about a quarter of
// a period at 60 Hz, more than vsync reports and the tunnel's hand-over jitter.
constexpr int64_t kMarginUs = 4000;

// 60 fps on 59.94 Hz has 1000 frames for 999 vsyncs, so one short frame in so many. An error of two
// vsyncs this soon after the last short frame has another cause and is made up for in full.
constexpr int32_t kSixtyFps = 6000;
constexpr int64_t kLittleDifferVsyncs = 994;

/// Where a time lies on the grid.
struct GridPosition {
    int64_t vsyncs;      ///< whole periods from the last vsync, cut towards zero
    int64_t intervalUs;  ///< that many periods from the last vsync: start of the interval
};

/// @param vsync  a known one: its period is 1 or above
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

/// The first frame after a reset fixes the offset between real time and grid: it goes to a quarter
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

/// What the pattern in force expects of this frame, given the frame before.
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
            // [4:1] has no expected count: in force, it takes a count of 0 as fitting, every
            // count above as staying too long, every count below as too early.
            return {0, 0};
    }
}

/// Start and end of the part of the frame's own interval that keeps the margin.
struct SafeRange {
    int64_t earliestUs;
    int64_t latestUs;
};

SafeRange safeRange(const videoSyncFrac_priv& priv) KORVANE_REQUIRES(priv.lock) {
    const int64_t startUs = priv.curFrame.vsyncTime;
    return {saturatingAdd(startUs, kMarginUs),
            saturatingAdd(startUs, priv.lastVsync.vsyncInc - kMarginUs)};
}

/// No pattern: a time near either edge goes to the start of its interval plus the margin.
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

/// In pattern: a time near an edge goes to the margin at that edge.
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

/// Two vsyncs too early right after a held frame, on 59.94 Hz: the content is faster than the
/// display by a whole vsync now. One vsync is made up for; the short frame takes up the other.
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

/// Two or more vsyncs too long. On 60 Hz, after a pulled frame, two are the content being slower
/// than the display by a whole vsync now: one is made up for, the freeze frame takes the other.
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
        // After the correction: what a detector finds is in force from the next frame on.
        for (int pattern = 0; pattern < kPatternCount; ++pattern) {
            if ((mPriv->enablePattern.load(std::memory_order_relaxed) & (1 << pattern)) != 0) {
                detectPattern(pattern);
            }
        }
    }
    mPriv->prevFrame = mPriv->curFrame;
    return true;
}

// As is detectPattern: getRealTime, which holds the lock, is the caller.
KORVANE_LOCKS_UNCHECKED bool VideoSyncFRAC::updateSyncFrame(long mediaTimeUs, long realTimeUs,
                                                            int frameNo) {
    if (isMissing(mPriv, __func__)) {
        return false;
    }
    // A previous frame was placed after the last reset, hence with a vsync known.
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

// As updateSyncFrame.
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

    const int64_t targetEndUs = saturatingAdd(frame.targetVsyncTime, mPriv->lastVsync.vsyncInc);
    const int64_t intoIntervalUs = saturatingSub(frame.syncRealTimeUs, frame.targetVsyncTime);
    if (isPatternInForce) {
        KORVANE_LOGD(gLogMask, kLogFrame, kTag,
                     "[%s]pattern %s No:%d finnal repeatcnt:%d vsynccnt:%ld, vsynctime[%ld-%ld], "
                     "diffvsync:%ld, diffnow:%ld",
                     __func__, patternName(mPriv->curPattern), frame.frameNo, frame.repeatVsyncCnt,
                     frame.targetVsyncCnt, frame.targetVsyncTime, targetEndUs, intoIntervalUs,
                     saturatingSub(frame.syncRealTimeUs, monotonicNowUs()));
    } else {
        KORVANE_LOGD(gLogMask, kLogFrame, kTag,
                     "[%s] NO:%d finnal repeatcnt:%d vsynccnt:%ld, vsynctime[%ld-%ld], "
                     "diffvsync:%ld, diffnow:%ld",
                     __func__, frame.frameNo, frame.repeatVsyncCnt, frame.targetVsyncCnt,
                     frame.targetVsyncTime, targetEndUs, intoIntervalUs,
                     saturatingSub(frame.syncRealTimeUs, monotonicNowUs()));
    }
    return true;
}
