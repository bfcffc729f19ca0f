// SPDX-License-Identifier: Apache-2.0
// Pattern detection: the cadence of the last frames' repeat counts.
//
// Input: the corrected repeat counts of the current and the previous frame. Output: the pattern in
// force, which applies from the next frame on, and statistics. Runs once per frame and enabled
// detector, on the drain thread under the tracker's lock.
//
//   pair pattern   counting 0..9 --(10th fitting frame in a row)--> declared --(misfit)--> 0
//                  counting 0..9 --(misfit)--> 0, silently
//   [4:1]          0 --> 1 --(second whole cycle 2 1 1 1, seen at the next 2)--> declared
//                  any --(a count that breaks the cycle)--> 0, silently unless declared
//
// Each detector counts its own run. The pattern declared last is in force; when any declared
// pattern breaks, none is in force, even if another detector's run goes on.
#include <algorithm>
#include <iterator>

#include "frac/CadenceState.h"
#include "frac/VideoSyncFRAC.h"

namespace {

using korvane::kLogDetail;
using korvane::kLogInfo;
using korvane::frac::gLogMask;
using korvane::frac::isMissing;
using korvane::frac::kTag;
using korvane::frac::patternName;

constexpr char kOperation[] = "detectPattern";

// Fitting frames that declare a pair pattern: at 24 fps a little over 0.4 s, so long that no other
// cadence (25 fps on 60 Hz: 3 2 3 2 2) can pass for one of the pairs.
constexpr int32_t kFramesToDeclare = 10;
constexpr int32_t kCyclesToDeclare = 2;
constexpr int32_t kCycleLength = 4;

struct PatternRow {
    const char* name;
    int32_t a, b;  ///< the pair of repeat counts, in either order; not used by [4:1]
};
constexpr PatternRow kPatterns[kPatternCount] = {
    {"[3:2]", 3, 2},
    {"[2:2]", 2, 2},
    {"[4:1]", 0, 0},
    {"[1:1]", 1, 1},
};

/// Ends a detector's run.
/// @return true when its pattern had been declared; then no pattern is in force any more
bool endRun(videoSyncFrac_priv& priv, int pattern, int32_t declaredAt) KORVANE_REQUIRES(priv.lock) {
    const bool wasDeclared = priv.patternMatchCnt[pattern] == declaredAt;
    priv.patternMatchCnt[pattern] = 0;
    if (wasDeclared) {
        priv.patternBrokenCnt[pattern]++;
        priv.curPattern = kNoPattern;
    }
    return wasDeclared;
}

/// Counts one more step of a detector's run.
/// @return true when this step declares the pattern; it is then in force
bool extendRun(videoSyncFrac_priv& priv, int pattern, int32_t declaredAt)
    KORVANE_REQUIRES(priv.lock) {
    if (priv.patternMatchCnt[pattern] >= declaredAt) {
        return false;
    }
    priv.patternMatchCnt[pattern]++;
    if (priv.patternMatchCnt[pattern] != declaredAt) {
        return false;
    }
    priv.patternDetectedCnt[pattern]++;
    priv.curPattern = pattern;
    return true;
}

void detectPair(videoSyncFrac_priv& priv, int pattern) KORVANE_REQUIRES(priv.lock) {
    const auto [name, a, b] = kPatterns[pattern];
    const int32_t cur = priv.curFrame.repeatVsyncCnt;
    const int32_t prev = priv.prevFrame.repeatVsyncCnt;
    if ((cur == a && prev == b) || (cur == b && prev == a)) {
        if (extendRun(priv, pattern, kFramesToDeclare)) {
            KORVANE_LOGI(gLogMask, kLogInfo, kTag, "[%s]%d:%d pattern detected", kOperation, a, b);
        }
    } else if (endRun(priv, pattern, kFramesToDeclare)) {
        KORVANE_LOGI(gLogMask, kLogInfo, kTag, "[%s] pattern %s broken", kOperation, name);
    }
}

/// A 2 ends a cycle and starts the next. Only entries 1 to 3 are checked, and only a reset clears
/// them: after one whole cycle, a cycle that is cut short counts as whole too.
void startFourOneCycle(videoSyncFrac_priv& priv) KORVANE_REQUIRES(priv.lock) {
    const bool wholeCycle =
        std::all_of(std::begin(priv.fourOneHistory) + 1, std::end(priv.fourOneHistory),
                    [](int32_t repeats) { return repeats == 1; });
    if (wholeCycle && extendRun(priv, kPattern41, kCyclesToDeclare)) {
        KORVANE_LOGI(gLogMask, kLogInfo, kTag, "[%s]4:1 pattern detected", kOperation);
    }
    priv.fourOneHistory[0] = 2;
    priv.fourOneIndex = 1;
}

void breakFourOneCycle(videoSyncFrac_priv& priv) KORVANE_REQUIRES(priv.lock) {
    priv.fourOneIndex = 0;
    priv.fourOneHistory[0] = 0;
    if (endRun(priv, kPattern41, kCyclesToDeclare)) {
        KORVANE_LOGI(gLogMask, kLogInfo, kTag, "[%s]4:1 pattern broken", kOperation);
    }
}

void detectFourOne(videoSyncFrac_priv& priv) KORVANE_REQUIRES(priv.lock) {
    const int32_t cur = priv.curFrame.repeatVsyncCnt;
    const bool insideCycle = priv.fourOneIndex >= 1 && priv.fourOneIndex < kCycleLength;
    if (cur == 1 && insideCycle) {
        priv.fourOneHistory[priv.fourOneIndex] = 1;
        priv.fourOneIndex++;
    } else if (cur == 2) {
        startFourOneCycle(priv);
    } else {
        breakFourOneCycle(priv);
    }
}

}  // namespace

const char* korvane::frac::patternName(int32_t pattern) {
    return pattern >= 0 && pattern < kPatternCount ? kPatterns[pattern].name : "unknown pattern";
}

// Called by getRealTime, which holds the lock.
KORVANE_LOCKS_UNCHECKED bool VideoSyncFRAC::detectPattern(int pattern) {
    if (isMissing(mPriv, __func__)) {
        return false;
    }
    KORVANE_LOGD(gLogMask, kLogDetail, kTag, "[%s] %s", __func__, patternName(pattern));
    if (pattern < 0 || pattern >= kPatternCount) {
        return false;
    }
    if (pattern == kPattern41) {
        detectFourOne(*mPriv);
    } else {
        detectPair(*mPriv, pattern);
    }
    return true;
}
