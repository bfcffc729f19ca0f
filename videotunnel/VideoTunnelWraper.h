// SPDX-License-Identifier: Apache-2.0
// The renderer's producer end of one video tunnel.
//
// Opens the device, allocates the tunnel's id (which the player gives to the display side),
// connects, queues buffers with their presentation times and takes released ones back once their
// release fences have signalled. It counts the buffers that are inside and takes one back only when
// three or more are, so that at least two always stay with the display.
//
//   device      not open -> open (constructor) -> closed (destructor); a failed open is final
//   id          none -> allocated -> none
//   connection  none -> connected -> none
//
// Any entry point may be missing from the device; each is tested before use.
//
// Threads: device, id and connection belong to the player's threads, `queueBuffer` and the vsync
// query to the drain thread, `dequeueBuffer` to the fill thread; each may run beside the others.
#pragma once

#include <atomic>
#include <cstdint>

class __attribute__((visibility("default"))) VideoTunnelWraper {
public:
    /// Refreshes the tunnel client's log mask and opens the device.
    VideoTunnelWraper();
    /// Disconnects, frees the id and closes the device, as far as each is there.
    ~VideoTunnelWraper();
    VideoTunnelWraper(const VideoTunnelWraper&) = delete;
    VideoTunnelWraper& operator=(const VideoTunnelWraper&) = delete;

    /// @return the new id; -1 without a device and also when an id is already held; the tunnel's
    ///         own negative result when it refuses
    int allocTunnelId();
    /// @return true when the id was freed; a refused id stays held
    bool freeTunnelId();
    /// @return false when the tunnel refuses; true also when there is nothing to connect, because
    /// the
    ///         renderer runs its threads either way
    bool connect();
    /// @return true, always
    bool disconnect();

    /// Hands a buffer to the display. It stays inside until `dequeueBuffer` gives it out.
    /// @param fd  buffer descriptor; stays the player's
    /// @param timestamp  presentation time, passed on unchanged
    /// @return false without a connection to queue to; true also when the tunnel refuses the
    /// buffer,
    ///         which then is not inside and never comes back
    bool queueBuffer(int fd, long timestamp);

    /// Takes one released buffer out of the tunnel, waiting for its release fence. When a fence
    /// cannot be waited for, the buffer is out of the tunnel but still counted, and false comes
    /// back; a descriptor that is not what a fence looks like then also stays open.
    /// @param fd  receives the buffer
    /// @return false when none may or can be taken now
    bool dequeueBuffer(int* fd);

    /// Asks the tunnel for the time of the display's last vsync and its period, nanoseconds.
    /// @return true when both were written
    bool getDisplayVsyncAndPeriod(long* vsyncTimestamp, int* vsyncPeriod);

private:
    friend struct VideoTunnelWraperPeer;

    /// Buffers queued and not taken back. Never reset.
    std::atomic<int32_t> mQueuedCount;
    /// -1: none. A player's thread may allocate while the worker threads look at it.
    std::atomic<int32_t> mTunnelId;
    /// -1: not open. Written by constructor and destructor only.
    int32_t mVideoTunnelFd;
    std::atomic<bool> mConnected;
    /// Longest wait for a release fence. Written by the constructor only.
    int32_t mFenceTimeoutMs;
};
