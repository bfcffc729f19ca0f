// SPDX-License-Identifier: Apache-2.0
// Locks that the compiler's check can follow, for what the C++ library leaves without annotations:
// a lock that a condition's wait lets go for its time, and a shared one. For all else there are
// std::mutex and std::lock_guard.
#pragma once

#include <mutex>
#include <shared_mutex>

#include "include/ThreadAnnotations.h"

namespace korvane::tv {

/// Holds a lock, but for the time between `unlock` and `lock` and within a wait.
class KORVANE_SCOPED_LOCK WaitLock {
public:
    explicit WaitLock(std::mutex& mutex) KORVANE_ACQUIRE(mutex) : mLock(mutex) {}
    ~WaitLock() KORVANE_RELEASE() {}
    WaitLock(const WaitLock&) = delete;
    WaitLock& operator=(const WaitLock&) = delete;

    void unlock() KORVANE_RELEASE() { mLock.unlock(); }
    void lock() KORVANE_ACQUIRE() { mLock.lock(); }
    /// What a std::condition_variable's wait takes; after the wait the lock is held as before.
    std::unique_lock<std::mutex>& forWait() { return mLock; }

private:
    std::unique_lock<std::mutex> mLock;
};

/// Held by one that changes, or by any number that only read.
class KORVANE_LOCK SharedMutex {
public:
    void lock() KORVANE_ACQUIRE() { mMutex.lock(); }
    void unlock() KORVANE_RELEASE() { mMutex.unlock(); }
    void lockShared() KORVANE_ACQUIRE_SHARED() { mMutex.lock_shared(); }
    void unlockShared() KORVANE_RELEASE_SHARED() { mMutex.unlock_shared(); }

private:
    std::shared_mutex mMutex;
};

/// Holds a SharedMutex to read.
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
