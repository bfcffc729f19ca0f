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
      mEventful(options.preemptions != 0 || options.schedule != nullptr ||
                options.observer != nullptr),
      mSeedNumber(seed),
      mSeed(seed),
      mStacks(FiberStacks::kept()),
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
    if (mOptions.observer != nullptr) {
        mOptions.observer->began(mCurrent->number);
    }
    if (mOptions.schedule != nullptr) {
        mAskFrom = mOptions.schedule->askFrom();
    }
}

Scheduler::~Scheduler() {
    for (const auto& fiber : mFibers) {
        mStacks.giveBack(fiber->stack);
    }
    for (const FiberStack& stack : mKeptStacks) {
        mStacks.giveBack(stack);
    }
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

void Scheduler::preempt(Step step, const void* object, const void* code) {
    if (mOptions.schedule != nullptr) {
        point(step, object, code);
        return;
    }
    if (mCurrent->undisturbed > 0 || !mSeed.happens(mOptions.preemptions)) {
        return;
    }
    const auto choices = static_cast<size_t>(mOptions.longestPreemptionNs) + 1;
    const auto away = static_cast<int64_t>(mSeed.below(choices));
    const int error = errno;  // calls that preempt may not change it
    sleepUntil(mNowNs + away);
    errno = error;
}

/// The schedule decides whether the running thread goes on.
void Scheduler::decide(const SchedulePoint& point) {
    mNumbers.clear();
    for (const Fiber* fiber : mRunnable) {
        mNumbers.push_back(fiber->number);
    }
    const Preemption decided =
        mOptions.schedule->preempt(point, {mNumbers.data(), mNumbers.size()});
    mAskFrom = mOptions.schedule->askFrom();
    const auto next = std::find(mNumbers.begin(), mNumbers.end(), decided.next);
    const bool found = next != mNumbers.end();
    if (decided.awayNs == Preemption::kStay || (decided.awayNs == 0 && !found)) {
        return;
    }
    const int error = errno;
    mForced = found ? mRunnable[static_cast<size_t>(next - mNumbers.begin())] : nullptr;
    if (decided.awayNs > 0) {
        block(WaitFor::Time, nullptr, after(decided.awayNs));
    } else {
        yield();
    }
    errno = error;
}

size_t Scheduler::choose(ScheduleChoice::What what, const ThreadList& threads) {
    const size_t chosen =
        mOptions.schedule->choose({what, mCurrent->number, ++mCurrent->steps, threads});
    mAskFrom = mOptions.schedule->askFrom();
    return chosen;
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
    size_t chosen = 0;
    if (mForced != nullptr) {
        const auto forced = std::find(mRunnable.begin(), mRunnable.end(), mForced);
        chosen = static_cast<size_t>(forced - mRunnable.begin());
        mForced = nullptr;
    } else if (mRunnable.size() > 1) {
        chosen = chooseRunnable();
    }
    Fiber* const next = takeRunnable(chosen);
    if (next != mCurrent) {
        switchTo(next);
    }
}

size_t Scheduler::chooseRunnable() {
    if (mOptions.schedule == nullptr) {
        return mSeed.below(mRunnable.size());
    }
    mNumbers.clear();
    for (const Fiber* fiber : mRunnable) {
        mNumbers.push_back(fiber->number);
    }
    return choose(ScheduleChoice::What::Runnable, {mNumbers.data(), mNumbers.size()});
}

/// A schedule gets the threads in the order in which they became able to run; the seed needs no
/// order.
Fiber* Scheduler::takeRunnable(size_t index) {
    Fiber* const taken = mRunnable[index];
    if (mOptions.schedule != nullptr) {
        mRunnable.erase(mRunnable.begin() + static_cast<std::ptrdiff_t>(index));
    } else {
        mRunnable[index] = mRunnable.back();
        mRunnable.pop_back();
    }
    taken->runnable = false;
    return taken;
}

void Scheduler::switchTo(Fiber* fiber) {
    spend();
    ++mStatistics.switches;
    Fiber& self = *mCurrent;
    if (mEventful) {
        noteSwitch(self, *fiber);
    }
    self.savedErrno = mErrno;
    std::memcpy(&self.savedExceptions, mExceptions, sizeof(self.savedExceptions));
    mCurrent = fiber;
    gFiberSlots = fiber->slots;
    arrive(korvane_switch_fiber(fiber->context, &self));
}

void Scheduler::noteSwitch(const Fiber& from, const Fiber& to) {
    constexpr uint64_t kPrime = 0x100000001b3;
    mStatistics.trace = (mStatistics.trace ^ from.steps) * kPrime;
    mStatistics.trace = (mStatistics.trace ^ static_cast<uint64_t>(to.number)) * kPrime;
    if (mOptions.observer != nullptr) {
        mOptions.observer->switched(to.number);
    }
}

/// The first thing that a fiber does when it runs again, or for the first time.
void Scheduler::arrive(const transfer_t& from) {
    static_cast<Fiber*>(from.data)->context = from.fctx;
    mErrno = mCurrent->savedErrno;
    std::memcpy(mExceptions, &mCurrent->savedExceptions, sizeof(mCurrent->savedExceptions));
    if (Fiber* const ended = std::exchange(mEnded, nullptr)) {
        // Else an observer would take the next thread on this stack for the one that ended.
        const FiberStack stack = std::exchange(ended->stack, {});
        if (mOptions.observer == nullptr) {
            mStacks.giveBack(stack);
        } else {
            mKeptStacks.push_back(stack);
        }
        if (ended->detached) {
            forget(ended);
        }
    }
}

void Scheduler::makeRunnable(Fiber* fiber) {
    if (!fiber->runnable) {
        fiber->runnable = true;
        mRunnable.push_back(fiber);
        if (mOptions.schedule != nullptr) {
            mOptions.schedule->becameRunnable(fiber->number);
            mAskFrom = mOptions.schedule->askFrom();
        }
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
    const size_t count = mWaiters.count(object);
    if (mOptions.schedule == nullptr) {
        return mWaiters.find(object, mSeed.below(count));
    }
    mNumbers.clear();
    for (size_t i = 0; i < count; ++i) {
        mNumbers.push_back(mWaiters.find(object, i)->number);
    }
    return mWaiters.find(object, choose(ScheduleChoice::What::Waiter, {mNumbers.data(), count}));
}

// ---- threads ----

int Scheduler::create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                      void* argument, const void* code) {
    maybePreempt(Step::Thread, nullptr, code);
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
    Fiber* const made = mFibers.back().get();
    if (mOptions.observer != nullptr) {
        mOptions.observer->created(made->number, mCurrent->number);
    }
    makeRunnable(made);
    return 0;
}

/// An exception that leaves a thread's routine ends the process, as on a kernel thread.
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

int Scheduler::join(pthread_t thread, void** result, int64_t deadlineNs, const void* code) {
    maybePreempt(Step::Thread, nullptr, code);
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
    if (mOptions.observer != nullptr) {
        mOptions.observer->joined(fiber->number, mCurrent->number);
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
    return mFibers.size() == 1 || !mFailure.empty();
}

std::string Scheduler::run(const std::function<void()>& program) {
    pthread_t thread{};
    const auto routine = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    create(&thread, nullptr, routine, const_cast<std::function<void()>*>(&program));
    mAbandoning = true;
    Fiber* const fiber = find(thread);
    fiber->name = "program";
    while (mFailure.empty() && !fiber->finished) {
        block(WaitFor::Join, fiber, kNever);
    }
    if (mFailure.empty()) {
        join(thread, nullptr, kNever);
        if (!aloneAgain()) {
            mFailure = kThreadsLeft + ("\n" + dump());
        }
    }
    mAbandoning = false;
    return mFailure.substr(0, mFailure.find('\n'));
}

/// Out of a hang, back into `run`; the calling fiber never runs again.
void Scheduler::abandon() {
    Fiber* const first = mFibers.front().get();
    if (first == mCurrent) {
        return;
    }
    mCallsLeft = mOptions.callsPerInstant;
    switchTo(first);
    __builtin_unreachable();
}

VirtualTimeStatistics Scheduler::statistics() const {
    VirtualTimeStatistics statistics = mStatistics;
    statistics.points = mPoints;
    statistics.elapsedNs = mNowNs - mOptions.startNs;
    return statistics;
}

}  // namespace korvane::tv
