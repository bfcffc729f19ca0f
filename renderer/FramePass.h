// SPDX-License-Identifier: Apache-2.0
// What the drain thread knows of the frame in its hands while it decides about it.
#pragma once

#include "VideoTunnelRenderer.h"
#include "platform/Clock.h"
#include "platform/MediaSync.h"

struct VideoTunnelRenderer::FramePass {
    /// What a failed read of the sync mode leaves behind; no mode has this value.
    static constexpr auto kUnknownSyncMode = static_cast<sync_mode>(255);

    videoframe* frame;
    long realTimeUs = 0;  ///< the media-sync clock's time for the frame; negative: no anchor yet
    long finalRealTimeUs = 0;   ///< the presentation time, once corrected to the vsync grid
    long trackUs = 0;           ///< audio's track time as last read
    long vsyncTimestampNs = 0;  ///< the last display vsync asked for during this pass; 0: none
    bool refreshVsync = false;  ///< the tracker is to be told of that vsync
    sync_mode syncMode = kUnknownSyncMode;
    int64_t nowUs = 0;  ///< when the verdict was reached; after a wait: when the wait ended

    int64_t earlyUs() const { return korvane::saturatingSub(finalRealTimeUs, nowUs); }
};
