// SPDX-License-Identifier: Apache-2.0
// Locks with annotations for the compiler's thread-safety check, where the C++ library's have none:
// a lock to wait with on a condition, and a shared lock. Elsewhere use std::mutex and
// std::lock_guard.
#pragma once

#include <mutex>
#include <shared_mutex>

#include "include/ThreadAnnotations.h"

namespace korvane::tv {

/// Holds a mutex, except between `unlock` and `lock` and during a wait.
class KORVANE_SCOPED_LOCK WaitLock {
public:
    explicit WaitLock(std::mutex& mutex) KORVANE_ACQUIRE(mutex) : mLock(mutex) {}
    ~WaitLock() KORVANE_RELEASE() {}
    WaitLock(const WaitLock&) = delete;
    WaitLock& operator=(const WaitLock&) = delete;

    void unlock() KORVANE_RELEASE() { mLock.unlock(); }
    void lock() KORVANE_ACQUIRE() { mLock.lock(); }
    /// Argument for a std::condition_variable's wait, after which the mutex is held again.
    std::unique_lock<std::mutex>& forWait() { return mLock; }

private:
    std::unique_lock<std::mutex> mLock;
};

/// Held by one writer or by any number of readers.
class KORVANE_LOCK SharedMutex {
public:
    void lock() KORVANE_ACQUIRE() { mMutex.lock(); }
    void unlock() KORVANE_RELEASE() { mMutex.unlock(); }
    void lockShared() KORVANE_ACQUIRE_SHARED() { mMutex.lock_shared(); }
    void unlockShared() KORVANE_RELEASE_SHARED() { mMutex.unlock_shared(); }

private:
    std::shared_mutex mMutex;
};

/// Holds a SharedMutex as a reader.
class KORVANE_SCOPED_LOCK SharedLock {
public:
    explicit SharedLock(SharedMutex& mutex) KORVANE_ACQUIRE_SHARED(mutex) : mMutex(mutex) {
        mMutex.lockShared();
    }
    ~SharedLock() KORVANE_RELEASE() { mMutex.unlockShared(); }
    SharedLock(const SharedLock&) = delete;
    SharedLock& operator=(const SharedLock&) = delete;

private:
    SharedMutex& mMutex;
};

}  // namespace korvane::tv
