// SPDX-License-Identifier: Apache-2.0
// The real functions: the next definition of each interposed name, which is libc's. The first call
// looks it up. That call may come from another library's constructor, before any of this library
// has run, so each pointer is initialised at compile time, to a function that does the look-up.
#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <mqueue.h>
#include <poll.h>
#include <pthread.h>
#include <pty.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <threads.h>
#include <unistd.h>
#include <utils/Timers.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>

// What glibc's <poll.h>, <unistd.h> and <sys/socket.h> call in programs built with _FORTIFY_SOURCE,
// and what `sigpause` of <signal.h> is called.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
int __poll_chk(pollfd* descriptors, nfds_t count, int timeoutMs, size_t room);
int __ppoll_chk(pollfd* descriptors, nfds_t count, const timespec* timeout,
                const __sigset_t* signals, size_t room);
ssize_t __read_chk(int descriptor, void* data, size_t bytes, size_t room);
ssize_t __recv_chk(int descriptor, void* data, size_t bytes, size_t room, int flags);
ssize_t __recvfrom_chk(int descriptor, void* data, size_t bytes, size_t room, int flags,
                       sockaddr* from, socklen_t* fromBytes);
int __xpg_sigpause(int signal);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace korvane::tv {

/// The next definition of a name after this library's. On older architectures condition variables
/// also exist in an older version; this finds the new one.
inline void* nextDefinition(const char* name) {
    void* found = dlvsym(RTLD_NEXT, name, "GLIBC_2.3.2");
    return found != nullptr ? found : dlsym(RTLD_NEXT, name);
}

/// The same for a function with variable arguments, each of which is a number or a pointer.
template <typename Function>
Function nextVariadic(std::atomic<Function>& found, const char* name) {
    Function call = found.load(std::memory_order_relaxed);
    if (call == nullptr) {
        call = reinterpret_cast<Function>(nextDefinition(name));
        found.store(call, std::memory_order_relaxed);
    }
    return call;
}

template <const char* Name, auto* Declared>
struct Real;

template <const char* Name, typename Result, typename... Arguments, bool NoThrow,
          Result (*Declared)(Arguments...) noexcept(NoThrow)>
struct Real<Name, Declared> {
    using Pointer = Result (*)(Arguments...);

    static Result call(Arguments... arguments) {
        return target.load(std::memory_order_relaxed)(arguments...);
    }

private:
    static Result lookUp(Arguments... arguments) {
        const auto found = reinterpret_cast<Pointer>(nextDefinition(Name));
        if (found == nullptr) {
            abort();  // no libc without it
        }
        target.store(found, std::memory_order_relaxed);
        return found(arguments...);
    }

    static inline std::atomic<Pointer> target{lookUp};
};

namespace real {

// NOLINTBEGIN(bugprone-macro-parentheses): names cannot stand in parentheses here.
#define KORVANE_REAL(function)                            \
    inline constexpr char kName_##function[] = #function; \
    using function = Real<kName_##function, &::function>

KORVANE_REAL(__poll_chk);
KORVANE_REAL(__ppoll_chk);
KORVANE_REAL(__read_chk);
KORVANE_REAL(__recv_chk);
KORVANE_REAL(__recvfrom_chk);
KORVANE_REAL(__xpg_sigpause);
KORVANE_REAL(_Fork);
KORVANE_REAL(accept);
KORVANE_REAL(accept4);
KORVANE_REAL(alarm);
KORVANE_REAL(call_once);
KORVANE_REAL(clock_gettime);
KORVANE_REAL(clock_nanosleep);
KORVANE_REAL(close);
KORVANE_REAL(cnd_broadcast);
KORVANE_REAL(cnd_signal);
KORVANE_REAL(cnd_timedwait);
KORVANE_REAL(cnd_wait);
KORVANE_REAL(connect);
KORVANE_REAL(daemon);
KORVANE_REAL(dup);
KORVANE_REAL(dup2);
KORVANE_REAL(dup3);
KORVANE_REAL(epoll_ctl);
KORVANE_REAL(epoll_pwait);
KORVANE_REAL(epoll_pwait2);
KORVANE_REAL(epoll_wait);
KORVANE_REAL(eventfd_read);
KORVANE_REAL(eventfd_write);
KORVANE_REAL(flock);
KORVANE_REAL(fork);
KORVANE_REAL(forkpty);
KORVANE_REAL(getpriority);
KORVANE_REAL(gettid);
KORVANE_REAL(gettimeofday);
KORVANE_REAL(mq_receive);
KORVANE_REAL(mq_send);
KORVANE_REAL(mq_timedreceive);
KORVANE_REAL(mq_timedsend);
KORVANE_REAL(msgrcv);
KORVANE_REAL(msgsnd);
KORVANE_REAL(mtx_lock);
KORVANE_REAL(mtx_timedlock);
KORVANE_REAL(mtx_trylock);
KORVANE_REAL(mtx_unlock);
KORVANE_REAL(nanosleep);
KORVANE_REAL(pause);
KORVANE_REAL(poll);
KORVANE_REAL(ppoll);
KORVANE_REAL(pselect);
KORVANE_REAL(pthread_barrier_wait);
KORVANE_REAL(pthread_cancel);
KORVANE_REAL(pthread_clockjoin_np);
KORVANE_REAL(pthread_cond_broadcast);
KORVANE_REAL(pthread_cond_clockwait);
KORVANE_REAL(pthread_cond_signal);
KORVANE_REAL(pthread_cond_timedwait);
KORVANE_REAL(pthread_cond_wait);
KORVANE_REAL(pthread_create);
KORVANE_REAL(pthread_detach);
KORVANE_REAL(pthread_exit);
KORVANE_REAL(pthread_getaffinity_np);
KORVANE_REAL(pthread_getattr_np);
KORVANE_REAL(pthread_getcpuclockid);
KORVANE_REAL(pthread_getname_np);
KORVANE_REAL(pthread_getschedparam);
KORVANE_REAL(pthread_join);
KORVANE_REAL(pthread_kill);
KORVANE_REAL(pthread_mutex_clocklock);
KORVANE_REAL(pthread_mutex_lock);
KORVANE_REAL(pthread_mutex_timedlock);
KORVANE_REAL(pthread_mutex_trylock);
KORVANE_REAL(pthread_mutex_unlock);
KORVANE_REAL(pthread_once);
KORVANE_REAL(pthread_rwlock_clockrdlock);
KORVANE_REAL(pthread_rwlock_clockwrlock);
KORVANE_REAL(pthread_rwlock_rdlock);
KORVANE_REAL(pthread_rwlock_timedrdlock);
KORVANE_REAL(pthread_rwlock_timedwrlock);
KORVANE_REAL(pthread_rwlock_tryrdlock);
KORVANE_REAL(pthread_rwlock_trywrlock);
KORVANE_REAL(pthread_rwlock_unlock);
KORVANE_REAL(pthread_rwlock_wrlock);
KORVANE_REAL(pthread_self);
KORVANE_REAL(pthread_setaffinity_np);
KORVANE_REAL(pthread_setname_np);
KORVANE_REAL(pthread_setschedparam);
KORVANE_REAL(pthread_setschedprio);
KORVANE_REAL(pthread_sigqueue);
KORVANE_REAL(pthread_spin_lock);
KORVANE_REAL(pthread_spin_trylock);
KORVANE_REAL(pthread_spin_unlock);
KORVANE_REAL(pthread_timedjoin_np);
KORVANE_REAL(pthread_tryjoin_np);
KORVANE_REAL(read);
KORVANE_REAL(readv);
KORVANE_REAL(recv);
KORVANE_REAL(recvfrom);
KORVANE_REAL(recvmmsg);
KORVANE_REAL(recvmsg);
KORVANE_REAL(sched_getaffinity);
KORVANE_REAL(sched_getparam);
KORVANE_REAL(sched_getscheduler);
KORVANE_REAL(sched_setaffinity);
KORVANE_REAL(sched_setparam);
KORVANE_REAL(sched_setscheduler);
KORVANE_REAL(sched_yield);
KORVANE_REAL(select);
KORVANE_REAL(sem_clockwait);
KORVANE_REAL(sem_post);
KORVANE_REAL(sem_timedwait);
KORVANE_REAL(sem_trywait);
KORVANE_REAL(sem_wait);
KORVANE_REAL(semop);
KORVANE_REAL(semtimedop);
KORVANE_REAL(send);
KORVANE_REAL(sendmmsg);
KORVANE_REAL(sendmsg);
KORVANE_REAL(sendto);
KORVANE_REAL(setitimer);
KORVANE_REAL(setpriority);
KORVANE_REAL(shutdown);
KORVANE_REAL(sigsuspend);
KORVANE_REAL(sigtimedwait);
KORVANE_REAL(sigwait);
KORVANE_REAL(sigwaitinfo);
KORVANE_REAL(sleep);
KORVANE_REAL(splice);
KORVANE_REAL(systemTime);
KORVANE_REAL(tee);
KORVANE_REAL(tgkill);
KORVANE_REAL(thrd_create);
KORVANE_REAL(thrd_current);
KORVANE_REAL(thrd_detach);
KORVANE_REAL(thrd_exit);
KORVANE_REAL(thrd_join);
KORVANE_REAL(thrd_sleep);
KORVANE_REAL(thrd_yield);
KORVANE_REAL(time);
KORVANE_REAL(timer_create);
KORVANE_REAL(timerfd_settime);
KORVANE_REAL(timespec_get);
KORVANE_REAL(ualarm);
KORVANE_REAL(usleep);
KORVANE_REAL(write);
KORVANE_REAL(writev);

#undef KORVANE_REAL
// NOLINTEND(bugprone-macro-parentheses)

}  // namespace real
}  // namespace korvane::tv
