// SPDX-License-Identifier: Apache-2.0
// The calls by which threads wait for each other, sleep and read the time, under libc's names. In
// real time each goes on to libc; in virtual time to the scheduler. Where libc refuses an argument,
// so does this.
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <utils/Timers.h>

#include <array>
#include <cstdarg>

#include "tv/clock/Scheduler.h"
#include "tv/clock/Signal.h"

#define KORVANE_INTERPOSE extern "C" __attribute__((visibility("default")))

using korvane::tv::Fiber;
using korvane::tv::gScheduler;
using korvane::tv::kNever;
namespace real = korvane::tv::real;

namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int64_t kNsPerUs = 1000;
constexpr int64_t kLongestSeconds = kNever / kNsPerSecond - 1;

/// Real time: the one branch that every call costs.
inline bool realTime() {
    return KORVANE_LIKELY(gScheduler == nullptr);
}

bool isValid(const timespec& time) {
    return time.tv_nsec >= 0 && time.tv_nsec < kNsPerSecond;
}

int64_t toNs(const timespec& time) {
    return time.tv_sec >= kLongestSeconds ? kNever : time.tv_sec * kNsPerSecond + time.tv_nsec;
}

timespec toTimespec(int64_t ns) {
    return {ns / kNsPerSecond, ns % kNsPerSecond};
}

bool showsDate(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE ||
           clock == CLOCK_REALTIME_ALARM || clock == CLOCK_TAI;
}

/// Clocks of used CPU time stay real.
bool isVirtual(clockid_t clock) {
    return showsDate(clock) || clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_RAW ||
           clock == CLOCK_MONOTONIC_COARSE || clock == CLOCK_BOOTTIME ||
           clock == CLOCK_BOOTTIME_ALARM;
}

int64_t epochNs(clockid_t clock) {
    return showsDate(clock) ? korvane::tv::kVirtualEpochNs : 0;
}

/// A clock's time as the scheduler's.
int64_t toDeadlineNs(clockid_t clock, const timespec& time) {
    const int64_t ns = toNs(time);
    return ns == kNever ? kNever : ns - epochNs(clock);
}

/// Which clock a condition's timed wait goes by: an attribute, which libc keeps in this bit.
clockid_t clockOf(const pthread_cond_t& condition) {
    return (condition.__data.__wrefs & 2) != 0 ? CLOCK_MONOTONIC : CLOCK_REALTIME;
}

/// What C++ libraries build futures, atomic waits and the guards of static variables on.
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

/// The next definition of a function with variable arguments; each is a number or a pointer.
template <typename Function>
Function next(std::atomic<Function>& found, const char* name) {
    Function call = found.load(std::memory_order_relaxed);
    if (call == nullptr) {
        call = reinterpret_cast<Function>(korvane::tv::nextDefinition(name));
        found.store(call, std::memory_order_relaxed);
    }
    return call;
}

using SyscallArguments = std::array<void*, 6>;

int toInt(void* argument) {
    return static_cast<int>(reinterpret_cast<intptr_t>(argument));
}

long realSyscall(long number, const SyscallArguments& a) {
    static std::atomic<long (*)(long, ...)> found{nullptr};
    return next(found, "syscall")(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

int realFcntl(int descriptor, int command, void* argument) {
    static std::atomic<int (*)(int, int, ...)> found{nullptr};
    return next(found, "fcntl")(descriptor, command, argument);
}

/// A duplicate takes a number whose descriptor, if there is one, is closed by that.
void noteReplaced(int descriptor, int target) {
    korvane::tv::noteKernelAsked(descriptor);
    korvane::tv::noteKernelAsked(target);
    korvane::tv::noteClosed(target);
    gScheduler->descriptorsChanged();
}

}  // namespace

// ---- the time ----

/// Android's; what the renderer reads, often enough to be spared the way by way of a timespec.
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
    return realTime() ? real::pthread_join::call(thread, result) : gScheduler->join(thread, result);
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

// Whoever asks for a priority gets it; here it means nothing.

KORVANE_INTERPOSE int pthread_setschedparam(pthread_t thread, int policy,
                                            const sched_param* parameters) noexcept {
    return realTime() ? real::pthread_setschedparam::call(thread, policy, parameters) : 0;
}

KORVANE_INTERPOSE int sched_setscheduler(pid_t thread, int policy,
                                         const sched_param* parameters) noexcept {
    return realTime() ? real::sched_setscheduler::call(thread, policy, parameters) : 0;
}

KORVANE_INTERPOSE int setpriority(__priority_which_t which, id_t who, int priority) noexcept {
    return realTime() ? real::setpriority::call(which, who, priority) : 0;
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

// ---- read-write locks; libc's own try operations fit as they are ----

KORVANE_INTERPOSE int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept {
    return realTime() ? real::pthread_rwlock_rdlock::call(lock) : gScheduler->lockForReading(lock);
}

KORVANE_INTERPOSE int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept {
    return realTime() ? real::pthread_rwlock_wrlock::call(lock) : gScheduler->lockForWriting(lock);
}

KORVANE_INTERPOSE int pthread_rwlock_unlock(pthread_rwlock_t* lock) noexcept {
    return realTime() ? real::pthread_rwlock_unlock::call(lock) : gScheduler->unlock(lock);
}

// ---- once, and system calls by number: those on futexes and, by which the guards of static
// variables tell who makes one, the thread's id ----

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

// ---- descriptors: whoever polls looks again when one is closed or written; pipes of signals serve
// again when they are closed, unless the kernel was asked about them ----

KORVANE_INTERPOSE int poll(pollfd* descriptors, nfds_t count, int timeoutMs) {
    return realTime() ? real::poll::call(descriptors, count, timeoutMs)
                      : gScheduler->poll(descriptors, count, timeoutMs);
}

KORVANE_INTERPOSE int ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout,
                            const sigset_t* signals) {
    if (!realTime()) {
        korvane::tv::noteKernelAsked(descriptors, count);
    }
    return real::ppoll::call(descriptors, count, timeout, signals);
}

KORVANE_INTERPOSE int select(int end, fd_set* readable, fd_set* writable, fd_set* exceptional,
                             timeval* timeout) {
    for (int descriptor = 0; !realTime() && readable != nullptr && descriptor < end; ++descriptor) {
        if (FD_ISSET(descriptor, readable)) {
            korvane::tv::noteKernelAsked(descriptor);
        }
    }
    return real::select::call(end, readable, writable, exceptional, timeout);
}

KORVANE_INTERPOSE int epoll_ctl(int epoll, int operation, int descriptor,
                                epoll_event* event) noexcept {
    if (!realTime()) {
        korvane::tv::noteKernelAsked(descriptor);
    }
    return real::epoll_ctl::call(epoll, operation, descriptor, event);
}

KORVANE_INTERPOSE ssize_t read(int descriptor, void* data, size_t bytes) {
    if (!realTime()) {
        korvane::tv::noteKernelAsked(descriptor);
    }
    return real::read::call(descriptor, data, bytes);
}

KORVANE_INTERPOSE int close(int descriptor) {
    const int result = real::close::call(descriptor);
    if (!realTime()) {
        korvane::tv::noteClosed(descriptor);
        gScheduler->descriptorsChanged();
    }
    return result;
}

KORVANE_INTERPOSE ssize_t write(int descriptor, const void* data, size_t bytes) {
    const ssize_t result = real::write::call(descriptor, data, bytes);
    if (!realTime()) {
        gScheduler->descriptorsChanged();
    }
    return result;
}

KORVANE_INTERPOSE int dup(int descriptor) noexcept {
    if (!realTime()) {
        korvane::tv::noteKernelAsked(descriptor);
    }
    return real::dup::call(descriptor);
}

KORVANE_INTERPOSE int dup2(int descriptor, int target) noexcept {
    if (!realTime()) {
        noteReplaced(descriptor, target);
    }
    return real::dup2::call(descriptor, target);
}

KORVANE_INTERPOSE int dup3(int descriptor, int target, int flags) noexcept {
    if (!realTime()) {
        noteReplaced(descriptor, target);
    }
    return real::dup3::call(descriptor, target, flags);
}

KORVANE_INTERPOSE int fcntl(int descriptor, int command, ...) {
    va_list list;
    va_start(list, command);
    void* const argument = va_arg(list, void*);
    va_end(list);
    if (!realTime() && (command == F_DUPFD || command == F_DUPFD_CLOEXEC)) {
        korvane::tv::noteKernelAsked(descriptor);
    }
    return realFcntl(descriptor, command, argument);
}

/// What callers built with 64-bit file offsets call it.
KORVANE_INTERPOSE int fcntl64(int descriptor, int command, ...) __attribute__((alias("fcntl")));
