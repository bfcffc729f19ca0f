// SPDX-License-Identifier: Apache-2.0
// The scheduler of virtual time: which fiber runs, what time it is, which fiber waits for what.
//
// One fiber runs. When it waits, the seed, or a Schedule where one is given, chooses the next of
// those that can run. When none can,
// time jumps to the earliest deadline, and the fibers that wait for it can run. A fiber that sleeps
// while nobody else can run and nobody's deadline is sooner takes the jump itself, without a
// switch.
//
// A mutex's state is in the mutex itself, in libc's own layout and values, so that one that is
// locked while virtual time begins or ends stays valid. `__owner` holds the fiber's id, `__lock` is
// 2 while somebody may wait. Read-write locks, spin locks and semaphores are libc's, taken by its
// try operations. Condition variables are not touched: Waiters has who waits for one.
//
// One instance while virtual time is on. Everything here runs on its one kernel thread.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tv/clock/Deadlines.h"
#include "tv/clock/Fiber.h"
#include "tv/clock/Real.h"
#include "tv/clock/Schedule.h"
#include "tv/clock/Seed.h"
#include "tv/clock/VirtualTime.h"
#include "tv/clock/Waiters.h"

namespace korvane::tv {

#define KORVANE_LIKELY(condition) __builtin_expect(static_cast<bool>(condition), 1)
/// Where the program called libc's name: the place that reports give. As a default argument it is
/// that of the interposed function.
#define KORVANE_CALLER __builtin_return_address(0)

constexpr char kThreadsLeft[] = "virtual time ends while threads are left";

class Scheduler {
public:
    Scheduler(uint64_t seed, const VirtualTimeOptions& options);
    ~Scheduler();
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    // time
    int64_t nowNs() const { return mNowNs; }
    /// A clock read by the program.
    int64_t readNs() {
        spend();
        return mNowNs;
    }
    void sleepUntil(int64_t deadlineNs) {
        if (deadlineNs <= mNowNs) {
            yield();
        } else if (KORVANE_LIKELY(mRunnable.empty() && deadlineNs < mDeadlines.firstNs())) {
            ++mStatistics.waits;
            moveTo(deadlineNs);
        } else {
            block(WaitFor::Time, nullptr, deadlineNs);
        }
    }
    void sleepFor(int64_t ns) { sleepUntil(after(ns)); }
    /// The time so far from now, kNever where that overflows.
    int64_t after(int64_t ns) const { return ns < kNever - mNowNs ? mNowNs + ns : kNever; }
    void yield();

    // threads
    int create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
               void* argument, const void* code = KORVANE_CALLER);
    int join(pthread_t thread, void** result, int64_t deadlineNs,
             const void* code = KORVANE_CALLER);
    /// See VirtualTime::run.
    std::string run(const std::function<void()>& program);
    const std::string& failure() const { return mFailure; }
    int detach(pthread_t thread);
    pthread_t self() const { return handle(*mCurrent); }
    Fiber* find(pthread_t thread) const;
    Fiber& current() { return *mCurrent; }

    // mutexes; results as libc's
    int lock(pthread_mutex_t* mutex, int64_t deadlineNs, const void* code = KORVANE_CALLER) {
        const auto& data = mutex->__data;
        // No call before this, so that the fast path saves no registers.
        if (KORVANE_LIKELY(!mEventful && data.__kind == PTHREAD_MUTEX_TIMED_NP &&
                           data.__lock == 0)) {
            take(mutex, *mCurrent);
            return 0;
        }
        return lockSlowly(mutex, deadlineNs, code);
    }
    int tryLock(pthread_mutex_t* mutex, const void* code = KORVANE_CALLER);
    int unlock(pthread_mutex_t* mutex, const void* code = KORVANE_CALLER) {
        auto& data = mutex->__data;
        if (KORVANE_LIKELY(!mEventful && data.__kind == PTHREAD_MUTEX_TIMED_NP &&
                           data.__lock == 1 && data.__owner == mCurrent->ownerWord)) {
            data.__owner = 0;
            --data.__nusers;
            data.__lock = 0;
            return 0;
        }
        return unlockSlowly(mutex, code);
    }

    // conditions; results as libc's
    int wait(pthread_cond_t* condition, pthread_mutex_t* mutex, int64_t deadlineNs,
             const void* code = KORVANE_CALLER);
    void signal(pthread_cond_t* condition, const void* code = KORVANE_CALLER);
    void broadcast(pthread_cond_t* condition, const void* code = KORVANE_CALLER);

    // read-write locks, futexes and descriptors; results as libc's or the kernel's
    /// @return 0 when woken, else an error number
    int waitForFutex(const int* word, int expected, int64_t deadlineNs);
    /// @return how many were woken
    int wakeFutex(const int* word, int most);
    int once(pthread_once_t* control, void (*routine)());
    /// The kernel's for the first thread, a number of its own for each other.
    int threadId() const { return mCurrent->ownerWord; }
    static bool isIdOfFiber(int threadId) { return threadId >= kFirstOwnerWord; }
    /// The one that runs all fibers.
    pthread_t kernelThread() const { return mKernelThread; }
    /// Waits for a lock that libc's own try operation takes.
    /// @param tryNow  returns EBUSY where it has to be tried again once `object` is released
    template <typename Try>
    int tryUntil(WaitFor what, const void* object, int64_t deadlineNs, const Try& tryNow) {
        int result = tryNow();
        while (result == EBUSY) {
            if (deadlineNs <= mNowNs) {
                return ETIMEDOUT;
            }
            block(what, object, deadlineNs);
            result = tryNow();
        }
        if (result == 0) {
            acquired(syncOf(what), object, nullptr);
        }
        return result;
    }
    /// Those who wait for it try again.
    void released(WaitFor what, const void* object) {
        ordered(syncOf(what), object, nullptr);
        wakeAll(object);
    }
    int poll(pollfd* descriptors, nfds_t count, int64_t deadlineNs);
    /// Checks until something is ready. Only fibers change descriptors, so it checks again whenever
    /// one is closed or written.
    /// @param descriptor  the one that a report names
    /// @param look        returns 0 while nothing is ready
    template <typename Look>
    int lookUntil(int descriptor, int64_t deadlineNs, const Look& look) {
        for (;;) {
            const int result = look();
            if (result != 0 || deadlineNs <= mNowNs) {
                spend();
                if (result != 0) {
                    acquired(RunObserver::Sync::Descriptor, &mDescriptors, nullptr);
                }
                return result;
            }
            mCurrent->descriptor = descriptor;
            block(WaitFor::Descriptor, &mDescriptors, deadlineNs);
        }
    }
    void descriptorsChanged() { wakeAll(&mDescriptors); }
    /// As descriptorsChanged; orders what the caller did so far before the poll that sees it.
    void descriptorsReady() {
        ordered(RunObserver::Sync::Descriptor, &mDescriptors, nullptr);
        descriptorsChanged();
    }
    void closedAgain(int descriptor, const void* code = KORVANE_CALLER) {
        if (mOptions.observer != nullptr) {
            mOptions.observer->closedAgain(descriptor, code);
        }
    }

    // exploring
    /// A point of preemption.
    void point(Step step, const void* object, const void* code, uint32_t bytes = 0) {
        if (mCurrent->undisturbed > 0) {
            return;
        }
        ++mCurrent->steps;
        if (mPoints++ >= mAskFrom) {
            decide({step, bytes, object, code, mCurrent->number, mCurrent->steps, mPoints - 1});
        }
    }
    /// Whether an access of instrumented code is a point.
    bool asksAccess(bool plain) const {
        return mOptions.schedule != nullptr && (!plain || mOptions.plainAccesses);
    }

    // the record
    /// Grows whenever a fiber waits or another one runs. May be read by a signal handler.
    int64_t progress() const { return mStatistics.waits + mStatistics.switches; }
    VirtualTimeStatistics statistics() const;
    std::string dump() const;
    Fiber* byNumber(int32_t number) const;
    /// Ends the process with a report.
    [[noreturn]] void fail(const std::string& what);
    /// The program called what virtual time does not take.
    [[noreturn]] void failNotTaken(const char* call);
    /// Every other fiber has ended and nobody is to join it.
    bool aloneAgain() const;

private:
    /// Kernel thread ids stay below this (they have 22 bits), the bits that libc uses for itself
    /// above.
    static constexpr int kFirstOwnerWord = 1 << 24;

    [[noreturn]] static void run(boost::context::detail::transfer_t from) noexcept;
    void arrive(const boost::context::detail::transfer_t& from);
    [[noreturn]] void finish();

    void spend() {
        if (!KORVANE_LIKELY(--mCallsLeft > 0)) {
            failBusy();
        }
    }
    [[noreturn]] void failBusy();
    void maybePreempt(Step step, const void* object, const void* code) {
        if (!KORVANE_LIKELY(!mEventful)) {
            preempt(step, object, code);
        }
    }
    void preempt(Step step, const void* object, const void* code);
    void decide(const SchedulePoint& point);
    size_t choose(ScheduleChoice::What what, const ThreadList& threads);
    void acquired(RunObserver::Sync what, const void* object, const void* code) {
        if (mOptions.observer != nullptr) {
            mOptions.observer->acquired(what, object, code);
        }
    }
    void ordered(RunObserver::Sync what, const void* object, const void* code) {
        if (mOptions.observer != nullptr) {
            mOptions.observer->released(what, object, code);
        }
    }
    static RunObserver::Sync syncOf(WaitFor what) {
        return what == WaitFor::Semaphore ? RunObserver::Sync::Semaphore
                                          : RunObserver::Sync::OtherLock;
    }

    void moveTo(int64_t timeNs) {
        mNowNs = timeNs;
        mCallsLeft = mOptions.callsPerInstant;
    }
    WokenBy block(WaitFor what, const void* object, int64_t deadlineNs);
    void runAnother();
    size_t chooseRunnable();
    Fiber* takeRunnable(size_t index);
    void noteSwitch(const Fiber& from, const Fiber& to);
    void abandon();
    void jumpToDeadline();
    void switchTo(Fiber* fiber);
    void makeRunnable(Fiber* fiber);
    void wake(Fiber* fiber);
    void wakeAll(const void* object);
    /// One of those who wait for an object; null without any.
    Fiber* chooseWaiter(const void* object);

    pthread_t handle(const Fiber& fiber) const {
        return fiber.routine == nullptr ? mKernelThread : reinterpret_cast<pthread_t>(&fiber);
    }
    void forget(const Fiber* fiber);

    static void take(pthread_mutex_t* mutex, const Fiber& fiber) {
        mutex->__data.__lock = 1;
        mutex->__data.__owner = fiber.ownerWord;
        ++mutex->__data.__nusers;
    }
    bool holds(const pthread_mutex_t* mutex) const {
        return mutex->__data.__lock != 0 && mutex->__data.__owner == mCurrent->ownerWord;
    }
    int lockSlowly(pthread_mutex_t* mutex, int64_t deadlineNs, const void* code);
    int tryTake(pthread_mutex_t* mutex);
    bool wakesSpuriously();
    int lockAgain(pthread_mutex_t* mutex);
    int unlockSlowly(pthread_mutex_t* mutex, const void* code);
    int unlockNow(pthread_mutex_t* mutex, const void* code);
    void handOver(pthread_mutex_t* mutex);
    int mutexType(const pthread_mutex_t* mutex);
    [[noreturn]] void failMutex(const pthread_mutex_t* mutex, const char* what);

    // report (HangReport.cpp)
    std::string describe(const Fiber& fiber) const;
    std::string describeWait(const Fiber& fiber) const;
    std::string describeOwner(const pthread_mutex_t* mutex) const;
    std::string callers(const Fiber& fiber) const;

    // members that the fast path of a sleep touches come first
    int64_t mNowNs;
    int64_t mCallsLeft;
    Fiber* mCurrent = nullptr;
    Deadlines mDeadlines;
    std::vector<Fiber*> mRunnable;
    VirtualTimeStatistics mStatistics;
    const VirtualTimeOptions mOptions;
    const bool mEventful;  ///< locks and notifications are more than themselves
    uint64_t mPoints = 0;
    uint64_t mAskFrom = 0;  ///< the schedule's
    const uint64_t mSeedNumber;
    Seed mSeed;
    Waiters mWaiters;
    Fiber mEnd;  ///< sentinel deadline at `longestRunNs`
    std::vector<std::unique_ptr<Fiber>> mFibers;
    FiberStacks& mStacks;
    std::vector<FiberStack> mKeptStacks;  ///< of ended threads, until the run ends
    Fiber* mEnded = nullptr;              ///< has just ended; its stack is free after the switch
    int64_t mLiving = 0;
    int& mErrno;              ///< the kernel thread's
    void* const mExceptions;  ///< the kernel thread's, as the C++ ABI lays them out
    const pthread_t mKernelThread;
    const char mDescriptors = 0;  ///< its address is the object of all waits for descriptors
    bool mFailing = false;
    bool mAbandoning = false;       ///< `run` is under way
    std::string mFailure;           ///< the report of the hang that ended it
    Fiber* mForced = nullptr;       ///< runs next, by the schedule's decision
    std::vector<int32_t> mNumbers;  ///< of the threads that a schedule chooses from
};

/// Null in real time, and on kernel threads that libc made for itself: their calls are libc's.
extern __thread Scheduler* gScheduler __attribute__((tls_model("initial-exec")));

}  // namespace korvane::tv
