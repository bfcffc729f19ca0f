// SPDX-License-Identifier: Apache-2.0
// The less common waits of libc in virtual time: semaphores, timed locks and joins, spin locks,
// waits for descriptors; and what a thread can find out about itself and its process.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <ctime>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "tests/clock/InVirtualTime.h"

extern "C" int __poll_chk(pollfd*, nfds_t, int, size_t);  // NOLINT(bugprone-reserved-identifier)

namespace korvane::test {
namespace {

using namespace std::chrono_literals;
using tv::VirtualTime;

using WaitsTest = InVirtualTime;

timespec at(clockid_t clock, int64_t inNs) {
    timespec now{};
    clock_gettime(clock, &now);
    const int64_t ns = now.tv_sec * kSecond + now.tv_nsec + inNs;
    return {ns / kSecond, ns % kSecond};
}

TEST_F(WaitsTest, SemaphoresWakeOnePerPostAndKeepDeadlines) {
    VirtualTime time(1);
    sem_t semaphore;
    sem_init(&semaphore, 0, 1);
    EXPECT_EQ(0, sem_wait(&semaphore));
    const timespec soon = at(CLOCK_REALTIME, 10 * kMs);
    EXPECT_EQ(-1, sem_timedwait(&semaphore, &soon));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_EQ(10 * kMs, time.statistics().elapsedNs);
    int passed = 0;
    Threads threads;
    threads.add(3, [&](int) {
        const timespec late = at(CLOCK_MONOTONIC, kSecond);
        EXPECT_EQ(0, sem_clockwait(&semaphore, CLOCK_MONOTONIC, &late));
        ++passed;
    });
    for (int posted = 1; posted <= 3; ++posted) {
        usleep(1000);
        sem_post(&semaphore);
        usleep(1000);
        EXPECT_EQ(posted, passed);
    }
    threads.join();
}

TEST_F(WaitsTest, TimedReadersAndWritersGiveUpOrGetTheLock) {
    VirtualTime time(1);
    std::shared_timed_mutex lock;
    lock.lock();
    Threads threads;
    threads.add(2, [&](int) {
        EXPECT_FALSE(lock.try_lock_for(10ms));
        EXPECT_FALSE(lock.try_lock_shared_for(20ms));
        EXPECT_EQ(30 * kMs, time.statistics().elapsedNs);
        EXPECT_TRUE(lock.try_lock_shared_for(1h));
        EXPECT_EQ(50 * kMs, time.statistics().elapsedNs);
        lock.unlock_shared();
    });
    usleep(50'000);
    lock.unlock();
    threads.join();
}

TEST_F(WaitsTest, SpinLockExcludesWhileItsHolderSleeps) {
    VirtualTime time(1);
    pthread_spinlock_t lock;
    pthread_spin_init(&lock, PTHREAD_PROCESS_PRIVATE);
    Threads threads;
    threads.add(4, [&](int) {
        pthread_spin_lock(&lock);
        usleep(1000);
        pthread_spin_unlock(&lock);
    });
    threads.join();
    EXPECT_EQ(4 * kMs, time.statistics().elapsedNs);
}

TEST_F(WaitsTest, TimedJoinsEndAtTheirDeadline) {
    VirtualTime time(1);
    pthread_t thread{};
    const auto sleeps = [](void*) -> void* { return usleep(50'000), nullptr; };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, sleeps, nullptr));
    EXPECT_EQ(EBUSY, pthread_tryjoin_np(thread, nullptr));
    const timespec soon = at(CLOCK_REALTIME, 10 * kMs);
    EXPECT_EQ(ETIMEDOUT, pthread_timedjoin_np(thread, nullptr, &soon));
    EXPECT_EQ(10 * kMs, time.statistics().elapsedNs);
    const timespec late = at(CLOCK_MONOTONIC, kSecond);
    EXPECT_EQ(0, pthread_clockjoin_np(thread, nullptr, CLOCK_MONOTONIC, &late));
    EXPECT_EQ(50 * kMs, time.statistics().elapsedNs);
}

TEST_F(WaitsTest, ThreadFindsItsStackItsIdAndItsScheduling) {
    VirtualTime time(1);
    const pid_t first = gettid();
    std::thread([first] {
        pthread_attr_t attributes;
        ASSERT_EQ(0, pthread_getattr_np(pthread_self(), &attributes));
        void* bottom = nullptr;
        size_t bytes = 0;
        pthread_attr_getstack(&attributes, &bottom, &bytes);
        const auto* here = reinterpret_cast<const char*>(&attributes);
        EXPECT_TRUE(here > bottom && here < static_cast<char*>(bottom) + bytes);
        static_cast<volatile char*>(bottom)[0] = 1;  // above the guard page
        EXPECT_NE(first, gettid());
        int policy = -1;
        sched_param parameters{};
        cpu_set_t processors;
        EXPECT_EQ(0, pthread_getschedparam(pthread_self(), &policy, &parameters));
        EXPECT_EQ(policy, sched_getscheduler(gettid()));
        EXPECT_EQ(0, sched_getparam(gettid(), &parameters));
        EXPECT_EQ(getpriority(PRIO_PROCESS, 0),
                  getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())));
        EXPECT_EQ(0, pthread_getaffinity_np(pthread_self(), sizeof(processors), &processors));
        EXPECT_EQ(0, pthread_setaffinity_np(pthread_self(), sizeof(processors), &processors));
        EXPECT_EQ(0, pthread_setschedprio(pthread_self(), 1));
    }).join();
}

/// A way to wait until a descriptor can be read, at most so long where the way has a limit.
struct Wait {
    const char* name;
    int (*untilReadable)(int descriptor, int timeoutMs);
    bool timed = true;
};

timespec length(int ms) {
    return {ms / 1000, ms % 1000 * kMs};
}

int byEpoll(int descriptor, int (*wait)(int epoll, epoll_event* event)) {
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event);
    const int result = wait(epoll, &event);
    close(epoll);
    return result;
}

int gTimeoutMs = 0;

fd_set only(int descriptor) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(descriptor, &set);
    return set;
}

const Wait kWaits[] = {
    {"poll",
     [](int descriptor, int ms) {
         pollfd poller{descriptor, POLLIN, 0};
         return poll(&poller, 1, ms);
     }},
    {"__poll_chk",
     [](int descriptor, int ms) {
         pollfd poller{descriptor, POLLIN, 0};
         return __poll_chk(&poller, 1, ms, sizeof(poller));
     }},
    {"ppoll",
     [](int descriptor, int ms) {
         pollfd poller{descriptor, POLLIN, 0};
         const timespec timeout = length(ms);
         return ppoll(&poller, 1, &timeout, nullptr);
     }},
    {"select",
     [](int descriptor, int ms) {
         fd_set set = only(descriptor);
         timeval timeout{0, suseconds_t{1000} * ms};
         return select(descriptor + 1, &set, nullptr, nullptr, &timeout);
     }},
    {"pselect",
     [](int descriptor, int ms) {
         fd_set set = only(descriptor);
         const timespec timeout = length(ms);
         return pselect(descriptor + 1, &set, nullptr, nullptr, &timeout, nullptr);
     }},
    {"epoll_wait",
     [](int descriptor, int ms) {
         gTimeoutMs = ms;
         return byEpoll(descriptor, [](int epoll, epoll_event* e) {
             return epoll_wait(epoll, e, 1, gTimeoutMs);
         });
     }},
    {"epoll_pwait2",
     [](int descriptor, int ms) {
         gTimeoutMs = ms;
         return byEpoll(descriptor, [](int epoll, epoll_event* e) {
             const timespec timeout = length(gTimeoutMs);
             return epoll_pwait2(epoll, e, 1, &timeout, nullptr);
         });
     }},
    {"read",
     [](int descriptor, int) {
         char data[8];
         return read(descriptor, data, sizeof(data)) > 0 ? 1 : -1;
     },
     false},
    {"readv",
     [](int descriptor, int) {
         char data[8];
         const iovec part{data, sizeof(data)};
         return readv(descriptor, &part, 1) > 0 ? 1 : -1;
     },
     false},
};

TEST_F(WaitsTest, EveryWaitForADescriptorEndsWhenAThreadWritesOrAtItsTimeout) {
    std::array<std::array<int, 2>, 3> ends{};  // of a pipe, a pair of sockets, an eventfd
    ASSERT_EQ(0, pipe(ends[0].data()));
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends[1].data()));
    ends[2].fill(eventfd(0, 0));
    for (const auto& [readEnd, writeEnd] : ends) {
        for (const Wait& wait : kWaits) {
            SCOPED_TRACE(wait.name);
            VirtualTime time(1);
            if (wait.timed) {
                EXPECT_EQ(0, wait.untilReadable(readEnd, 10));
                EXPECT_EQ(10 * kMs, time.statistics().elapsedNs);
            }
            std::thread writer([end = writeEnd, &time] {
                usleep(static_cast<useconds_t>(20'000 - time.statistics().elapsedNs / 1000));
                const uint64_t one = 1;
                EXPECT_EQ(8, write(end, &one, sizeof(one)));
            });
            EXPECT_EQ(1, wait.untilReadable(readEnd, 100));
            EXPECT_EQ(20 * kMs, time.statistics().elapsedNs);
            writer.join();
            char rest[8];
            EXPECT_TRUE(!wait.timed || read(readEnd, rest, sizeof(rest)) == 8);
        }
    }
    for (const auto& pair : ends) {
        close(pair[0]);
        close(pair[1]);
    }
}

TEST_F(WaitsTest, OtherProgramsCanBeStarted) {
    VirtualTime time(1);
    std::thread([] {
        const auto exitCode = [](pid_t child) {
            int status = -1;
            return waitpid(child, &status, 0) == child ? WEXITSTATUS(status) : -1;
        };
        char program[] = "false";
        char* const arguments[] = {program, nullptr};
        pid_t child = -1;
        ASSERT_EQ(0, posix_spawnp(&child, program, nullptr, nullptr, arguments, environ));
        EXPECT_EQ(1, exitCode(child));
        child = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork): what is tested
        if (child == 0) {
            execvp(program, arguments);
            _exit(127);
        }
        EXPECT_EQ(1, exitCode(child));
    }).join();
    EXPECT_EQ(0, time.statistics().elapsedNs);
}

/// Threads that libc made past the interposed call are the kernel's: their calls go on to libc.
TEST_F(WaitsTest, ThreadThatIsNoFiberLivesInRealTime) {
    void* const libc = dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD);
    const auto create = reinterpret_cast<decltype(&pthread_create)>(dlsym(libc, "pthread_create"));
    const auto join = reinterpret_cast<decltype(&pthread_join)>(dlsym(libc, "pthread_join"));
    const auto routine = [](void* active) -> void* {
        std::mutex lock;
        const std::lock_guard<std::mutex> guard(lock);
        usleep(1000);
        *static_cast<bool*>(active) = VirtualTime::active();
        return nullptr;
    };
    VirtualTime time(1);
    bool active = true;
    pthread_t thread{};
    ASSERT_EQ(0, create(&thread, nullptr, routine, &active));
    ASSERT_EQ(0, join(thread, nullptr));
    EXPECT_FALSE(active);
    EXPECT_EQ(0, time.statistics().elapsedNs);
    dlclose(libc);
}

}  // namespace
}  // namespace korvane::test
