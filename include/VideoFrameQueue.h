// SPDX-License-Identifier: Apache-2.0
// The renderer's lists of frames, and its input queue: frames received and not yet taken.
//
// A frame has one entry, allocated when the player hands it in and moved from list to list: from
// the input queue to the drain thread, then to the list of render times. So once a frame has been
// accepted, no step on its way needs memory.
//
// New frames go to the back of the queue; the drain thread, `flush` and the first-frame peek take
// from the front. The renderer orders these with its input lock, but by design `flush` and the peek
// checks read or empty the queue without it. So each operation here is atomic under the queue's own
// leaf lock, held for a few pointer moves and never across a call out: every frame leaves the queue
// exactly once.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <utility>

#include "ThreadAnnotations.h"
#include "VideoFrame.h"

/// One frame inside the renderer.
struct FrameEntry {
    union {
        videoframe frame;  ///< until the frame has been queued to the tunnel
        rendertime shown;  ///< from then on
    };
    FrameEntry* next;  ///< in the list that holds the entry
};

/// Entries in the order in which they were added. Owns them; allocates nothing. One thread at a
/// time.
class FrameList {
public:
    FrameList() = default;
    ~FrameList() { clear(); }
    FrameList(const FrameList&) = delete;
    FrameList& operator=(const FrameList&) = delete;

    void pushBack(std::unique_ptr<FrameEntry> entry) {
        entry->next = nullptr;
        FrameEntry*& end = mFront == nullptr ? mFront : mBack->next;
        end = mBack = entry.release();
    }
    /// @return null when the list is empty
    std::unique_ptr<FrameEntry> popFront() {
        std::unique_ptr<FrameEntry> entry(mFront);
        if (entry != nullptr) {
            mFront = entry->next;
        }
        return entry;
    }
    void clear() {
        while (popFront() != nullptr) {
        }
    }

    void swap(FrameList& other) {
        std::swap(mFront, other.mFront);
        std::swap(mBack, other.mBack);
    }

    /// Null when the list is empty.
    FrameEntry* front() const { return mFront; }

private:
    FrameEntry* mFront = nullptr;
    FrameEntry* mBack = nullptr;  ///< valid while the list is not empty
};

/// All operations may be called from any thread.
class VideoFrameQueue {
public:
    /// Appends a frame. There is no bound.
    /// @return the number of frames then queued
    size_t pushBack(std::unique_ptr<FrameEntry> entry) {
        const std::lock_guard<std::mutex> guard(mLeafLock);
        mFrames.pushBack(std::move(entry));
        mSize.store(size() + 1, std::memory_order_release);
        return size();
    }

    /// Takes the front frame; null when the queue is empty.
    std::unique_ptr<FrameEntry> popFront() {
        const std::lock_guard<std::mutex> guard(mLeafLock);
        return popLocked();
    }

    /// Takes the front frame if it is marked as a peek frame; otherwise null.
    std::unique_ptr<FrameEntry> popFrontPeek() {
        const std::lock_guard<std::mutex> guard(mLeafLock);
        const FrameEntry* const front = mFrames.front();
        return front != nullptr && front->frame.peek ? popLocked() : nullptr;
    }

    /// Marks the front frame as a peek frame; does nothing on an empty queue.
    void markFrontPeek() {
        const std::lock_guard<std::mutex> guard(mLeafLock);
        if (FrameEntry* const front = mFrames.front()) {
            front->frame.peek = true;
        }
    }

    /// Discards every frame at once, so that a flush meanwhile returns none that came after a
    /// discarded one; none is handed back. Frees them outside the leaf lock.
    void clear() {
        FrameList discarded;
        const std::lock_guard<std::mutex> guard(mLeafLock);
        discarded.swap(mFrames);
        mSize.store(0, std::memory_order_release);
    }

    /// The size now; another thread may change it right after.
    size_t size() const { return mSize.load(std::memory_order_acquire); }
    bool empty() const { return size() == 0; }

private:
    std::unique_ptr<FrameEntry> popLocked() KORVANE_REQUIRES(mLeafLock) {
        std::unique_ptr<FrameEntry> entry = mFrames.popFront();
        if (entry != nullptr) {
            mSize.store(size() - 1, std::memory_order_release);
        }
        return entry;
    }

    mutable std::mutex mLeafLock;
    FrameList mFrames KORVANE_GUARDED_BY(mLeafLock);
    // The members of a renderer keep the offsets that they had in version 1.0.
    [[maybe_unused]] void* mReserved = nullptr;
    std::atomic<size_t> mSize{0};
};
