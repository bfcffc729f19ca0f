// SPDX-License-Identifier: Apache-2.0
// The scheduler's mutexes, conditions, futexes and descriptors: the slow paths.
#include <poll.h>

#include "tv/clock/FencePipe.h"
#include "tv/clock/Scheduler.h"

namespace korvane::tv {
namespace {

/// A mutex's kind holds its type and flags; these bits are the type.
constexpr int kTypeBits = 3;
/// Robust, with priority inheritance or protection: their locks are the kernel's.
constexpr int kKernelKinds = 0x70;

/// States of a pthread_once_t, libc's; 0 before.
constexpr int kOnceUnderWay = 1;
constexpr int kOnceDone = 2;

/// Whether a descriptor is ready. The pool knows a fence's state; the kernel all else.
int pollNow(pollfd* descriptors, nfds_t count) {
    const PooledPipe* fence = count == 1 ? pooledPipeAt(descriptors->fd) : nullptr;
    if (fence != nullptr && (descriptors->events & POLLIN) != 0) {
        descriptors->revents = fence->pending ? 0 : POLLIN;
        return fence->pending ? 0 : 1;
    }
    noteKernelAsked(descriptors, count);
    return real::poll::call(descriptors, count, 0);
}

}  // namespace

// ---- mutexes ----

int Scheduler::mutexType(const pthread_mutex_t* mutex) {
    if ((mutex->__data.__kind & kKernelKinds) != 0) {
        failMutex(mutex, "is robust or has priority inheritance, which virtual time does not have");
    }
    return mutex->__data.__kind & kTypeBits;
}

int Scheduler::lockSlowly(pthread_mutex_t* mutex, int64_t deadlineNs, const void* code) {
    maybePreempt(Step::Lock, mutex, code);
    if (holds(mutex)) {
        return lockAgain(mutex);
    }
    if (mOptions.observer != nullptr) {
        mOptions.observer->acquiring(RunObserver::Sync::Mutex, mutex, code);
    }
    if (tryTake(mutex) == 0) {
        acquired(RunObserver::Sync::Mutex, mutex, code);
        return 0;
    }
    if (deadlineNs <= mNowNs) {
        return ETIMEDOUT;
    }
    mutex->__data.__lock = 2;
    // The thread that unlocks hands the mutex over, so that a loop that locks it again does not
    // starve this one.
    const WokenBy by = block(WaitFor::Mutex, mutex, deadlineNs);
    if (by == WokenBy::Deadline) {
        return ETIMEDOUT;
    }
    acquired(RunObserver::Sync::Mutex, mutex, code);
    return 0;
}

int Scheduler::lockAgain(pthread_mutex_t* mutex) {
    switch (mutexType(mutex)) {
        case PTHREAD_MUTEX_RECURSIVE_NP:
            ++mutex->__data.__count;
            return 0;
        case PTHREAD_MUTEX_ERRORCHECK_NP:
            return EDEADLK;
        default:
            failMutex(mutex, "is locked by the thread that holds it already");
    }
}

int Scheduler::tryLock(pthread_mutex_t* mutex, const void* code) {
    if (mOptions.schedule != nullptr) {
        point(Step::Lock, mutex, code);
    }
    const bool again = holds(mutex);
    const int result = tryTake(mutex);
    if (result == 0 && !again) {
        acquired(RunObserver::Sync::Mutex, mutex, code);
    }
    return result;
}

int Scheduler::tryTake(pthread_mutex_t* mutex) {
    const int type = mutexType(mutex);
    if (mutex->__data.__lock != 0) {
        if (type != PTHREAD_MUTEX_RECURSIVE_NP || !holds(mutex)) {
            return EBUSY;
        }
        ++mutex->__data.__count;
        return 0;
    }
    take(mutex, *mCurrent);
    mutex->__data.__count = type == PTHREAD_MUTEX_RECURSIVE_NP ? 1 : 0;
    return 0;
}

int Scheduler::unlockSlowly(pthread_mutex_t* mutex, const void* code) {
    const int result = unlockNow(mutex, code);
    maybePreempt(Step::Unlock, mutex, code);
    return result;
}

int Scheduler::unlockNow(pthread_mutex_t* mutex, const void* code) {
    auto& data = mutex->__data;
    const int type = mutexType(mutex);
    if (!holds(mutex)) {
        if (type == PTHREAD_MUTEX_RECURSIVE_NP || type == PTHREAD_MUTEX_ERRORCHECK_NP) {
            return EPERM;
        }
        failMutex(mutex, "is unlocked by a thread that does not hold it");
    }
    if (type == PTHREAD_MUTEX_RECURSIVE_NP && --data.__count > 0) {
        return 0;
    }
    ordered(RunObserver::Sync::Mutex, mutex, code);
    data.__owner = 0;
    --data.__nusers;
    if (data.__lock == 1) {
        data.__lock = 0;
    } else {
        handOver(mutex);
    }
    return 0;
}

void Scheduler::handOver(pthread_mutex_t* mutex) {
    Fiber* const next = chooseWaiter(mutex);
    if (next == nullptr) {
        mutex->__data.__lock = 0;  // those who waited have given up
        return;
    }
    wake(next);
    take(mutex, *next);
    mutex->__data.__count = mutexType(mutex) == PTHREAD_MUTEX_RECURSIVE_NP ? 1 : 0;
    mutex->__data.__lock = mWaiters.find(mutex) != nullptr ? 2 : 1;
}

// ---- conditions ----

int Scheduler::wait(pthread_cond_t* condition, pthread_mutex_t* mutex, int64_t deadlineNs,
                    const void* code) {
    maybePreempt(Step::Wait, condition, code);
    if (!holds(mutex)) {
        failMutex(mutex, "is given to a wait by a thread that does not hold it");
    }
    unlockNow(mutex, code);
    int result = 0;
    if (deadlineNs <= mNowNs) {
        yield();
        result = ETIMEDOUT;
    } else if (wakesSpuriously()) {
        yield();
    } else if (block(WaitFor::Condition, condition, deadlineNs) == WokenBy::Deadline) {
        result = ETIMEDOUT;
    }
    lock(mutex, kNever, code);
    return result;
}

bool Scheduler::wakesSpuriously() {
    if (mOptions.schedule == nullptr) {
        return mSeed.happens(mOptions.spuriousWakeups);
    }
    return mOptions.schedule->wakesSpuriously(mCurrent->number, ++mCurrent->steps);
}

void Scheduler::signal(pthread_cond_t* condition, const void* code) {
    maybePreempt(Step::Notify, condition, code);
    if (Fiber* const fiber = chooseWaiter(condition)) {
        wake(fiber);
    }
}

void Scheduler::broadcast(pthread_cond_t* condition, const void* code) {
    maybePreempt(Step::Notify, condition, code);
    wakeAll(condition);
}

// ---- futexes ----

int Scheduler::waitForFutex(const int* word, int expected, int64_t deadlineNs) {
    if (__atomic_load_n(word, __ATOMIC_RELAXED) != expected) {
        return EAGAIN;
    }
    if (deadlineNs <= mNowNs) {
        yield();
        return ETIMEDOUT;
    }
    if (block(WaitFor::Futex, word, deadlineNs) == WokenBy::Deadline) {
        return ETIMEDOUT;
    }
    acquired(RunObserver::Sync::Futex, word, nullptr);
    return 0;
}

int Scheduler::wakeFutex(const int* word, int most) {
    ordered(RunObserver::Sync::Futex, word, nullptr);
    int woken = 0;
    for (; woken < most; ++woken) {
        Fiber* const fiber = chooseWaiter(word);
        if (fiber == nullptr) {
            break;
        }
        wake(fiber);
    }
    return woken;
}

int Scheduler::once(pthread_once_t* control, void (*routine)()) {
    while (*control == kOnceUnderWay) {
        block(WaitFor::Futex, control, kNever);
    }
    if (*control == kOnceDone) {
        acquired(RunObserver::Sync::Once, control, nullptr);
        return 0;
    }
    *control = kOnceUnderWay;
    try {
        routine();
    } catch (...) {
        *control = 0;  // the next caller tries again
        wakeAll(control);
        throw;
    }
    ordered(RunObserver::Sync::Once, control, nullptr);
    *control = kOnceDone;
    wakeAll(control);
    return 0;
}

// ---- descriptors ----

void wakePollers() {
    if (gScheduler != nullptr) {
        gScheduler->descriptorsReady();
    }
}

int Scheduler::poll(pollfd* descriptors, nfds_t count, int64_t deadlineNs) {
    return lookUntil(count > 0 ? descriptors[0].fd : -1, deadlineNs,
                     [=] { return pollNow(descriptors, count); });
}

}  // namespace korvane::tv
