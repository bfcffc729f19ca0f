// SPDX-License-Identifier: Apache-2.0
// Lip-sync: sound as it was heard against pictures as they were seen.
//
// The lip-sync of a frame is the time at which its picture came on screen minus the time at which
// the sound of its media time was heard. Positive: sound early. Frames that came on screen in
// silence have none. Time outside a band is the time for which frames outside it were on screen
// while something was heard.
#pragma once

#include <cstdint>
#include <optional>

#include "player/playback/Playback.h"
#include "player/report/Spread.h"

namespace korvane::player {

/// Empty for a frame that is not judged.
std::optional<int64_t> lipSyncUs(const FrameEntry& frame);

/// A range of lip-sync that a recommendation allows, its ends included.
struct LipSyncBand {
    int64_t leastUs;
    int64_t mostUs;
    bool holds(int64_t us) const { return us >= leastUs && us <= mostUs; }
};

/// EBU R37: what a programme may have when it leaves the broadcaster's chain.
constexpr LipSyncBand kEbuBand{-60'000, 40'000};
/// ITU-R BT.1359-1: from here on viewers notice, and from here on they do not accept it.
constexpr LipSyncBand kItuDetectableBand{-125'000, 45'000};
constexpr LipSyncBand kItuAcceptableBand{-185'000, 90'000};

/// Statistics as in Spread.h; all 0 when no frame was judged.
struct LipSync {
    int64_t samples = 0;  ///< frames judged
    int64_t medianUs = 0;
    int64_t p99MagnitudeUs = 0;
    int64_t worstUs = 0;
    FrameAt worst;
    double secondsJudged = 0.0;
    double secondsOutsideEbu = 0.0;
    double secondsOutsideItuDetectable = 0.0;
    double secondsOutsideItuAcceptable = 0.0;
    /// The display's part: the median time from a picture's presentation time to its vsync.
    int64_t displayMedianUs = 0;
};

class LipSyncCounter {
public:
    /// @param heardForUs  for how long something was heard while the frame was on screen
    void add(int64_t lipSyncUs, int64_t heardForUs, const FrameAt& frame);
    /// How long after its presentation time a frame given to `add` came on screen.
    void addDisplayWait(int64_t waitUs) { mDisplayWaits.add(waitUs); }
    LipSync result() const;

private:
    SpreadCounter mSpread;
    SpreadCounter mDisplayWaits;
    FrameAt mWorst;
    int64_t mJudgedUs = 0;
    int64_t mOutsideEbuUs = 0;
    int64_t mOutsideItuDetectableUs = 0;
    int64_t mOutsideItuAcceptableUs = 0;
};

}  // namespace korvane::player
