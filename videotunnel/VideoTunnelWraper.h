// SPDX-License-Identifier: Apache-2.0
// The renderer's producer end of one video tunnel.
//
// Opens the device, allocates the tunnel's id (which the player gives to the display side),
// connects, queues buffers with their presentation times and dequeues released ones once their
// release fences have signalled. It counts the queued buffers and dequeues only when there are
// three or more, so at least two always stay with the display.
//
//   device      not open -> open (constructor) -> closed (destructor); a failed open is final
//   id          none -> allocated -> none
//   connection  none -> connected -> none
//
// The device may lack any entry point; each is tested before use.
//
// Threads: the player's threads handle device, id and connection, the drain thread calls
// `queueBuffer` and the vsync query, the fill thread `dequeueBuffer`; all may run at the same time.
#pragma once

#include <atomic>
#include <cstdint>

class __attribute__((visibility("default"))) VideoTunnelWraper {
public:
    /// Refreshes the tunnel client's log mask and opens the device.
    VideoTunnelWraper();
    /// Disconnects, frees the id and closes the device, where there is one.
    ~VideoTunnelWraper();
    VideoTunnelWraper(const VideoTunnelWraper&) = delete;
    VideoTunnelWraper& operator=(const VideoTunnelWraper&) = delete;

    /// @return the new id; -1 without a device and also when an id is already held; the tunnel's
    ///         own negative result when it refuses
    int allocTunnelId();
    /// @return true when the id was freed; a refused id stays held
    bool freeTunnelId();
    /// @return false when the tunnel refuses; true also without a device or id: the renderer runs
    ///         its threads either way
    bool connect();
    /// @return true, always
    bool disconnect();

    /// Queues a buffer to the display. It stays inside until `dequeueBuffer` returns it.
    /// @param fd  buffer descriptor; the player keeps owning it
    /// @param timestamp  presentation time, forwarded unchanged
    /// @return false without a device or id; true also when the tunnel refuses the buffer, which
    ///         then is not inside and never comes back
    bool queueBuffer(int fd, long timestamp);

    /// Dequeues one released buffer and waits for its release fence. If the wait fails, the buffer
    /// is out of the tunnel but still counted, and the result is false; a descriptor that is no
    /// fence then also stays open.
    /// @param fd  receives the buffer
    /// @return false when no buffer may or can be dequeued now
    bool dequeueBuffer(int* fd);

    /// Queries the time of the display's last vsync and its period, nanoseconds.
    /// @return true when both were written
    bool getDisplayVsyncAndPeriod(long* vsyncTimestamp, int* vsyncPeriod);

private:
    friend struct VideoTunnelWraperPeer;

    /// Buffers queued and not dequeued. Never reset.
    std::atomic<int32_t> mQueuedCount;
    /// -1: none. A player's thread may allocate it while the worker threads read it.
    std::atomic<int32_t> mTunnelId;
    /// -1: not open. Written by constructor and destructor only.
    int32_t mVideoTunnelFd;
    std::atomic<bool> mConnected;
    /// Longest wait for a release fence. Written by the constructor only.
    int32_t mFenceTimeoutMs;
};
