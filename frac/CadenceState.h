// SPDX-License-Identifier: Apache-2.0
// The cadence tracker's state, shared by its source files and its tests.
//
// The display's part: first and last vsync, display mode. The content's part: the records of the
// current and the previous frame, the pattern in force, each detector's run. One lock guards both.
// Values that are written without the lock are atomic: the frame rate, which the player sets, and
// the enable mask, which is read again for each detector.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "include/ThreadAnnotations.h"
#include "platform/LogMask.h"

/// One vsync of the display. All zero: none yet. Otherwise time, period and number are at least 1,
/// so a known vsync's period can be divided by.
struct VsyncInfo {
    int64_t vsyncTime = 0;  ///< when it happened, us
    int32_t vsyncInc = 0;   ///< vsync period, us
    int64_t vsyncCnt = 0;   ///< its number; the first one after a reset is 1
};

/// One frame on the vsync grid. Times in us.
struct SyncFrame {
    int64_t mediaTimeUs = 0;
    int64_t realTimeUs = 0;       ///< as the caller gave it; below 1: no frame yet
    int64_t syncRealTimeUs = 0;   ///< aligned to the grid, then corrected: the result
    int32_t repeatVsyncCnt = 0;   ///< vsyncs since the previous frame, after correction
    int64_t vsyncCnt = 0;         ///< vsync number before correction
    int64_t targetVsyncCnt = 0;   ///< vsync number after correction
    int64_t targetVsyncTime = 0;  ///< start of the interval of the corrected time
    int64_t vsyncTime = 0;        ///< start of the interval of the uncorrected time
    int64_t baseVsyncCnt = 0;     ///< vsyncCnt again; a first frame takes its numbers from here
    int64_t frameEndTimeUs = 0;   ///< realTimeUs plus one frame duration, when that is known
    int32_t holdFrame = 0;        ///< 1: moved to a later vsync to keep the pattern
    int32_t pullFrame = 0;        ///< 1: this frame or one before it since the reset was pulled
    int32_t frameNo = 0;
    VsyncInfo vsync;  ///< the last vsync known when the frame was processed
};

/// Index into the pattern table, and number of the detector's bit in the enable mask.
enum FracPattern : int32_t {
    kNoPattern = -1,
    kPattern32 = 0,
    kPattern22 = 1,
    kPattern41 = 2,
    kPattern11 = 3,
    kPatternCount = 4,
};

/// Mode ids of the display-mode table.
enum FracDispMode : int32_t {
    kDispModeUnknown = 0,
    kDispMode5994 = 1,
    kDispMode60 = 2,
};

struct videoSyncFrac_priv {
    std::atomic<int32_t> frameRate{0};        ///< hundredths of a frame per second; 0: not known
    std::atomic<int64_t> frameDurationUs{0};  ///< 100000000 / frameRate
    VsyncInfo firstVsync KORVANE_GUARDED_BY(lock);  ///< since the last reset
    VsyncInfo lastVsync KORVANE_GUARDED_BY(lock);
    std::mutex lock;
    SyncFrame prevFrame KORVANE_GUARDED_BY(lock);
    SyncFrame curFrame KORVANE_GUARDED_BY(lock);
    SyncFrame spareFrame KORVANE_GUARDED_BY(lock);  ///< cleared on reset, otherwise not used
    int32_t dispMode KORVANE_GUARDED_BY(lock) = kDispModeUnknown;
    const char* dispModeName KORVANE_GUARDED_BY(lock) = nullptr;
    int32_t dispPeriodUs KORVANE_GUARDED_BY(lock) = 0;
    int64_t hwcOffset KORVANE_GUARDED_BY(lock) = 0;  ///< added to every real time, us
    /// Vsync number of the last short frame. A reset keeps it, although it restarts the numbers.
    int64_t lastShortFrameVsyncCnt KORVANE_GUARDED_BY(lock) = 0;
    bool patternCheckSupported KORVANE_GUARDED_BY(lock) =
        false;                                        ///< detection works in this display mode
    int32_t curPattern KORVANE_GUARDED_BY(lock) = 0;  ///< in force; see FracPattern
    int32_t patternMatchCnt[kPatternCount] KORVANE_GUARDED_BY(lock) = {};
    int32_t patternDetectedCnt[kPatternCount] KORVANE_GUARDED_BY(lock) = {};  ///< statistics
    int32_t patternBrokenCnt[kPatternCount] KORVANE_GUARDED_BY(lock) = {};    ///< statistics
    int32_t fourOneHistory[4] KORVANE_GUARDED_BY(lock) = {};  ///< repeat counts of the [4:1] cycle
    int32_t fourOneIndex KORVANE_GUARDED_BY(lock) = 0;  ///< its next entry; 0: no cycle started
    std::atomic<int32_t> enablePattern{0};              ///< bit per FracPattern; 0: tracker off
};
static_assert(sizeof(std::atomic<int32_t>) == sizeof(int32_t) &&
                  sizeof(std::atomic<int64_t>) == sizeof(int64_t),
              "an atomic field has the size of the plain one");

namespace korvane::frac {

inline constexpr char kTag[] = "VideoSyncFRAC";

/// One mask for the tracker's files.
extern LogMask gLogMask;

/// The pattern's name as logs print it, "unknown pattern" for none.
const char* patternName(int32_t pattern);

/// Whether the private state is missing; logs an error if it is.
inline bool isMissing(const videoSyncFrac_priv* priv, const char* operation) {
    if (priv != nullptr) {
        return false;
    }
    KORVANE_LOGE(kTag, "[%s]no videoSyncFrac_priv", operation);
    return true;
}

}  // namespace korvane::frac
