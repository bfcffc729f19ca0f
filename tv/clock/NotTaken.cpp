// SPDX-License-Identifier: Apache-2.0
// The calls that virtual time does not take: they would block its one kernel thread for good, end
// it, or read a fiber as libc's own structure. In virtual time each ends the process with a report
// that names it; in real time it goes on to libc. docs/tv.md lists them.
#include <mqueue.h>
#include <pty.h>
#include <sys/file.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <threads.h>

#include <csignal>

#include "tv/clock/Interpose.h"

using korvane::tv::gScheduler;
using korvane::tv::realTime;
namespace real = korvane::tv::real;

// NOLINTBEGIN(bugprone-macro-parentheses): parameters cannot stand in parentheses here.
/// @param parameters  with `noexcept` where libc's declaration has it
#define KORVANE_NOT_TAKEN(result, function, parameters, arguments) \
    KORVANE_INTERPOSE result function parameters {                 \
        if (!realTime()) {                                         \
            gScheduler->failNotTaken(#function);                   \
        }                                                          \
        return real::function::call arguments;                     \
    }
// NOLINTEND(bugprone-macro-parentheses)

// threads that end, or are ended or signalled
KORVANE_INTERPOSE void pthread_exit(void* result) {
    if (!realTime()) {
        gScheduler->failNotTaken("pthread_exit");
    }
    real::pthread_exit::call(result);
    __builtin_unreachable();
}
KORVANE_NOT_TAKEN(int, pthread_cancel, (pthread_t thread), (thread))
KORVANE_NOT_TAKEN(int, pthread_kill, (pthread_t thread, int signal) noexcept, (thread, signal))
KORVANE_NOT_TAKEN(int, pthread_sigqueue,
                  (pthread_t thread, int signal, const union sigval value) noexcept,
                  (thread, signal, value))
KORVANE_NOT_TAKEN(int, tgkill, (pid_t process, pid_t thread, int signal), (process, thread, signal))
KORVANE_NOT_TAKEN(int, pthread_getcpuclockid, (pthread_t thread, clockid_t* clock) noexcept,
                  (thread, clock))
KORVANE_NOT_TAKEN(int, pthread_barrier_wait, (pthread_barrier_t * barrier) noexcept, (barrier))

// copies of the process, which would hold every fiber instead of the calling one
KORVANE_NOT_TAKEN(pid_t, fork, () noexcept, ())
KORVANE_NOT_TAKEN(pid_t, _Fork, () noexcept, ())
KORVANE_NOT_TAKEN(int, daemon, (int stay, int keep) noexcept, (stay, keep))
KORVANE_NOT_TAKEN(int, forkpty,
                  (int* descriptor, char* name, const termios* terminal,
                   const winsize* window) noexcept,
                  (descriptor, name, terminal, window))

// C11's threads
KORVANE_INTERPOSE void thrd_exit(int result) {
    if (!realTime()) {
        gScheduler->failNotTaken("thrd_exit");
    }
    real::thrd_exit::call(result);
    __builtin_unreachable();
}
KORVANE_NOT_TAKEN(int, thrd_create, (thrd_t * thread, thrd_start_t routine, void* argument),
                  (thread, routine, argument))
KORVANE_NOT_TAKEN(int, thrd_join, (thrd_t thread, int* result), (thread, result))
KORVANE_NOT_TAKEN(int, thrd_detach, (thrd_t thread), (thread))
KORVANE_NOT_TAKEN(thrd_t, thrd_current, (), ())
KORVANE_NOT_TAKEN(int, thrd_sleep, (const timespec* time, timespec* left), (time, left))
KORVANE_NOT_TAKEN(void, thrd_yield, (), ())
KORVANE_NOT_TAKEN(int, mtx_lock, (mtx_t * mutex), (mutex))
KORVANE_NOT_TAKEN(int, mtx_timedlock, (mtx_t * mutex, const timespec* time), (mutex, time))
KORVANE_NOT_TAKEN(int, mtx_trylock, (mtx_t * mutex), (mutex))
KORVANE_NOT_TAKEN(int, mtx_unlock, (mtx_t * mutex), (mutex))
KORVANE_NOT_TAKEN(int, cnd_wait, (cnd_t * condition, mtx_t* mutex), (condition, mutex))
KORVANE_NOT_TAKEN(int, cnd_timedwait, (cnd_t * condition, mtx_t* mutex, const timespec* time),
                  (condition, mutex, time))
KORVANE_NOT_TAKEN(int, cnd_signal, (cnd_t * condition), (condition))
KORVANE_NOT_TAKEN(int, cnd_broadcast, (cnd_t * condition), (condition))
KORVANE_NOT_TAKEN(void, call_once, (once_flag * flag, void (*routine)()), (flag, routine))

// waits for signals, and timers, which go by the host's time
KORVANE_NOT_TAKEN(int, pause, (), ())
KORVANE_NOT_TAKEN(int, sigsuspend, (const sigset_t* signals), (signals))
// NOLINTNEXTLINE(bugprone-reserved-identifier)
KORVANE_INTERPOSE int __xpg_sigpause(int signal) {
    if (!realTime()) {
        gScheduler->failNotTaken("sigpause");
    }
    return real::__xpg_sigpause::call(signal);
}
KORVANE_NOT_TAKEN(int, sigwait, (const sigset_t* signals, int* signal), (signals, signal))
KORVANE_NOT_TAKEN(int, sigwaitinfo, (const sigset_t* signals, siginfo_t* info), (signals, info))
KORVANE_NOT_TAKEN(int, sigtimedwait,
                  (const sigset_t* signals, siginfo_t* info, const timespec* time),
                  (signals, info, time))
KORVANE_NOT_TAKEN(unsigned int, alarm, (unsigned int seconds) noexcept, (seconds))
KORVANE_NOT_TAKEN(useconds_t, ualarm, (useconds_t us, useconds_t interval) noexcept, (us, interval))
KORVANE_NOT_TAKEN(int, timer_create, (clockid_t clock, sigevent* event, timer_t* timer) noexcept,
                  (clock, event, timer))
KORVANE_NOT_TAKEN(int, timerfd_settime,
                  (int timer, int flags, const itimerspec* time, itimerspec* previous) noexcept,
                  (timer, flags, time, previous))

/// Timers of CPU time stay real, as the clocks of it do.
KORVANE_INTERPOSE int setitimer(__itimer_which_t which, const itimerval* time,
                                itimerval* previous) noexcept {
    if (!realTime() && which == ITIMER_REAL) {
        gScheduler->failNotTaken("setitimer");
    }
    return real::setitimer::call(which, time, previous);
}

// queues, semaphores and locks of the kernel's
KORVANE_NOT_TAKEN(ssize_t, msgrcv, (int queue, void* data, size_t bytes, long type, int flags),
                  (queue, data, bytes, type, flags))
KORVANE_NOT_TAKEN(int, msgsnd, (int queue, const void* data, size_t bytes, int flags),
                  (queue, data, bytes, flags))
KORVANE_NOT_TAKEN(ssize_t, mq_receive,
                  (mqd_t queue, char* data, size_t bytes, unsigned int* priority),
                  (queue, data, bytes, priority))
KORVANE_NOT_TAKEN(ssize_t, mq_timedreceive,
                  (mqd_t queue, char* data, size_t bytes, unsigned int* priority,
                   const timespec* time),
                  (queue, data, bytes, priority, time))
KORVANE_NOT_TAKEN(int, mq_send,
                  (mqd_t queue, const char* data, size_t bytes, unsigned int priority),
                  (queue, data, bytes, priority))
KORVANE_NOT_TAKEN(int, mq_timedsend,
                  (mqd_t queue, const char* data, size_t bytes, unsigned int priority,
                   const timespec* time),
                  (queue, data, bytes, priority, time))
KORVANE_NOT_TAKEN(int, semop, (int set, sembuf* operations, size_t count) noexcept,
                  (set, operations, count))
KORVANE_NOT_TAKEN(int, semtimedop,
                  (int set, sembuf* operations, size_t count, const timespec* time) noexcept,
                  (set, operations, count, time))

/// Only a lock that would wait: another fiber may hold it.
KORVANE_INTERPOSE int flock(int descriptor, int operation) noexcept {
    if (realTime() || (operation & LOCK_NB) != 0) {
        return real::flock::call(descriptor, operation);
    }
    const int result = real::flock::call(descriptor, operation | LOCK_NB);
    if (result != 0 && errno == EWOULDBLOCK) {
        gScheduler->failNotTaken("flock");
    }
    return result;
}
