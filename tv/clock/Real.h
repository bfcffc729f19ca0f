// SPDX-License-Identifier: Apache-2.0
// The functions that stand behind ours: each name's next definition, libc's. It is looked up by the
// first call, which may come from another library's constructor before any of ours has run; so the
// pointers are constants of the program until then, and lead to the look-up.
#pragma once

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>
#include <utils/Timers.h>

#include <atomic>
#include <cstdlib>
#include <ctime>

namespace korvane::tv {

/// The next definition of a name after this library's. Condition variables have an old and a new
/// form on processors older than that change; the new one is meant.
inline void* nextDefinition(const char* name) {
    void* found = dlvsym(RTLD_NEXT, name, "GLIBC_2.3.2");
    return found != nullptr ? found : dlsym(RTLD_NEXT, name);
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

KORVANE_REAL(clock_gettime);
KORVANE_REAL(clock_nanosleep);
KORVANE_REAL(close);
KORVANE_REAL(dup);
KORVANE_REAL(dup2);
KORVANE_REAL(dup3);
KORVANE_REAL(epoll_ctl);
KORVANE_REAL(gettimeofday);
KORVANE_REAL(nanosleep);
KORVANE_REAL(poll);
KORVANE_REAL(ppoll);
KORVANE_REAL(pthread_cond_broadcast);
KORVANE_REAL(pthread_cond_clockwait);
KORVANE_REAL(pthread_cond_signal);
KORVANE_REAL(pthread_cond_timedwait);
KORVANE_REAL(pthread_cond_wait);
KORVANE_REAL(pthread_create);
KORVANE_REAL(pthread_detach);
KORVANE_REAL(pthread_getname_np);
KORVANE_REAL(pthread_join);
KORVANE_REAL(pthread_mutex_clocklock);
KORVANE_REAL(pthread_mutex_lock);
KORVANE_REAL(pthread_mutex_timedlock);
KORVANE_REAL(pthread_mutex_trylock);
KORVANE_REAL(pthread_mutex_unlock);
KORVANE_REAL(pthread_once);
KORVANE_REAL(pthread_rwlock_rdlock);
KORVANE_REAL(pthread_rwlock_tryrdlock);
KORVANE_REAL(pthread_rwlock_trywrlock);
KORVANE_REAL(pthread_rwlock_unlock);
KORVANE_REAL(pthread_rwlock_wrlock);
KORVANE_REAL(pthread_self);
KORVANE_REAL(pthread_setname_np);
KORVANE_REAL(pthread_setschedparam);
KORVANE_REAL(read);
KORVANE_REAL(sched_setscheduler);
KORVANE_REAL(sched_yield);
KORVANE_REAL(select);
KORVANE_REAL(setpriority);
KORVANE_REAL(sleep);
KORVANE_REAL(systemTime);
KORVANE_REAL(time);
KORVANE_REAL(usleep);
KORVANE_REAL(write);

#undef KORVANE_REAL
// NOLINTEND(bugprone-macro-parentheses)

}  // namespace real
}  // namespace korvane::tv
