// SPDX-License-Identifier: Apache-2.0
// What the drain thread knows about the frame that it is deciding about.
#pragma once

#include "VideoTunnelRenderer.h"
#include "platform/Clock.h"
#include "platform/MediaSync.h"

struct VideoTunnelRenderer::FramePass {
    /// The value while the sync mode could not be read; no mode has it.
    static constexpr auto kUnknownSyncMode = static_cast<sync_mode>(255);

    videoframe* frame;
    long realTimeUs = 0;  ///< the media-sync clock's real time for the frame; negative: no anchor
    long finalRealTimeUs = 0;   ///< the presentation time, corrected to the vsync grid
    long trackUs = 0;           ///< audio's track time as last read
    long vsyncTimestampNs = 0;  ///< the display's last vsync, queried in this pass; 0: not queried
    bool refreshVsync = false;  ///< pass that vsync to the tracker
    sync_mode syncMode = kUnknownSyncMode;
    int64_t nowUs = 0;  ///< time of the decision; after a wait, the end of the wait

    int64_t earlyUs() const { return korvane::saturatingSub(finalRealTimeUs, nowUs); }
};
