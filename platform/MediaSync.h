// SPDX-License-Identifier: Apache-2.0
// The closed media-sync class, with the operations that this library calls.
//
// One MediaSync object is one client of the process's media-sync service; bound to an instance, it
// reads and controls that instance's audio/video clock. The library that implements it
// (libkorvane_mediasync.so) is closed: class, enumerations and record are in the global namespace
// with these signatures, so that they mangle like its exports. Every operation returns 0 for
// success and any other value for failure. `long` has 64 bits on all supported systems.
#pragma once

#include <cstdint>

/// A client's stream. The renderer uses 0 only.
enum sync_stream_type : int32_t {
    MEDIA_VIDEO = 0,
    MEDIA_AUDIO = 1,
};

/// Who leads the instance's clock. The names are this library's, the numbers the service's.
enum sync_mode : int32_t {
    MEDIA_SYNC_VMASTER = 0,   ///< nobody leads yet; only video has anchored the clock
    MEDIA_SYNC_AMASTER = 1,   ///< audio leads
    MEDIA_SYNC_PCRMASTER = 2  ///< the broadcast's clock leads (tuner pass-through)
};

/// Parameters of an instance, each a pointer to an int32 that the caller keeps alive. The names are
/// this library's, the numbers the service's.
enum mediasync_parameter : int32_t {
    MEDIASYNC_KEY_VIDEOSYNCMODE = 5,
    MEDIASYNC_KEY_PARAM7 = 7,
    MEDIASYNC_KEY_PARAM9 = 9,
};

enum mediasync_time_unit : int32_t {
    MEDIASYNC_UNIT_US = 1,   ///< microseconds of media time
    MEDIASYNC_UNIT_PTS = 2,  ///< the unit of queueVideoFrame
};

/// Decision for one video frame, filled by MediaSync::VideoProcess.
enum video_policy : int32_t {
    MEDIASYNC_VIDEO_NORMAL_OUTPUT = 1,
    MEDIASYNC_VIDEO_HOLD = 2,
    MEDIASYNC_VIDEO_DROP = 3,
    MEDIASYNC_VIDEO_EXIT = 4,
};

/// 24 bytes, zeroed by the caller before each query.
struct mediasync_video_policy {
    int32_t videopolicy;    ///< one of video_policy; any other value: no decision
    int32_t reserved;       ///< zero
    int64_t realtimeUs;     ///< monotonic time at which the frame is to be shown
    int64_t reservedParam;  ///< not used by this library
};
static_assert(sizeof(mediasync_video_policy) == 24 &&
                  __builtin_offsetof(mediasync_video_policy, realtimeUs) == 8 &&
                  __builtin_offsetof(mediasync_video_policy, reservedParam) == 16,
              "the record is an interface with the closed library");

class __attribute__((visibility("default"))) MediaSync {
public:
    MediaSync();
    ~MediaSync();
    MediaSync(const MediaSync&) = delete;
    MediaSync& operator=(const MediaSync&) = delete;

    int setPlayerInsNumber(int number);
    int allocInstance(int demuxId, int pcrPid, int* syncInsId);
    int bindInstance(unsigned int syncInsId, sync_stream_type streamType);
    int setSyncMode(sync_mode mode);
    int getSyncMode(sync_mode* mode);
    int setPause(bool pause);
    int getPause(bool* paused);
    int updateAnchor(long anchorTimeMediaUs, long anchorTimeRealUs, long maxTimeMediaUs,
                     bool fromVideo);
    int getMediaTime(long realUs, long* outMediaUs, bool allowPastMaxTime);
    int getRealTimeFor(long targetMediaUs, long* outRealUs);
    int getRealTimeForNextVsync(long* outRealUs);
    int reset();
    int getTrackMediaTime(long* outMediaUs);
    int getStartingTimeMedia(long* outMediaUs);
    int setUpdateTimeThreshold(long threshold);
    int getUpdateTimeThreshold(long* threshold);
    int setParameter(mediasync_parameter type, void* arg);
    int getParameter(mediasync_parameter type, void* arg);
    int queueVideoFrame(long vpts, int size, int duration, mediasync_time_unit unit);
    int VideoProcess(long vpts, long lastVpts, mediasync_time_unit unit,
                     mediasync_video_policy* policy);

private:
    // The renderer allocates the object, but its size is not known: this is larger than that of any
    // implementation, so that the closed constructor never writes past the end.
    [[maybe_unused]] alignas(16) unsigned char mOpaque[1024];
};
