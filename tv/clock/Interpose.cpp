// SPDX-License-Identifier: Apache-2.0
// The calls by which threads wait for each other, sleep, look at each other and read the time,
// under libc's names. In real time each goes on to libc; in virtual time to the scheduler. Where
// libc refuses an argument, so does this.
#include "tv/clock/Interpose.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <utils/Timers.h>

#include <array>
#include <cstdarg>

using korvane::tv::epochNs;
using korvane::tv::Fiber;
using korvane::tv::gScheduler;
using korvane::tv::isValid;
using korvane::tv::kNever;
using korvane::tv::kNsPerSecond;
using korvane::tv::realTime;
using korvane::tv::Scheduler;
using korvane::tv::showsDate;
using korvane::tv::toDeadlineNs;
using korvane::tv::toNs;
using korvane::tv::WaitFor;
namespace real = korvane::tv::real;

namespace {

constexpr int64_t kNsPerUs = 1000;

timespec toTimespec(int64_t ns) {
    return {ns / kNsPerSecond, ns % kNsPerSecond};
}

/// Clocks of used CPU time stay real.
bool isVirtual(clockid_t clock) {
    return showsDate(clock) || clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_RAW ||
           clock == CLOCK_MONOTONIC_COARSE || clock == CLOCK_BOOTTIME ||
           clock == CLOCK_BOOTTIME_ALARM;
}

/// A wait by one of these would never end: CPU time stands still while the process waits. Numbers
/// below 0 are the clocks of given processes and threads.
bool isOfCpuTime(clockid_t clock) {
    return clock == CLOCK_PROCESS_CPUTIME_ID || clock < 0;
}

/// Which clock a condition's timed wait goes by: an attribute, which libc keeps in this bit.
clockid_t clockOf(const pthread_cond_t& condition) {
    return (condition.__data.__wrefs & 2) != 0 ? CLOCK_MONOTONIC : CLOCK_REALTIME;
}

/// The system call on which C++ libraries build futures, atomic waits and the guards of static
/// variables.
struct FutexCall {
    const int* word;
    int operation;
    int value;
    const timespec* time;

    int64_t deadlineNs() const {
        if (time == nullptr) {
            return kNever;
        }
        if ((operation & FUTEX_CMD_MASK) == FUTEX_WAIT) {
            return gScheduler->after(toNs(*time));
        }
        const bool byDate = (operation & FUTEX_CLOCK_REALTIME) != 0;
        return toDeadlineNs(byDate ? CLOCK_REALTIME : CLOCK_MONOTONIC, *time);
    }
};

/// @return as the system call: the number woken, 0, or -1 with errno
long futex(const FutexCall& call) {
    int error = 0;
    switch (call.operation & FUTEX_CMD_MASK) {
        case FUTEX_WAIT:
        case FUTEX_WAIT_BITSET:
            error = gScheduler->waitForFutex(call.word, call.value, call.deadlineNs());
            break;
        case FUTEX_WAKE:
        case FUTEX_WAKE_BITSET:
            return gScheduler->wakeFutex(call.word, call.value);
        default:
            error = ENOSYS;
            break;
    }
    errno = error != 0 ? error : errno;
    return error != 0 ? -1 : 0;
}

using SyscallArguments = std::array<void*, 6>;

int toInt(void* argument) {
    return static_cast<int>(reinterpret_cast<intptr_t>(argument));
}

long realSyscall(long number, const SyscallArguments& a) {
    static std::atomic<long (*)(long, ...)> found{nullptr};
    return korvane::tv::nextVariadic(found, "syscall")(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

/// The kernel's id for any fiber: 0, the calling thread.
pid_t idInKernel(pid_t thread) {
    return !realTime() && Scheduler::isIdOfFiber(thread) ? 0 : thread;
}

/// The kernel thread, whose scheduling parameters are those of every fiber.
template <typename Call>
int onKernelThreadOf(pthread_t thread, const Call& call) {
    if (realTime()) {
        return call(thread);
    }
    return gScheduler->find(thread) != nullptr ? call(gScheduler->kernelThread()) : ESRCH;
}

int joinUntil(pthread_t thread, void** result, clockid_t clock, const timespec& time) {
    return !isValid(time) ? EINVAL : gScheduler->join(thread, result, toDeadlineNs(clock, time));
}

/// @param tryLock  libc's try operation on the lock
template <typename TryLock>
int lockUntil(WaitFor what, pthread_rwlock_t* lock, clockid_t clock, const timespec* time,
              const TryLock& tryLock) {
    if (time != nullptr && !isValid(*time)) {
        return EINVAL;
    }
    const int64_t deadlineNs = time == nullptr ? kNever : toDeadlineNs(clock, *time);
    return gScheduler->tryUntil(what, lock, deadlineNs, [=] { return tryLock(lock); });
}

int lockForReading(pthread_rwlock_t* lock, clockid_t clock, const timespec* time) {
    return lockUntil(WaitFor::ReadLock, lock, clock, time, real::pthread_rwlock_tryrdlock::call);
}

int lockForWriting(pthread_rwlock_t* lock, clockid_t clock, const timespec* time) {
    return lockUntil(WaitFor::WriteLock, lock, clock, time, real::pthread_rwlock_trywrlock::call);
}

/// @return as sem_wait: 0, or -1 with errno
int waitForSemaphore(sem_t* semaphore, clockid_t clock, const timespec* time) {
    const auto tryNow = [semaphore] {
        const bool taken = real::sem_trywait::call(semaphore) == 0;
        return taken ? 0 : (errno == EAGAIN ? EBUSY : errno);
    };
    const bool valid = time == nullptr || isValid(*time);
    const int64_t deadlineNs = time == nullptr ? kNever : toDeadlineNs(clock, *time);
    const int keptErrno = errno;
    const int error =
        valid ? gScheduler->tryUntil(WaitFor::Semaphore, semaphore, deadlineNs, tryNow) : EINVAL;
    errno = error != 0 ? error : keptErrno;
    return error != 0 ? -1 : 0;
}

}  // namespace

// ---- the time ----

/// Android's clock. The renderer reads it so often that converting from a timespec would cost.
KORVANE_INTERPOSE nsecs_t systemTime(int clock) {
    return realTime() || clock != SYSTEM_TIME_MONOTONIC ? real::systemTime::call(clock)
                                                        : gScheduler->readNs();
}

KORVANE_INTERPOSE int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (realTime() || !isVirtual(clock)) {
        return real::clock_gettime::call(clock, time);
    }
    *time = toTimespec(gScheduler->readNs() + epochNs(clock));
    return 0;
}

KORVANE_INTERPOSE int gettimeofday(timeval* time, void* zone) noexcept {
    if (realTime()) {
        return real::gettimeofday::call(time, zone);
    }
    const int64_t us = (gScheduler->readNs() + epochNs(CLOCK_REALTIME)) / kNsPerUs;
    *time = {us / 1'000'000, us % 1'000'000};
    return 0;
}

KORVANE_INTERPOSE int timespec_get(timespec* time, int base) noexcept {
    if (realTime() || base != TIME_UTC) {
        return real::timespec_get::call(time, base);
    }
    clock_gettime(CLOCK_REALTIME, time);
    return base;
}

KORVANE_INTERPOSE time_t time(time_t* seconds) noexcept {
    if (realTime()) {
        return real::time::call(seconds);
    }
    const time_t now = (gScheduler->readNs() + epochNs(CLOCK_REALTIME)) / kNsPerSecond;
    if (seconds != nullptr) {
        *seconds = now;
    }
    return now;
}

// ---- sleeps ----

KORVANE_INTERPOSE int usleep(useconds_t us) {
    if (realTime()) {
        return real::usleep::call(us);
    }
    gScheduler->sleepFor(us * kNsPerUs);
    return 0;
}

KORVANE_INTERPOSE unsigned int sleep(unsigned int seconds) {
    if (realTime()) {
        return real::sleep::call(seconds);
    }
    gScheduler->sleepFor(seconds * kNsPerSecond);
    return 0;
}

KORVANE_INTERPOSE int nanosleep(const timespec* length, timespec* left) {
    if (realTime()) {
        return real::nanosleep::call(length, left);
    }
    if (!isValid(*length) || length->tv_sec < 0) {
        errno = EINVAL;
        return -1;
    }
    gScheduler->sleepFor(toNs(*length));
    return 0;
}

KORVANE_INTERPOSE int clock_nanosleep(clockid_t clock, int flags, const timespec* time,
                                      timespec* left) {
    if (!realTime() && isOfCpuTime(clock)) {
        gScheduler->failNotTaken("clock_nanosleep by a clock of CPU time");
    }
    if (realTime() || !isVirtual(clock)) {
        return real::clock_nanosleep::call(clock, flags, time, left);
    }
    if (!isValid(*time) || time->tv_sec < 0) {
        return EINVAL;
    }
    const bool absolute = (flags & TIMER_ABSTIME) != 0;
    gScheduler->sleepUntil(absolute ? toDeadlineNs(clock, *time) : gScheduler->after(toNs(*time)));
    return 0;
}

KORVANE_INTERPOSE int sched_yield() noexcept {
    if (realTime()) {
        return real::sched_yield::call();
    }
    gScheduler->yield();
    return 0;
}

// ---- threads ----

KORVANE_INTERPOSE int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*routine)(void*), void* argument) noexcept {
    return realTime() ? real::pthread_create::call(thread, attributes, routine, argument)
                      : gScheduler->create(thread, attributes, routine, argument);
}

KORVANE_INTERPOSE int pthread_join(pthread_t thread, void** result) {
    return realTime() ? real::pthread_join::call(thread, result)
                      : gScheduler->join(thread, result, kNever);
}

KORVANE_INTERPOSE int pthread_tryjoin_np(pthread_t thread, void** result) noexcept {
    if (realTime()) {
        return real::pthread_tryjoin_np::call(thread, result);
    }
    const int error = gScheduler->join(thread, result, gScheduler->nowNs());
    return error == ETIMEDOUT ? EBUSY : error;
}

KORVANE_INTERPOSE int pthread_timedjoin_np(pthread_t thread, void** result, const timespec* time) {
    return realTime() ? real::pthread_timedjoin_np::call(thread, result, time)
                      : joinUntil(thread, result, CLOCK_REALTIME, *time);
}

KORVANE_INTERPOSE int pthread_clockjoin_np(pthread_t thread, void** result, clockid_t clock,
                                           const timespec* time) {
    return realTime() ? real::pthread_clockjoin_np::call(thread, result, clock, time)
                      : joinUntil(thread, result, clock, *time);
}

KORVANE_INTERPOSE int pthread_detach(pthread_t thread) noexcept {
    return realTime() ? real::pthread_detach::call(thread) : gScheduler->detach(thread);
}

KORVANE_INTERPOSE pthread_t pthread_self() noexcept {
    return realTime() ? real::pthread_self::call() : gScheduler->self();
}

KORVANE_INTERPOSE int pthread_setname_np(pthread_t thread, const char* name) noexcept {
    if (realTime()) {
        return real::pthread_setname_np::call(thread, name);
    }
    constexpr size_t kLongestName = 15;
    Fiber* const fiber = gScheduler->find(thread);
    const std::string text = name;
    if (fiber == nullptr || text.size() > kLongestName) {
        return fiber == nullptr ? ESRCH : ERANGE;
    }
    fiber->name = text;
    return 0;
}

KORVANE_INTERPOSE int pthread_getname_np(pthread_t thread, char* name, size_t size) noexcept {
    if (realTime()) {
        return real::pthread_getname_np::call(thread, name, size);
    }
    const Fiber* const fiber = gScheduler->find(thread);
    if (fiber == nullptr || size <= fiber->name.size()) {
        return fiber == nullptr ? ESRCH : ERANGE;
    }
    name[fiber->name.copy(name, size)] = '\0';
    return 0;
}

KORVANE_INTERPOSE int pthread_getattr_np(pthread_t thread, pthread_attr_t* attributes) noexcept {
    const Fiber* const fiber = realTime() ? nullptr : gScheduler->find(thread);
    if (realTime() || (fiber != nullptr && fiber->routine == nullptr)) {
        return real::pthread_getattr_np::call(thread, attributes);
    }
    if (fiber == nullptr || fiber->finished) {
        return ESRCH;
    }
    pthread_attr_init(attributes);
    pthread_attr_setdetachstate(
        attributes, fiber->detached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
    return pthread_attr_setstack(attributes, fiber->stack.bottom, fiber->stack.usable());
}

KORVANE_INTERPOSE pid_t gettid() noexcept {
    return realTime() ? real::gettid::call() : gScheduler->threadId();
}

// ---- scheduling: requests are accepted without effect; the kernel thread's values are returned
// ----

KORVANE_INTERPOSE int pthread_setschedparam(pthread_t thread, int policy,
                                            const sched_param* parameters) noexcept {
    return realTime() ? real::pthread_setschedparam::call(thread, policy, parameters) : 0;
}

KORVANE_INTERPOSE int pthread_setschedprio(pthread_t thread, int priority) noexcept {
    return realTime() ? real::pthread_setschedprio::call(thread, priority) : 0;
}

KORVANE_INTERPOSE int pthread_setaffinity_np(pthread_t thread, size_t bytes,
                                             const cpu_set_t* processors) noexcept {
    return realTime() ? real::pthread_setaffinity_np::call(thread, bytes, processors) : 0;
}

KORVANE_INTERPOSE int sched_setscheduler(pid_t thread, int policy,
                                         const sched_param* parameters) noexcept {
    return realTime() ? real::sched_setscheduler::call(thread, policy, parameters) : 0;
}

KORVANE_INTERPOSE int sched_setparam(pid_t thread, const sched_param* parameters) noexcept {
    return realTime() ? real::sched_setparam::call(thread, parameters) : 0;
}

KORVANE_INTERPOSE int sched_setaffinity(pid_t thread, size_t bytes,
                                        const cpu_set_t* processors) noexcept {
    return realTime() ? real::sched_setaffinity::call(thread, bytes, processors) : 0;
}

KORVANE_INTERPOSE int setpriority(__priority_which_t which, id_t who, int priority) noexcept {
    return realTime() ? real::setpriority::call(which, who, priority) : 0;
}

KORVANE_INTERPOSE int pthread_getschedparam(pthread_t thread, int* policy,
                                            sched_param* parameters) noexcept {
    return onKernelThreadOf(thread, [=](pthread_t known) {
        return real::pthread_getschedparam::call(known, policy, parameters);
    });
}

KORVANE_INTERPOSE int pthread_getaffinity_np(pthread_t thread, size_t bytes,
                                             cpu_set_t* processors) noexcept {
    return onKernelThreadOf(thread, [=](pthread_t known) {
        return real::pthread_getaffinity_np::call(known, bytes, processors);
    });
}

KORVANE_INTERPOSE int sched_getscheduler(pid_t thread) noexcept {
    return real::sched_getscheduler::call(idInKernel(thread));
}

KORVANE_INTERPOSE int sched_getparam(pid_t thread, sched_param* parameters) noexcept {
    return real::sched_getparam::call(idInKernel(thread), parameters);
}

KORVANE_INTERPOSE int sched_getaffinity(pid_t thread, size_t bytes,
                                        cpu_set_t* processors) noexcept {
    return real::sched_getaffinity::call(idInKernel(thread), bytes, processors);
}

KORVANE_INTERPOSE int getpriority(__priority_which_t which, id_t who) noexcept {
    const auto known = static_cast<id_t>(idInKernel(static_cast<pid_t>(who)));
    return real::getpriority::call(which, which == PRIO_PROCESS ? known : who);
}

// ---- mutexes ----

KORVANE_INTERPOSE int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    return realTime() ? real::pthread_mutex_lock::call(mutex) : gScheduler->lock(mutex, kNever);
}

KORVANE_INTERPOSE int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
    return realTime() ? real::pthread_mutex_trylock::call(mutex) : gScheduler->tryLock(mutex);
}

KORVANE_INTERPOSE int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    return realTime() ? real::pthread_mutex_unlock::call(mutex) : gScheduler->unlock(mutex);
}

KORVANE_INTERPOSE int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock,
                                              const timespec* time) noexcept {
    if (realTime()) {
        return real::pthread_mutex_clocklock::call(mutex, clock, time);
    }
    return !isValid(*time) ? EINVAL : gScheduler->lock(mutex, toDeadlineNs(clock, *time));
}

KORVANE_INTERPOSE int pthread_mutex_timedlock(pthread_mutex_t* mutex,
                                              const timespec* time) noexcept {
    if (realTime()) {
        return real::pthread_mutex_timedlock::call(mutex, time);
    }
    return !isValid(*time) ? EINVAL : gScheduler->lock(mutex, toDeadlineNs(CLOCK_REALTIME, *time));
}

// ---- conditions ----

KORVANE_INTERPOSE int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    return realTime() ? real::pthread_cond_wait::call(condition, mutex)
                      : gScheduler->wait(condition, mutex, kNever);
}

KORVANE_INTERPOSE int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                             clockid_t clock, const timespec* time) {
    if (realTime()) {
        return real::pthread_cond_clockwait::call(condition, mutex, clock, time);
    }
    return !isValid(*time) ? EINVAL
                           : gScheduler->wait(condition, mutex, toDeadlineNs(clock, *time));
}

KORVANE_INTERPOSE int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                             const timespec* time) {
    if (realTime()) {
        return real::pthread_cond_timedwait::call(condition, mutex, time);
    }
    return !isValid(*time)
               ? EINVAL
               : gScheduler->wait(condition, mutex, toDeadlineNs(clockOf(*condition), *time));
}

KORVANE_INTERPOSE int pthread_cond_signal(pthread_cond_t* condition) noexcept {
    if (realTime()) {
        return real::pthread_cond_signal::call(condition);
    }
    gScheduler->signal(condition);
    return 0;
}

KORVANE_INTERPOSE int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
    if (realTime()) {
        return real::pthread_cond_broadcast::call(condition);
    }
    gScheduler->broadcast(condition);
    return 0;
}

// ---- read-write locks, spin locks and semaphores; libc's own try operations fit as they are ----

KORVANE_INTERPOSE int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept {
    return realTime() ? real::pthread_rwlock_rdlock::call(lock)
                      : lockForReading(lock, CLOCK_REALTIME, nullptr);
}

KORVANE_INTERPOSE int pthread_rwlock_timedrdlock(pthread_rwlock_t* lock,
                                                 const timespec* time) noexcept {
    return realTime() ? real::pthread_rwlock_timedrdlock::call(lock, time)
                      : lockForReading(lock, CLOCK_REALTIME, time);
}

KORVANE_INTERPOSE int pthread_rwlock_clockrdlock(pthread_rwlock_t* lock, clockid_t clock,
                                                 const timespec* time) noexcept {
    return realTime() ? real::pthread_rwlock_clockrdlock::call(lock, clock, time)
                      : lockForReading(lock, clock, time);
}

KORVANE_INTERPOSE int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept {
    return realTime() ? real::pthread_rwlock_wrlock::call(lock)
                      : lockForWriting(lock, CLOCK_REALTIME, nullptr);
}

KORVANE_INTERPOSE int pthread_rwlock_timedwrlock(pthread_rwlock_t* lock,
                                                 const timespec* time) noexcept {
    return realTime() ? real::pthread_rwlock_timedwrlock::call(lock, time)
                      : lockForWriting(lock, CLOCK_REALTIME, time);
}

KORVANE_INTERPOSE int pthread_rwlock_clockwrlock(pthread_rwlock_t* lock, clockid_t clock,
                                                 const timespec* time) noexcept {
    return realTime() ? real::pthread_rwlock_clockwrlock::call(lock, clock, time)
                      : lockForWriting(lock, clock, time);
}

KORVANE_INTERPOSE int pthread_rwlock_unlock(pthread_rwlock_t* lock) noexcept {
    const int result = real::pthread_rwlock_unlock::call(lock);
    if (!realTime()) {
        gScheduler->released(WaitFor::WriteLock, lock);
    }
    return result;
}

KORVANE_INTERPOSE int pthread_spin_lock(pthread_spinlock_t* lock) noexcept {
    return realTime()
               ? real::pthread_spin_lock::call(lock)
               : gScheduler->tryUntil(WaitFor::Spinlock, const_cast<const int*>(lock), kNever,
                                      [lock] { return real::pthread_spin_trylock::call(lock); });
}

KORVANE_INTERPOSE int pthread_spin_unlock(pthread_spinlock_t* lock) noexcept {
    const int result = real::pthread_spin_unlock::call(lock);
    if (!realTime()) {
        gScheduler->released(WaitFor::Spinlock, const_cast<const int*>(lock));
    }
    return result;
}

KORVANE_INTERPOSE int sem_wait(sem_t* semaphore) {
    return realTime() ? real::sem_wait::call(semaphore)
                      : waitForSemaphore(semaphore, CLOCK_REALTIME, nullptr);
}

KORVANE_INTERPOSE int sem_timedwait(sem_t* semaphore, const timespec* time) {
    return realTime() ? real::sem_timedwait::call(semaphore, time)
                      : waitForSemaphore(semaphore, CLOCK_REALTIME, time);
}

KORVANE_INTERPOSE int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* time) {
    return realTime() ? real::sem_clockwait::call(semaphore, clock, time)
                      : waitForSemaphore(semaphore, clock, time);
}

KORVANE_INTERPOSE int sem_post(sem_t* semaphore) noexcept {
    const int result = real::sem_post::call(semaphore);
    if (!realTime()) {
        gScheduler->released(WaitFor::Semaphore, semaphore);
    }
    return result;
}

// ---- once, and two system calls by number: futexes, and the thread's id, by which the guards of
// static variables know who constructs one ----

KORVANE_INTERPOSE int pthread_once(pthread_once_t* control, void (*routine)()) {
    return realTime() ? real::pthread_once::call(control, routine)
                      : gScheduler->once(control, routine);
}

KORVANE_INTERPOSE long syscall(long number, ...) noexcept {
    SyscallArguments a{};
    va_list list;
    va_start(list, number);
    for (void*& argument : a) {
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is; the analyzer loses track.
        argument = va_arg(list, void*);
    }
    va_end(list);
    if (!realTime() && number == SYS_gettid) {
        return gScheduler->threadId();
    }
    if (realTime() || number != SYS_futex) {
        return realSyscall(number, a);
    }
    return futex({static_cast<const int*>(a[0]), toInt(a[1]), toInt(a[2]),
                  static_cast<const timespec*>(a[3])});
}
