// SPDX-License-Identifier: Apache-2.0
// The video tunnel: takes buffers from a producer to the screen and back.
//
// A producer opens the device, allocates an id, connects and queues buffers with a presentation
// time in microseconds. Buffers wait in queueing order. At each vsync V the display takes, from the
// front, the buffers that were queued at or before V and are due (presentation time <= V). The
// newest of them goes on screen; the others are superseded: released at once, without a fence. The
// buffer that was on screen is released with a fence that signals at the vsync after V, when the
// panel has stopped reading it. The decision uses the grid's times, so it does not depend on when
// the display thread runs.
//
// A presentation time more than 10 s ahead counts as due at once. No player schedules that far, but
// a renderer that shows a first frame immediately passes a time in nanoseconds, which read as
// microseconds lies years ahead. Such a buffer would block everything queued behind it.
//
// Disconnecting gives up all buffers, on screen or waiting, and signals every fence. Freeing an id
// and closing a device disconnect first. The record keeps every buffer's fate. Device numbers and
// ids count from 0 and are not reused, so a stale one stays invalid.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tv/Display.h"
#include "tv/Picture.h"

namespace korvane::tv {

/// A presentation time further ahead than this counts as due at once.
constexpr int64_t kNoScheduleAheadUs = 10'000'000;

struct TunnelConfig {
    /// Buffers that one tunnel holds (waiting, on screen, or released and not yet taken back).
    int capacity = 64;
    /// Ids that can be allocated at a time.
    int maxTunnels = 64;
};

/// Faults to inject. All off by default.
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
    /// Fences are open for reading and writing instead of reading only.
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

/// What happened to one queued buffer.
struct BufferRecord {
    int64_t serial = 0;  ///< counts queued buffers from 0, per TV
    int tunnelId = -1;
    int fd = -1;
    int64_t frameNo = -1;      ///< from the picture itself
    int64_t mediaTimeUs = -1;  ///< from the picture itself
    int64_t presentationTimeUs = 0;
    bool atOnce = false;  ///< presentation time too far ahead (see the top of this file)
    int64_t queuedNs = 0;
    BufferFate fate = BufferFate::Waiting;
    Vsync firstVsync{-1, 0};           ///< vsync at which it came on screen
    int64_t lateVsyncs = 0;            ///< vsyncs after the first at which it was due
    int64_t vsyncPeriodNs = 0;         ///< from that vsync to the next
    int64_t dwellVsyncs = 0;           ///< vsyncs on screen; still counting while OnScreen
    int64_t releasedNs = 0;            ///< when it was replaced or given up; 0 before
    int64_t fenceSignalNs = 0;         ///< when its fence signals; 0: no fence, INT64_MAX: never
    int64_t takenBackNs = 0;           ///< when the producer dequeued it; 0 before
    bool overwrittenOnScreen = false;  ///< the picture changed while on screen
};

/// The device library's entry points with time as an argument. All operations may be called from
/// any thread. A result below 0 is a failure, the error number negated:
///
///   -EBADF     no such device                     -ENOSPC   no more ids
///   -EINVAL    no such id on it, or a fault       -ENOBUFS  tunnel full
///   -ENOTCONN  not connected                      -EAGAIN   nothing released
///   -EBUSY     already connected                  -EMFILE   the process is out of descriptors
///   -ENODEV    no driver                          -EIO      the display reports nothing
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

    /// Called by the display: scans out one vsync.
    void scanOut(const Vsync& vsync, const Vsync& next);
    /// Called by the display: signals the fences whose time has come.
    /// @return when the next pending fence signals, or INT64_MAX
    int64_t signalFences(int64_t nowNs);

    void setFaults(const TunnelFaults& faults);
    TunnelFaults faults() const;

    /// Every buffer queued to a tunnel id (-1: to any), in order, without those taken out.
    std::vector<BufferRecord> record(int tunnelId = -1) const;
    /// Takes finished buffers from the front of a tunnel id's record, up to the first unfinished
    /// one. Finished: no longer read by the panel, no fence pending, taken back by the producer or
    /// given up by a disconnect. Called regularly, it bounds the memory of a run of any length.
    std::vector<BufferRecord> takeFinished(int tunnelId);
    /// The buffer on screen, of the newest tunnel that has one, with the picture that its memory
    /// holds now; empty: the screen is black.
    std::optional<BufferRecord> onScreen() const;
    /// Buffers inside a tunnel: waiting, on screen, or released and not yet taken back.
    int heldBuffers(int tunnelId) const;
    int openDevices() const;
    int allocatedIds() const;
    /// Ids that a device still had when it was closed, which took them back.
    int idsNotFreed() const;
    int connectedTunnels() const;
    /// State in words, for people.
    std::string dump() const;

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

}  // namespace korvane::tv
