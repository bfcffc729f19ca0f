// SPDX-License-Identifier: Apache-2.0
// The player's frame buffers: a fixed number of memory files that are filled, handed out and taken
// back.
//
// A buffer is free (the player may write it) or out (the library has it; the player must not touch
// it). The pool reuses buffers in the order in which they came back. The library may return a
// buffer twice after a flush: the second return is counted and changes nothing. It comes long
// before the buffer is out again, because the buffer that came back last is reused last.
//
// Each memory file starts with one page for a tv::PictureHeader; the picture's planes follow as
// FFmpeg packs them. The file grows when a larger picture comes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "tv/UniqueFd.h"

struct AVFrame;

namespace korvane::player {

/// Default number of frame buffers: enough for the renderer's lead, two in the tunnel and one on
/// the panel, with a reserve. The reserve shrinks when pictures are so large that the buffers would
/// take more than 512 MB, about what a TV has.
int usualBuffers(int64_t pictureBytes);

struct PoolReport {
    int buffers = 0;
    int lowestFree = 0;
    int64_t waits = 0;  ///< how often no buffer was free
    int64_t longestWaitNs = 0;
    int64_t returnedByCallback = 0;
    int64_t returnedAgain = 0;  ///< returned although it was free already
    int64_t unknownReturned = 0;
    int64_t takenBackAtStop = 0;
};

/// Unmaps a mapping of so many bytes.
struct Unmap {
    size_t bytes = 0;
    void operator()(unsigned char* memory) const;
};
using Mapping = std::unique_ptr<unsigned char, Unmap>;

/// Call `acquire`, `fill` and `takeBackAll` on the player's thread, the rest on any.
class BufferPool {
public:
    /// @throws std::system_error when a memory file cannot be created
    explicit BufferPool(int buffers);
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;

    /// Waits for a free buffer.
    /// @return its index, or -1 after the timeout
    int acquire(std::chrono::nanoseconds timeout);
    /// Writes the header and, unless `picture` is null, the picture into an acquired buffer.
    /// @return bytes of the picture
    /// @throws std::system_error when there is no memory left
    size_t fill(int buffer, const AVFrame* picture, int64_t frameNo, int64_t mediaTimeUs);
    int fd(int buffer) const;

    struct Holding {
        int buffer = -1;  ///< -1: no buffer of this pool
        bool out = false;
        int64_t frameNo = -1;
    };
    /// What the buffer with this descriptor holds.
    Holding holding(int fd) const;
    /// The library has returned a buffer. Idempotent.
    void giveBack(int fd);
    /// Takes back every buffer that is still out. Call once the library has stopped.
    void takeBackAll();

    /// Buffers that the player may write now.
    int64_t free() const;
    PoolReport report() const;

private:
    /// The descriptor never changes; the memory belongs to the player's thread.
    struct Buffer {
        tv::UniqueFd fd;
        Mapping memory;
    };
    static void grow(Buffer& buffer, size_t bytes);
    static size_t copyPlanes(Buffer& buffer, const AVFrame& picture);
    int indexOf(int fd) const;

    std::vector<Buffer> mBuffers;
    mutable std::mutex mLock;
    std::condition_variable mFreed;
    std::vector<Holding> mHoldings KORVANE_GUARDED_BY(mLock);  ///< one for each buffer
    std::deque<int> mFree KORVANE_GUARDED_BY(mLock);
    bool mWaiting KORVANE_GUARDED_BY(mLock) = false;
    std::chrono::steady_clock::time_point mWaitStart KORVANE_GUARDED_BY(mLock);
    PoolReport mReport KORVANE_GUARDED_BY(mLock);
};

}  // namespace korvane::player
