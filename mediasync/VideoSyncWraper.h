// SPDX-License-Identifier: Apache-2.0
// The renderer's access to the media-sync service.
//
// Owns one MediaSync client, forwards every call to it unchanged, turns the service's status into a
// bool and logs under its own mask. It keeps no state and no lock: any thread may call any
// operation that the service allows it to call.
//
//   status 0      true
//   other status  false, and one error line "[operation]err:status"
#pragma once

#include "platform/MediaSync.h"

/// `long` times are microseconds: media times where the name says Media, else monotonic times.
class __attribute__((visibility("default"))) VideoSyncWraper {
public:
    /// Creates the client, not bound to an instance yet, and refreshes this file's log mask.
    VideoSyncWraper();
    /// Without it, for lack of memory, call nothing but the destructor.
    bool hasClient() const { return mMediaSync != nullptr; }
    /// Deletes the client, which also unbinds it.
    ~VideoSyncWraper();
    VideoSyncWraper(const VideoSyncWraper&) = delete;
    VideoSyncWraper& operator=(const VideoSyncWraper&) = delete;

    bool setPlayerInsNumber(int number);
    /// Binds the client to an existing instance.
    bool bindInstance(unsigned int syncInsId, sync_stream_type type);
    bool setSyncMode(sync_mode mode);
    bool getSyncMode(sync_mode* mode);
    bool setPause(bool pause);
    bool getPause(bool* paused);
    /// Gives the instance video's anchor (never audio's).
    bool updateAnchor(long anchorTimeMediaUs, long anchorTimeRealUs, long maxTimeMediaUs);
    bool getMediaTime(long realUs, long* outMediaUs, bool allowPastMaxTime);
    bool getRealTimeFor(long targetMediaUs, long* outRealUs);
    bool getRealTimeForNextVsync(long* outRealUs);
    bool reset();
    /// Allocates a new instance; the client is not bound to it.
    /// @param syncId  receives its id
    bool getSyncId(int* syncId);
    bool getTrackMediaTime(long* outMediaUs);
    bool getStartingTimeMedia(long* outMediaUs);
    bool setUpdateTimeThreshold(long threshold);
    bool getUpdateTimeThreshold(long* threshold);
    /// @param arg  points to an int32 that lives, unchanged, as long as this object
    bool setParameter(mediasync_parameter type, void* arg);
    bool getParameter(mediasync_parameter type, void* arg);
    bool queueVideoFrame(long timestampUs, int size, int extra, mediasync_time_unit unit);
    /// Asks the instance what to do with a frame (pass-through).
    /// @param policy  zeroed by the caller
    bool VideoProcess(long mediaTimeUs, long lastMediaTimeUs, mediasync_time_unit unit,
                      mediasync_video_policy* policy);

    // For clients that expect these operations; the service does not have them. They do nothing,
    // write no output and return true.
    bool setStartingTimeMedia(long startingTimeMediaUs);
    bool clearAnchor();
    bool setPlaybackRate(float rate);
    bool getPlaybackRate(float* rate);

private:
    MediaSync* mMediaSync;
};
