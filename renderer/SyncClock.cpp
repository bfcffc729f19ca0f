// SPDX-License-Identifier: Apache-2.0
// The player's access to the clock of the renderer's media-sync instance.
//
// Any thread may call these. They forward to the instance and keep only the last anchor, which the
// drain thread compares with audio's track time.
#include "VideoTunnelRenderer.h"
#include "mediasync/VideoSyncWraper.h"

int VideoTunnelRenderer::onVideoSyncQueueVideoFrame(long timestampUs, unsigned int size) {
    VideoSyncWraper* sync = mVideoSync;
    return sync != nullptr &&
                   sync->queueVideoFrame(timestampUs, static_cast<int>(size), 0, MEDIASYNC_UNIT_PTS)
               ? 1
               : 0;
}

bool VideoTunnelRenderer::updateVideoTime(long mediaTimeUs) {
    VideoSyncWraper* sync = mVideoSync;
    if (sync == nullptr) {
        return false;
    }
    mAnchorMediaTimeUs = mediaTimeUs;
    return sync->updateAnchor(mediaTimeUs, 0, 0);
}

bool VideoTunnelRenderer::getRealTimeFor(long mediaTimeUs, long* realTimeUs) {
    VideoSyncWraper* sync = mVideoSync;
    return sync != nullptr && sync->getRealTimeFor(mediaTimeUs, realTimeUs);
}

bool VideoTunnelRenderer::getTrackMediaTime(long* mediaTimeUs) {
    VideoSyncWraper* sync = mVideoSync;
    return sync != nullptr && sync->getTrackMediaTime(mediaTimeUs);
}

bool VideoTunnelRenderer::getStartingTimeMedia(long* mediaTimeUs) {
    VideoSyncWraper* sync = mVideoSync;
    return sync != nullptr && sync->getStartingTimeMedia(mediaTimeUs);
}
