// SPDX-License-Identifier: Apache-2.0
// The video tunnel: the way of buffers from a producer to the screen and back.
//
// A producer opens the device, allocates an id, connects and queues buffers with a presentation
// time in microseconds. Buffers wait in the order in which they were queued. At each vsync V the
// display looks at the buffers queued at or before V, from the front: it goes forward while the
// front one is due (presentation time <= V) and puts the newest due one on screen; what it passed
// over is superseded and released at once, without a fence. The buffer that it replaces on screen
// is released with a fence that signals at the vsync after V, when the panel has stopped reading
// it. The decision uses the grid's own time, never the moment at which the display thread happened
// to run.
//
// A presentation time more than 10 s ahead of now is no schedule and counts as due at once: no
// player schedules that far, while a renderer that shows a first frame immediately hands in a time
// in nanoseconds, which read as microseconds lies years ahead. Held back, it would block everything
// queued behind it.
//
// Disconnecting gives up all buffers, on screen or waiting, and signals every fence. Freeing an id
// and closing a device disconnect first. The record keeps every buffer's fate. Numbers of devices
// and ids count from 0 and are not used again, so a stale one never means something else.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tv/Display.h"
#include "tv/Picture.h"

namespace korvane::tv {

/// Ahead of now by more than this, a presentation time means "at once".
constexpr int64_t kNoScheduleAheadUs = 10'000'000;

struct TunnelConfig {
    /// Buffers that one tunnel holds (waiting, on screen, or released and not yet taken back).
    int capacity = 64;
    /// Ids that can be allocated at a time.
    int maxTunnels = 64;
};

/// Faults that the tunnel can be told to have. All off by default.
struct TunnelFaults {
    bool openFails = false;
    bool allocFails = false;
    bool freeFails = false;
    bool connectFails = false;
    bool disconnectFails = false;
    bool queueFails = false;
    bool dequeueFails = false;
    bool vsyncQueryFails = false;
    /// The release fence signals this much later than the panel is done.
    int64_t fenceDelayNs = 0;
    /// The release fence never signals while the tunnel is connected.
    bool fenceNeverSignals = false;
    /// Buffers come back without a fence.
    bool noFences = false;
    /// The descriptor handed out as a fence is not what a fence looks like: opened for writing.
    bool fenceWrongMode = false;
};

/// What became of a buffer.
enum class BufferFate {
    Waiting,               ///< queued, its time has not come
    OnScreen,              ///< on screen now
    Shown,                 ///< was on screen and was replaced
    Superseded,            ///< a newer buffer was due at the same vsync; never on screen
    DiscardedByDisconnect  ///< still waiting when the producer disconnected
};
const char* toString(BufferFate fate);

/// One queued buffer's life, in the order of queueing.
struct BufferRecord {
    int64_t serial = 0;  ///< number of the queueing, from 0, per TV
    int tunnelId = -1;
    int fd = -1;
    int64_t frameNo = -1;      ///< from the picture itself
    int64_t mediaTimeUs = -1;  ///< from the picture itself
    int64_t presentationTimeUs = 0;
    bool atOnce = false;  ///< the time was no schedule (see the top of this file)
    int64_t queuedNs = 0;
    BufferFate fate = BufferFate::Waiting;
    Vsync firstVsync{-1, 0};    ///< vsync at which it came on screen
    int64_t dwellVsyncs = 0;    ///< vsyncs on screen; still counting while OnScreen
    int64_t releasedNs = 0;     ///< vsync at which it was replaced, or disconnection; 0 before
    int64_t fenceSignalNs = 0;  ///< when its fence signals; 0 without a fence, INT64_MAX never
    int64_t takenBackNs = 0;    ///< when the producer dequeued it; 0 before
    bool overwrittenOnScreen = false;  ///< the picture changed while on screen
};

/// Entry points as the device library has them, with time as an argument; results below 0 are
/// failures with the error number negated. All operations may be called from any thread.
///
///   -EBADF no such device   -EINVAL no such id on this device, or a fault   -ENOTCONN, -EBUSY not
///   connected, already so   -ENOSPC no more ids   -ENOBUFS tunnel full   -EAGAIN nothing released
///   -EMFILE the process is out of descriptors   -ENODEV no driver   -EIO the display says nothing
class Tunnel {
public:
    Tunnel(const TunnelConfig& config, Display& display);
    ~Tunnel();

    int open();
    int close(int device);
    int allocId(int device, int* tunnelId);
    int freeId(int device, int tunnelId);
    int connect(int device, int tunnelId);
    int disconnect(int device, int tunnelId, int64_t nowNs);
    int sendCommand(int device, int tunnelId, int command, int argument);
    int queueBuffer(int device, int tunnelId, int bufferFd, int acquireFenceFd,
                    int64_t presentationTimeUs, int64_t nowNs);
    /// @param fenceFd  receives the release fence, which the caller then owns, or -1
    int dequeueBuffer(int device, int tunnelId, int* bufferFd, int* fenceFd, int64_t nowNs);
    int displayVsync(int device, int tunnelId, int64_t nowNs, VsyncReport* out);

    /// The display's side: scans out one vsync.
    void scanOut(const Vsync& vsync, const Vsync& next);
    /// The display's side: signals the fences whose time has come.
    /// @return when the next pending fence signals, or INT64_MAX
    int64_t signalFences(int64_t nowNs);

    void setFaults(const TunnelFaults& faults);
    TunnelFaults faults() const;

    /// Every buffer ever queued to a tunnel id (-1: to any), in order, but for those taken out.
    std::vector<BufferRecord> record(int tunnelId = -1) const;
    /// Takes out of a tunnel id's record, from its front, the buffers whose record can change no
    /// more: off the screen and read by no panel, fence signalled or none, taken back by the
    /// producer or given up by a disconnection. What follows one that is not finished stays.
    /// Called now and then, it keeps the memory of a run of any length bounded.
    std::vector<BufferRecord> takeFinished(int tunnelId);
    /// Buffers inside a tunnel: waiting, on screen, or released and not taken back.
    int heldBuffers(int tunnelId) const;
    int openDevices() const;
    int allocatedIds() const;
    int connectedTunnels() const;
    /// State in words, for people.
    std::string dump() const;

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

}  // namespace korvane::tv
