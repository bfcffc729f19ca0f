// SPDX-License-Identifier: Apache-2.0
// The values of a sync instance's clock and the arithmetic on them (the tables are in
// MediaSyncService.h). Time is an argument; no lock.
#pragma once

#include <cstdint>

#include "platform/MediaSync.h"

namespace korvane::tv {

/// Who anchored last. In pass-through the mode does not imply the leader.
enum class Leader { Nobody, Video, Audio };
const char* toString(Leader leader);

struct SyncClock {
    static constexpr int64_t kUnset = -1;

    sync_mode mode = MEDIA_SYNC_VMASTER;
    Leader leader = Leader::Nobody;  ///< Nobody without an anchor
    int64_t anchorMediaUs = 0;
    int64_t anchorRealUs = 0;
    bool paused = false;
    int64_t pausedMediaUs = 0;  ///< the clock's media time while paused and anchored
    int64_t trackUs = kUnset;   ///< audio's last step
    bool hasTrack = false;
    int64_t startingUs = kUnset;

    bool anchored() const { return leader != Leader::Nobody; }
    /// Mode 0 takes anchors from anybody, mode 1 from audio, pass-through from whoever was first.
    bool mayAnchor(Leader by) const;
    void anchor(Leader by, int64_t mediaUs, int64_t realUs);
    void setPause(bool pause, int64_t nowUs);
    void reportTrack(int64_t mediaUs);

    /// Media time at a real time, and real time for a media time; only with an anchor.
    int64_t mediaAt(int64_t realUs) const;
    int64_t realFor(int64_t mediaUs, int64_t nowUs) const;
    /// The pass-through decision for a frame.
    mediasync_video_policy decide(int64_t mediaUs, int64_t nowUs) const;
};

}  // namespace korvane::tv
