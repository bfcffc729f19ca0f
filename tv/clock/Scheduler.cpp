// SPDX-License-Identifier: Apache-2.0
#include "tv/clock/Scheduler.h"

#include <sys/syscall.h>

#include <algorithm>
#include <cstring>

#include "tv/clock/FiberSwitch.h"

namespace korvane::tv {

using boost::context::detail::make_fcontext;
using boost::context::detail::transfer_t;

__thread Scheduler* gScheduler = nullptr;

namespace {

/// The C++ ABI's own; not every C++ library declares it.
extern "C" void* exceptionsOfThisThread() noexcept __asm__("__cxa_get_globals");

}  // namespace

Scheduler::Scheduler(uint64_t seed, const VirtualTimeOptions& options)
    : mNowNs(options.startNs),
      mCallsLeft(options.callsPerInstant),
      mOptions(options),
      mSeedNumber(seed),
      mSeed(seed),
      mErrno(errno),
      mExceptions(exceptionsOfThisThread()),
      mKernelThread(real::pthread_self::call()) {
    auto first = std::make_unique<Fiber>();
    first->number = 1;
    first->ownerWord = static_cast<int>(syscall(SYS_gettid));
    first->started = true;
    first->slots = &fiberSlots();
    mCurrent = first.get();
    mFibers.push_back(std::move(first));
    mDeadlines.reserve(2);
    mDeadlines.add(mEnd, after(options.longestRunNs));
    mStatistics.threads = mStatistics.peakThreads = mLiving = 1;
}

Scheduler::~Scheduler() {
    gFiberSlots = nullptr;
}

// ---- time ----

void Scheduler::yield() {
    spend();
    if (!mRunnable.empty()) {
        makeRunnable(mCurrent);
        runAnother();
    }
}

void Scheduler::preempt() {
    if (!mSeed.happens(mOptions.preemptions)) {
        return;
    }
    const auto choices = static_cast<size_t>(mOptions.longestPreemptionNs) + 1;
    const auto away = static_cast<int64_t>(mSeed.below(choices));
    const int error = errno;  // calls that preempt may not change it
    sleepUntil(mNowNs + away);
    errno = error;
}

/// Time moves on to the earliest deadline; everyone whose deadline that is can then run.
void Scheduler::jumpToDeadline() {
    const int64_t deadlineNs = mDeadlines.firstNs();
    if (deadlineNs == Deadlines::of(mEnd)) {
        fail(mDeadlines.holdsOne()
                 ? "deadlock: every thread waits and none has a deadline"
                 : "virtual time reached the end of the longest run (longestRunNs)");
    }
    moveTo(deadlineNs);
    while (mDeadlines.firstNs() == deadlineNs) {
        mDeadlines.takeFirst([this](Fiber& fiber) {
            fiber.wokenBy = WokenBy::Deadline;
            makeRunnable(&fiber);
        });
    }
}

// ---- waiting and switching ----

/// The calling fiber waits until somebody wakes it or its time comes. A fiber whose time has come
/// stays among the object's waiters until it runs: until then it can still be woken.
WokenBy Scheduler::block(WaitFor what, const void* object, int64_t deadlineNs) {
    Fiber& self = *mCurrent;
    self.waitFor = what;
    self.waitObject = object;
    self.sinceNs = mNowNs;
    if (object != nullptr) {
        mWaiters.add(self);
    }
    if (deadlineNs != kNever) {
        mDeadlines.add(self, deadlineNs);
    }
    ++mStatistics.waits;
    runAnother();
    if (self.waitObject != nullptr) {
        mWaiters.remove(self);
    }
    self.waitFor = WaitFor::Nothing;
    return self.wokenBy;
}

void Scheduler::runAnother() {
    if (mRunnable.empty()) {
        jumpToDeadline();
    }
    const size_t chosen = mRunnable.size() == 1 ? 0 : mSeed.below(mRunnable.size());
    Fiber* const next = mRunnable[chosen];
    mRunnable[chosen] = mRunnable.back();
    mRunnable.pop_back();
    next->runnable = false;
    if (next != mCurrent) {
        switchTo(next);
    }
}

void Scheduler::switchTo(Fiber* fiber) {
    spend();
    ++mStatistics.switches;
    Fiber& self = *mCurrent;
    self.savedErrno = mErrno;
    std::memcpy(&self.savedExceptions, mExceptions, sizeof(self.savedExceptions));
    mCurrent = fiber;
    gFiberSlots = fiber->slots;
    arrive(korvane_switch_fiber(fiber->context, &self));
}

/// The first thing that a fiber does when it runs again, or for the first time.
void Scheduler::arrive(const transfer_t& from) {
    static_cast<Fiber*>(from.data)->context = from.fctx;
    mErrno = mCurrent->savedErrno;
    std::memcpy(mExceptions, &mCurrent->savedExceptions, sizeof(mCurrent->savedExceptions));
    if (Fiber* const ended = std::exchange(mEnded, nullptr)) {
        mStacks.giveBack(std::exchange(ended->stack, {}));
        if (ended->detached) {
            forget(ended);
        }
    }
}

void Scheduler::makeRunnable(Fiber* fiber) {
    if (!fiber->runnable) {
        fiber->runnable = true;
        mRunnable.push_back(fiber);
    }
}

void Scheduler::wake(Fiber* fiber) {
    mWaiters.remove(*fiber);
    if (Deadlines::has(*fiber)) {
        mDeadlines.remove(*fiber);
    }
    fiber->wokenBy = WokenBy::Other;
    makeRunnable(fiber);
}

void Scheduler::wakeAll(const void* object) {
    while (Fiber* const fiber = mWaiters.find(object)) {
        wake(fiber);
    }
}

Fiber* Scheduler::chooseWaiter(const void* object) {
    if (mWaiters.find(object, 1) == nullptr) {
        return mWaiters.find(object);
    }
    return mWaiters.find(object, mSeed.below(mWaiters.count(object)));
}

// ---- threads ----

int Scheduler::create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                      void* argument) {
    size_t stackBytes = FiberStacks::kDefaultBytes;
    int detachState = PTHREAD_CREATE_JOINABLE;
    if (attributes != nullptr) {
        pthread_attr_getstacksize(attributes, &stackBytes);
        pthread_attr_getdetachstate(attributes, &detachState);
    }
    auto fiber = std::make_unique<Fiber>();
    fiber->stack = mStacks.take(stackBytes);
    if (fiber->stack.memory == nullptr) {
        return EAGAIN;
    }
    fiber->number = static_cast<int32_t>(++mStatistics.threads);
    fiber->ownerWord = kFirstOwnerWord + fiber->number;
    fiber->routine = routine;
    fiber->argument = argument;
    fiber->detached = detachState == PTHREAD_CREATE_DETACHED;
    fiber->sinceNs = mNowNs;
    fiber->context = make_fcontext(fiber->stack.top, fiber->stack.usable(), &run);
    mStatistics.peakThreads = std::max(mStatistics.peakThreads, ++mLiving);
    *thread = handle(*fiber);
    mFibers.push_back(std::move(fiber));
    mDeadlines.reserve(mFibers.size() + 1);
    mRunnable.reserve(mFibers.size());
    makeRunnable(mFibers.back().get());
    return 0;
}

/// What leaves a thread's routine by an exception ends the process, as on a kernel thread.
void Scheduler::run(transfer_t from) noexcept {
    Scheduler& scheduler = *gScheduler;
    scheduler.arrive(from);
    Fiber& self = *scheduler.mCurrent;
    self.started = true;
    self.result = self.routine(self.argument);
    scheduler.finish();
}

void Scheduler::finish() {
    mCurrent->finished = true;
    mEnded = mCurrent;
    --mLiving;
    wakeAll(mCurrent);
    runAnother();
    __builtin_unreachable();
}

int Scheduler::join(pthread_t thread, void** result, int64_t deadlineNs) {
    Fiber* const fiber = find(thread);
    if (fiber == nullptr) {
        return ESRCH;
    }
    if (fiber == mCurrent) {
        return EDEADLK;
    }
    if (fiber->detached) {
        return EINVAL;
    }
    while (!fiber->finished) {
        if (deadlineNs <= mNowNs) {
            return ETIMEDOUT;
        }
        block(WaitFor::Join, fiber, deadlineNs);
    }
    if (result != nullptr) {
        *result = fiber->result;
    }
    forget(fiber);
    return 0;
}

int Scheduler::detach(pthread_t thread) {
    Fiber* const fiber = find(thread);
    if (fiber == nullptr) {
        return ESRCH;
    }
    if (fiber->detached) {
        return EINVAL;
    }
    fiber->detached = true;
    if (fiber->finished) {
        forget(fiber);
    }
    return 0;
}

Fiber* Scheduler::find(pthread_t thread) const {
    const auto found = std::find_if(mFibers.begin(), mFibers.end(),
                                    [&](const auto& fiber) { return handle(*fiber) == thread; });
    return found != mFibers.end() ? found->get() : nullptr;
}

Fiber* Scheduler::byNumber(int32_t number) const {
    const auto found = std::find_if(mFibers.begin(), mFibers.end(),
                                    [&](const auto& fiber) { return fiber->number == number; });
    return found != mFibers.end() ? found->get() : nullptr;
}

void Scheduler::forget(const Fiber* fiber) {
    mFibers.erase(std::find_if(mFibers.begin(), mFibers.end(),
                               [&](const auto& other) { return other.get() == fiber; }));
}

bool Scheduler::aloneAgain() const {
    return mFibers.size() == 1;
}

VirtualTimeStatistics Scheduler::statistics() const {
    VirtualTimeStatistics statistics = mStatistics;
    statistics.elapsedNs = mNowNs - mOptions.startNs;
    return statistics;
}

}  // namespace korvane::tv
