// SPDX-License-Identifier: Apache-2.0
// Threads, locks, conditions, sleeps and clocks in virtual time, through the names that any program
// uses. Each test enters and leaves; nothing takes real time.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <ui/Fence.h>
#include <unistd.h>
#include <utils/Timers.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/clock/InVirtualTime.h"
#include "tv/clock/FencePipe.h"
#include "tv/clock/FiberLocal.h"
#include "tv/clock/Seed.h"

namespace korvane::test {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using tv::VirtualTime;

using VirtualTimeTest = InVirtualTime;

/// Threads with the same deadlines, in the order in which they wake.
std::string orderOfEqualSleepers(uint64_t seed) {
    VirtualTime time(seed);
    std::string order;
    Threads threads;
    threads.add(8, [&order](int i) {
        for (int round = 0; round < 2; ++round) {
            usleep(1000);
            order += "abcdefgh"[i];
        }
    });
    threads.join();
    return order;
}

TEST_F(VirtualTimeTest, SleepersWakeAtTheirDeadlines) {
    VirtualTime time(1);
    std::vector<int64_t> wokenMs;
    Threads threads;
    threads.add(9, [&](int i) {
        const int ms = 10 + i * 50 % 90;
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        EXPECT_EQ(tv::kVirtualStartNs + ms * kMs, time.nowNs());
        wokenMs.push_back(ms);
    });
    threads.join();
    EXPECT_THAT(wokenMs, ElementsAre(10, 20, 30, 40, 50, 60, 70, 80, 90));
    EXPECT_EQ(10, time.statistics().threads);
    EXPECT_EQ(10, time.statistics().peakThreads);
    EXPECT_EQ(90 * kMs, time.statistics().elapsedNs);
}

/// Threads that sleep at different paces, often to the same deadline, and waits that others end
/// early: each wakes on time.
TEST_F(VirtualTimeTest, MeetingSleepersAndEndedWaitsKeepEveryDeadline) {
    constexpr int kThreads = 40;
    constexpr int kRounds = 500;
    VirtualTime time(1);
    std::mutex lock;
    std::condition_variable wake;
    int late = 0;
    Threads threads;
    threads.add(kThreads, [&](int i) {
        tv::Seed seed(static_cast<uint64_t>(i));
        for (int round = 0; round < kRounds; ++round) {
            const auto us = static_cast<int64_t>(seed.below(8) * 250 + 250);
            const int64_t dueNs = time.nowNs() + us * 1000;
            if (i % 4 != 0) {
                usleep(static_cast<useconds_t>(us));
                late += time.nowNs() != dueNs ? 1 : 0;
                wake.notify_one();
                continue;
            }
            std::unique_lock<std::mutex> guard(lock);
            const bool ended =
                wake.wait_for(guard, std::chrono::microseconds(us)) == std::cv_status::no_timeout;
            late += ended ? (time.nowNs() > dueNs ? 1 : 0) : (time.nowNs() != dueNs ? 1 : 0);
        }
    });
    threads.join();
    EXPECT_EQ(0, late);
}

TEST_F(VirtualTimeTest, OrderAtOneInstantFollowsFromTheSeed) {
    const std::string first = orderOfEqualSleepers(7);
    EXPECT_EQ(first, orderOfEqualSleepers(7));
    EXPECT_NE(first, orderOfEqualSleepers(8));
    // The same on every processor and with every library; changes only when the rules do.
    EXPECT_EQ("fdhecgabacbdehfg", first);
}

TEST_F(VirtualTimeTest, EveryClockShowsVirtualTimeAndStandsStill) {
    const int64_t realBefore = systemTime(SYSTEM_TIME_MONOTONIC);
    {
        VirtualTime time(1);
        const auto steady = std::chrono::steady_clock::now();
        EXPECT_EQ(tv::kVirtualStartNs, systemTime(SYSTEM_TIME_MONOTONIC));
        EXPECT_EQ(std::chrono::nanoseconds(tv::kVirtualStartNs), steady.time_since_epoch());
        const int64_t date = tv::kVirtualEpochNs + tv::kVirtualStartNs;
        EXPECT_EQ(date, systemTime(SYSTEM_TIME_REALTIME));
        EXPECT_EQ(date / kSecond, ::time(nullptr));
        timeval day{};
        gettimeofday(&day, nullptr);
        EXPECT_EQ(date / 1000, day.tv_sec * 1'000'000 + day.tv_usec);
        std::this_thread::sleep_until(steady + 24h);
        EXPECT_EQ(24h, std::chrono::steady_clock::now() - steady);
    }
    EXPECT_FALSE(VirtualTime::active());
    EXPECT_EQ(0, VirtualTime::threadNumber());
    std::thread(usleep, 2000).join();
    const int64_t realSpent = systemTime(SYSTEM_TIME_MONOTONIC) - realBefore;
    EXPECT_GE(realSpent, 2 * kMs);
    EXPECT_LT(realSpent, 3600 * kSecond);
}

TEST_F(VirtualTimeTest, EverySleepTakesItsTime) {
    VirtualTime time(1);
    const timespec half{0, 500'000'000};
    const timespec day{(tv::kVirtualEpochNs + tv::kVirtualStartNs) / kSecond + 5, 0};
    const timespec invalid{0, 1'000'000'000};
    nanosleep(&half, nullptr);
    usleep(500'000);
    sleep(1);  // NOLINT(concurrency-mt-unsafe): one of those that are tested
    clock_nanosleep(CLOCK_MONOTONIC, 0, &half, nullptr);
    EXPECT_EQ(2500 * kMs, time.statistics().elapsedNs);
    clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &day, nullptr);
    EXPECT_EQ(5 * kSecond, time.statistics().elapsedNs);
    EXPECT_EQ(-1, nanosleep(&invalid, nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0, time.statistics().switches);
}

TEST_F(VirtualTimeTest, MutexIsHandedToThoseWhoWait) {
    VirtualTime time(3);
    std::mutex lock;
    int inside = 0;
    Threads threads;
    threads.add(5, [&](int) {
        for (int round = 0; round < 20; ++round) {
            const std::lock_guard<std::mutex> guard(lock);
            EXPECT_EQ(1, ++inside);
            usleep(100);
            --inside;
        }
    });
    usleep(50);
    lock.lock();  // though each of the others locks again at once
    EXPECT_LE(time.statistics().elapsedNs, 5 * kMs);
    lock.unlock();
    threads.join();
    EXPECT_EQ(100 * 100'000, time.statistics().elapsedNs);
}

TEST_F(VirtualTimeTest, TimedAndRecursiveLocks) {
    std::recursive_timed_mutex lock;
    lock.lock();  // in real time; stays held while virtual time begins
    {
        VirtualTime time(1);
        lock.lock();
        std::thread other([&] {
            EXPECT_FALSE(lock.try_lock());
            EXPECT_FALSE(lock.try_lock_for(30ms));
            EXPECT_EQ(30 * kMs, time.statistics().elapsedNs);
            EXPECT_TRUE(lock.try_lock_for(1h));
            EXPECT_EQ(50 * kMs, time.statistics().elapsedNs);
            lock.lock();
            lock.unlock();
            lock.unlock();
        });
        usleep(50'000);
        lock.unlock();
        lock.unlock();
        other.join();
        lock.lock();
    }
    EXPECT_TRUE(std::async(std::launch::async, [&] { return !lock.try_lock(); }).get());
    lock.unlock();
}

TEST_F(VirtualTimeTest, ReadersShareAndWritersExclude) {
    VirtualTime time(5);
    std::shared_mutex lock;
    Threads threads;
    threads.add(3, [&](int) {
        const std::shared_lock<std::shared_mutex> guard(lock);
        usleep(1000);
    });
    usleep(500);
    threads.add(2, [&](int) {
        const std::unique_lock<std::shared_mutex> guard(lock);
        usleep(1000);
    });
    threads.join();
    EXPECT_EQ(3 * kMs, time.statistics().elapsedNs);
}

TEST_F(VirtualTimeTest, ConditionWaitEndsByNotificationOrDeadline) {
    struct {
        const char* name;
        int64_t notifiedMs;
        int64_t timeoutMs;
        std::cv_status result;
    } const cases[] = {
        {"notified in time", 20, 100, std::cv_status::no_timeout},
        {"too late", 200, 100, std::cv_status::timeout},
        {"deadline has passed", 20, -5, std::cv_status::timeout},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        VirtualTime time(1);
        std::mutex lock;
        std::condition_variable wake;
        std::thread notifier([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(c.notifiedMs));
            wake.notify_one();
        });
        std::unique_lock<std::mutex> guard(lock);
        EXPECT_EQ(c.result, wake.wait_for(guard, std::chrono::milliseconds(c.timeoutMs)));
        EXPECT_FALSE(lock.try_lock());
        const int64_t endMs = std::max<int64_t>(std::min(c.notifiedMs, c.timeoutMs), 0);
        EXPECT_EQ(endMs * kMs, time.statistics().elapsedNs);
        notifier.join();
    }
}

TEST_F(VirtualTimeTest, NotificationAtTheDeadlineGoesEitherWay) {
    int byCause[2] = {0, 0};
    for (uint64_t seed = 0; seed < 64; ++seed) {
        VirtualTime time(seed);
        std::mutex lock;
        std::condition_variable wake;
        std::thread notifier([&] {
            usleep(1000);
            wake.notify_one();
        });
        const timespec end{tv::kVirtualStartNs / kSecond, kMs};
        lock.lock();
        // Not by wait_for, which looks at the clock instead of at the cause.
        const int result = pthread_cond_clockwait(wake.native_handle(), lock.native_handle(),
                                                  CLOCK_MONOTONIC, &end);
        ++byCause[result == ETIMEDOUT ? 1 : 0];
        lock.unlock();
        notifier.join();
    }
    EXPECT_GT(byCause[0], 10);
    EXPECT_GT(byCause[1], 10);
}

TEST_F(VirtualTimeTest, DeadlinesByDateAndByAttributeHold) {
    VirtualTime time(1);
    std::mutex lock;
    std::condition_variable wake;
    std::unique_lock<std::mutex> guard(lock);
    wake.wait_until(guard, std::chrono::system_clock::now() + 3s);
    EXPECT_EQ(3 * kSecond, time.statistics().elapsedNs);

    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_t monotonic;
    pthread_cond_init(&monotonic, &attributes);
    const timespec end{tv::kVirtualStartNs / kSecond + 5, 0};
    EXPECT_EQ(ETIMEDOUT, pthread_cond_timedwait(&monotonic, lock.native_handle(), &end));
    EXPECT_EQ(5 * kSecond, time.statistics().elapsedNs);
    pthread_cond_destroy(&monotonic);
}

TEST_F(VirtualTimeTest, OneNotificationWakesOneAndABroadcastAll) {
    VirtualTime time(9);
    std::mutex lock;
    std::condition_variable wake;
    int woken = 0;
    Threads threads;
    threads.add(6, [&](int) {
        std::unique_lock<std::mutex> guard(lock);
        wake.wait(guard);
        ++woken;
    });
    usleep(1);
    wake.notify_one();
    wake.notify_one();
    usleep(1);
    EXPECT_EQ(2, woken);
    wake.notify_all();
    threads.join();
    EXPECT_EQ(6, woken);
}

TEST_F(VirtualTimeTest, WaitsEndWithoutCauseOnlyWhenAskedFor) {
    for (const uint32_t often : {0U, 65536U}) {
        tv::VirtualTimeOptions options;
        options.spuriousWakeups = often;
        VirtualTime time(1, options);
        std::mutex lock;
        std::condition_variable wake;
        std::unique_lock<std::mutex> guard(lock);
        const bool noCause = wake.wait_for(guard, 1ms) == std::cv_status::no_timeout;
        EXPECT_EQ(often != 0, noCause);
    }
}

/// A flag that is tested, and then waited for, without the lock that its setter takes.
bool notificationIsLost(uint64_t seed, uint32_t preemptions) {
    tv::VirtualTimeOptions options;
    options.preemptions = preemptions;
    options.longestPreemptionNs = 2 * kMs;
    VirtualTime time(seed, options);
    std::mutex lock;
    std::condition_variable wake;
    bool ready = false;
    std::thread setter([&] {
        usleep(500);
        ready = true;
        wake.notify_one();
    });
    bool lost = false;
    std::unique_lock<std::mutex> guard(lock);
    if (!ready) {
        lost = wake.wait_for(guard, 1s) == std::cv_status::timeout;
    }
    setter.join();
    return lost;
}

TEST_F(VirtualTimeTest, PreemptionFindsALostNotification) {
    int lost = 0;
    for (uint64_t seed = 0; seed < 50; ++seed) {
        EXPECT_FALSE(notificationIsLost(seed, 0));
        lost += notificationIsLost(seed, 20'000) ? 1 : 0;
        EXPECT_EQ(notificationIsLost(seed, 20'000), notificationIsLost(seed, 20'000));
    }
    EXPECT_GT(lost, 0);
}

TEST_F(VirtualTimeTest, JoinAndDetach) {
    VirtualTime time(1);
    pthread_t thread{};
    const auto routine = [](void* argument) -> void* {
        usleep(2000);
        return static_cast<char*>(argument) + 1;
    };
    char text[] = "ab";
    ASSERT_EQ(0, pthread_create(&thread, nullptr, routine, text));
    void* result = nullptr;
    EXPECT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(text + 1, result);
    EXPECT_EQ(2 * kMs, time.statistics().elapsedNs);
    EXPECT_EQ(ESRCH, pthread_join(thread, nullptr));
    EXPECT_EQ(EDEADLK, pthread_join(pthread_self(), nullptr));
    std::thread(usleep, 1000).detach();
    usleep(2000);
    EXPECT_EQ(3, time.statistics().threads);
    EXPECT_EQ(2, time.statistics().peakThreads);
}

TEST_F(VirtualTimeTest, ThreadsKeepErrnoExceptionsNamesAndLocals) {
    static const tv::FiberLocal<int> local;
    VirtualTime time(1);
    Threads threads;
    threads.add(4, [](int i) {
        const std::string name = "worker" + std::to_string(i);
        pthread_setname_np(pthread_self(), name.c_str());
        EXPECT_EQ(0, local.get());
        local.get() = errno = i;
        try {
            throw std::runtime_error(name);
        } catch (const std::exception&) {
            usleep(static_cast<useconds_t>(100 * (4 - i)));  // the others throw and catch
            EXPECT_EQ(i, errno);
            try {
                throw;
            } catch (const std::exception& again) {
                EXPECT_EQ(name, again.what());
            }
        }
        EXPECT_EQ(0, std::uncaught_exceptions());
        EXPECT_EQ(i, local.get());
        EXPECT_EQ(name, VirtualTime::threadName(VirtualTime::threadNumber()));
    });
    threads.join();
    EXPECT_EQ(0, local.get());
}

TEST_F(VirtualTimeTest, WhatIsDoneOnceIsWaitedFor) {
    VirtualTime time(1);
    std::once_flag once;
    int done = 0;
    const auto slowly = [&] {
        usleep(1000);
        return ++done;
    };
    Threads threads;
    threads.add(3, [&](int) {
        static const int variable = slowly();
        EXPECT_EQ(1, variable);
        std::call_once(once, slowly);
        EXPECT_EQ(2, done);
    });
    threads.join();
    EXPECT_EQ(2 * kMs, time.statistics().elapsedNs);
}

TEST_F(VirtualTimeTest, FenceWaitsInVirtualTime) {
    VirtualTime time(1);
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const android::sp<android::Fence> fence = new android::Fence(ends[0]);
    EXPECT_EQ(-ETIME, fence->wait(1000));
    EXPECT_EQ(1000 * kMs, time.statistics().elapsedNs);
    EXPECT_EQ(-ETIME, fence->wait(0));
    std::thread display([end = ends[1]] {
        usleep(16'000);
        close(end);
    });
    EXPECT_EQ(0, fence->wait(1000));
    EXPECT_EQ(1016 * kMs, time.statistics().elapsedNs);
    EXPECT_EQ(0, fence->wait(android::Fence::TIMEOUT_NEVER));
    display.join();
}

/// The kernel's answer, asked without virtual time noticing.
bool kernelSaysReady(int descriptor) {
    pollfd poller{descriptor, POLLIN, 0};
    const timespec atOnce{};
    return syscall(SYS_ppoll, &poller, 1, &atOnce, nullptr, 0) == 1;
}

bool isReady(int descriptor) {
    pollfd poller{descriptor, POLLIN, 0};
    return poll(&poller, 1, 0) == 1;
}

ino_t pipeOf(int descriptor) {
    struct stat file {};
    EXPECT_EQ(0, fstat(descriptor, &file));
    return file.st_ino;
}

struct TakenFence {
    explicit TakenFence(tv::FencePipes& pipes) {
        EXPECT_EQ(0, pipes.make(&sender, &taken));
        EXPECT_EQ(O_RDONLY, fcntl(taken, F_GETFL));
        EXPECT_FALSE(isReady(taken));
    }
    void raise() { sender = tv::FencePipe(); }

    tv::FencePipe sender;
    int taken = -1;
};

TEST_F(VirtualTimeTest, FencePipeIsUsedAgainWhenItsTakerHasClosed) {
    VirtualTime time(1);
    tv::FencePipes pipes;
    TakenFence first(pipes);
    const ino_t pipe = pipeOf(first.taken);
    TakenFence beside(pipes);
    EXPECT_NE(pipe, pipeOf(beside.taken));
    first.raise();
    EXPECT_TRUE(isReady(first.taken));
    EXPECT_FALSE(isReady(beside.taken));
    close(first.taken);
    TakenFence early(pipes);
    EXPECT_EQ(pipe, pipeOf(early.taken));
    close(early.taken);  // before it comes
    early.raise();
    TakenFence last(pipes);
    EXPECT_EQ(pipe, pipeOf(last.taken));
    close(last.taken);
    close(beside.taken);
}

/// However the kernel is asked about a fence, before it signals or after, it answers what is true.
TEST_F(VirtualTimeTest, FenceThatTheKernelIsAskedAboutShowsThere) {
    constexpr int kTarget = 500;
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    // each asks, and returns another descriptor of the fence, if it makes one
    const std::vector<std::pair<const char*, std::function<int(int)>>> ways = {
        {"dup", [](int taken) { return dup(taken); }},
        {"dup2", [](int taken) { return dup2(taken, kTarget); }},
        {"dup3", [](int taken) { return dup3(taken, kTarget, O_CLOEXEC); }},
        {"F_DUPFD", [](int taken) { return fcntl(taken, F_DUPFD, kTarget); }},
        {"F_DUPFD_CLOEXEC", [](int taken) { return fcntl(taken, F_DUPFD_CLOEXEC, 0); }},
        {"poll of two",
         [](int taken) {
             std::array<pollfd, 2> pollers{{{taken, POLLIN, 0}, {taken, POLLIN, 0}}};
             poll(pollers.data(), pollers.size(), 0);
             return -1;
         }},
        {"ppoll of two",
         [](int taken) {
             std::array<pollfd, 2> pollers{{{taken, POLLIN, 0}, {taken, POLLIN, 0}}};
             const timespec atOnce{};
             ppoll(pollers.data(), pollers.size(), &atOnce, nullptr);
             return -1;
         }},
        {"select",
         [](int taken) {
             fd_set readable;
             FD_ZERO(&readable);
             FD_SET(taken, &readable);
             timeval atOnce{};
             select(taken + 1, &readable, nullptr, nullptr, &atOnce);
             return -1;
         }},
        {"epoll",
         [epoll](int taken) {
             epoll_event event{};
             event.events = EPOLLIN;
             epoll_ctl(epoll, EPOLL_CTL_ADD, taken, &event);
             return -1;
         }},
    };
    VirtualTime time(1);
    for (const bool raisedFirst : {false, true}) {
        for (const auto& [name, ask] : ways) {
            SCOPED_TRACE(std::string(name) + (raisedFirst ? ", after the fence signalled" : ""));
            tv::FencePipes pipes;
            TakenFence first(pipes);
            if (raisedFirst) {
                first.raise();
            }
            const int duplicate = ask(first.taken);
            const int asked = duplicate >= 0 ? duplicate : first.taken;
            EXPECT_EQ(raisedFirst, kernelSaysReady(asked));
            first.raise();
            EXPECT_TRUE(kernelSaysReady(asked));
            if (duplicate >= 0) {
                close(first.taken);
                EXPECT_TRUE(kernelSaysReady(duplicate));
            }
            TakenFence second(pipes);
            EXPECT_NE(pipeOf(asked), pipeOf(second.taken));
            EXPECT_EQ(second.taken, dup2(asked, second.taken));  // closes what had the number
            EXPECT_TRUE(isReady(second.taken));
            close(second.taken);
            close(asked);
        }
    }
    close(epoll);
}

TEST_F(VirtualTimeTest, ReadOfAFenceThatSignalledFindsItsEnd) {
    VirtualTime time(1);
    tv::FencePipes pipes;
    TakenFence fence(pipes);
    fence.raise();
    char byte = 0;
    EXPECT_EQ(0, read(fence.taken, &byte, 1));
    close(fence.taken);
}

TEST_F(VirtualTimeTest, FencesOutliveVirtualTimeAndLeaveNothingOpen) {
    const auto open = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = open();
    {
        tv::FencePipes pipes;
        auto time = std::make_unique<VirtualTime>(1);
        TakenFence fence(pipes);
        TakenFence raised(pipes);
        raised.raise();
        time.reset();
        EXPECT_TRUE(kernelSaysReady(raised.taken));
        close(raised.taken);
        EXPECT_FALSE(kernelSaysReady(fence.taken));
        fence.raise();
        EXPECT_TRUE(kernelSaysReady(fence.taken));
        close(fence.taken);
    }
    EXPECT_EQ(before, open());
}

TEST_F(VirtualTimeTest, RefusesToBeginBesideAnotherThreadOrTwice) {
    const auto reason = [] {
        try {
            VirtualTime time(1);
            return std::string("began");
        } catch (const std::runtime_error& refused) {
            return std::string(refused.what());
        }
    };
    std::promise<void> end;
    std::thread other([&] { end.get_future().wait(); });
    EXPECT_THAT(reason(), HasSubstr("the process has 2 threads"));
    end.set_value();
    other.join();
    VirtualTime time(1);
    EXPECT_THAT(reason(), HasSubstr("already on"));
}

TEST(VirtualTimeUnavailable, SaysSo) {
    if (VirtualTime::available()) {
        GTEST_SKIP() << "this build has virtual time";
    }
    EXPECT_THROW(VirtualTime(1), std::runtime_error);
    EXPECT_FALSE(VirtualTime::active());
}

}  // namespace
}  // namespace korvane::test
