// SPDX-License-Identifier: Apache-2.0
// The renderer's input queue: frames received and not yet taken.
//
// New frames go to the back; the drain thread, `flush` and the first-frame peek take from the
// front. The renderer orders these with its input lock, but by design `flush` and the peek checks
// read or empty the queue without it. So each operation here is atomic under the queue's own leaf
// lock, held for a few pointer moves and never across a call out: every frame leaves the queue
// exactly once. One list entry is allocated per frame, outside that lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <list>
#include <mutex>

#include "ThreadAnnotations.h"
#include "VideoFrame.h"

/// All operations may be called from any thread.
class VideoFrameQueue {
public:
    /// Appends a frame. There is no bound.
    /// @return the number of frames then queued
    size_t pushBack(const videoframe& frame) {
        std::list<videoframe> entry(1, frame);
        const std::lock_guard<std::mutex> guard(mLeafLock);
        mFrames.splice(mFrames.end(), entry);
        return publishSize();
    }

    /// Takes the front frame.
    /// @return false when the queue is empty; `*frame` is then untouched
    bool popFront(videoframe* frame) {
        return popFrontIf(frame, [](const videoframe&) { return true; });
    }

    /// Takes the front frame if it is marked as a peek frame.
    bool popFrontPeek(videoframe* frame) {
        return popFrontIf(frame, [](const videoframe& front) { return front.peek; });
    }

    /// Marks the front frame as a peek frame; does nothing on an empty queue.
    void markFrontPeek() {
        const std::lock_guard<std::mutex> guard(mLeafLock);
        if (!mFrames.empty()) {
            mFrames.front().peek = true;
        }
    }

    /// Discards every frame; none is handed back.
    void clear() {
        std::list<videoframe> discarded;
        const std::lock_guard<std::mutex> guard(mLeafLock);
        discarded.swap(mFrames);
        publishSize();
    }

    /// The size now; another thread may change it right after.
    size_t size() const { return mSize.load(std::memory_order_acquire); }
    bool empty() const { return size() == 0; }

private:
    template <typename Predicate>
    bool popFrontIf(videoframe* frame, Predicate wanted) {
        std::list<videoframe> entry;
        const std::lock_guard<std::mutex> guard(mLeafLock);
        if (mFrames.empty() || !wanted(mFrames.front())) {
            return false;
        }
        entry.splice(entry.begin(), mFrames, mFrames.begin());
        publishSize();
        *frame = entry.front();
        return true;
    }

    size_t publishSize() KORVANE_REQUIRES(mLeafLock) {
        const size_t size = mFrames.size();
        mSize.store(size, std::memory_order_release);
        return size;
    }

    mutable std::mutex mLeafLock;
    std::list<videoframe> mFrames KORVANE_GUARDED_BY(mLeafLock);
    std::atomic<size_t> mSize{0};
};
