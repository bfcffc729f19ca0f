// SPDX-License-Identifier: Apache-2.0
// The player's frame buffers: a fixed number of memory files, filled, handed out, taken back.
//
// A buffer is free (the player's, to be written) or out (handed to the library, not to be touched).
// Buffers are reused in the order in which they came back. The library may hand a buffer back twice
// after a flush, so giving back a free buffer changes nothing and is only counted; and as the one
// that came back last is reused last, the second time comes long before it is out again.
//
// Each memory file is one page with a tv::PictureHeader and then the picture's planes as FFmpeg
// packs them; it grows when a larger picture comes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "include/ThreadAnnotations.h"

struct AVFrame;

namespace korvane::player {

/// How many frame buffers a player has that is not told: as many as the renderer's lead, the
/// tunnel's own two and the panel's need, with a reserve. Large pictures get no reserve beyond 512
/// MB, as a TV has it.
int usualBuffers(int64_t pictureBytes);

struct PoolReport {
    int buffers = 0;
    int lowestFree = 0;
    int64_t waits = 0;  ///< times that the player found none free
    int64_t longestWaitNs = 0;
    int64_t returnedByCallback = 0;
    int64_t returnedAgain = 0;  ///< handed back although the player had it already
    int64_t unknownReturned = 0;
    int64_t takenBackAtStop = 0;
};

/// `acquire`, `fill` and `takeBackAll` belong to the player's thread; the rest to any thread.
class BufferPool {
public:
    /// @throws std::system_error when memory files cannot be had
    explicit BufferPool(int buffers);
    ~BufferPool();
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;

    /// Waits for a free buffer.
    /// @return its index, or -1 after the time-out
    int acquire(std::chrono::nanoseconds timeout);
    /// Copies a picture into an acquired buffer; without one, only its header is written.
    /// @return bytes of the picture
    /// @throws std::system_error when memory runs out
    size_t fill(int buffer, const AVFrame* picture, int64_t frameNo, int64_t mediaTimeUs);
    int fd(int buffer) const;

    struct Holding {
        int buffer = -1;   ///< -1: no buffer of this pool
        bool out = false;  ///< false: the player has it already
        int64_t frameNo = -1;
    };
    /// What the buffer behind a descriptor holds.
    Holding holding(int fd) const;
    /// Takes a buffer back from a callback; idempotent.
    void giveBack(int fd);
    /// Takes back every buffer that is still out, after the library has stopped.
    void takeBackAll();

    PoolReport report() const;

private:
    /// A buffer's memory; its number never changes, the rest is the player's thread's.
    struct Buffer {
        int fd = -1;
        unsigned char* memory = nullptr;
        size_t bytes = 0;
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
