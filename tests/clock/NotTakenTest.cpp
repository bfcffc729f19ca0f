// SPDX-License-Identifier: Apache-2.0
// The calls that virtual time does not take: each ends the process with a report that names it, and
// docs/tv.md lists exactly these.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <mqueue.h>
#include <pthread.h>
#include <pty.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <threads.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <ctime>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <thread>

#include "tests/clock/InVirtualTime.h"

/// What <signal.h> makes of `sigpause`, whose declaration says that it is deprecated.
extern "C" int __xpg_sigpause(int signal);  // NOLINT(bugprone-reserved-identifier)

namespace korvane::test {
namespace {

using tv::VirtualTime;

const timespec kTime{};
sigset_t gSignals;
pthread_barrier_t gBarrier;
mtx_t gMutex;
cnd_t gCondition;
once_flag gOnce = ONCE_FLAG_INIT;
int gNumber = 0;
char gText[1];

void lockFileTwice() {
    for (int i = 0; i < 2; ++i) {
        flock(open("/proc/self/exe", O_RDONLY | O_CLOEXEC), LOCK_EX);
    }
}

void lockDescriptionTwice() {
    const std::string path = ::testing::TempDir() + "korvane-lock-" + std::to_string(getpid());
    for (int i = 0; i < 2; ++i) {
        struct flock whole {};
        whole.l_type = F_WRLCK;
        const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        unlink(i == 0 ? "" : path.c_str());
        fcntl(file, F_OFD_SETLKW, &whole);
    }
}

int emptyPipe() {
    int ends[2] = {-1, -1};
    gNumber = pipe(ends);
    return ends[0];
}

int emptySocket() {
    int ends[2] = {-1, -1};
    gNumber = socketpair(AF_UNIX, SOCK_DGRAM, 0, ends);
    return ends[0];
}

void fillPipe() {
    int ends[2];
    const std::array<char, 1 << 17> more{};
    gNumber = pipe(ends);
    EXPECT_EQ(1, write(ends[1], more.data(), 1));
    EXPECT_EQ(0, write(ends[1], more.data(), more.size()));
}

const struct {
    const char* name;
    void (*call)();
} kCalls[] = {
    {"pthread_exit", [] { pthread_exit(nullptr); }},
    {"pthread_cancel", [] { pthread_cancel(pthread_self()); }},
    {"pthread_kill", [] { pthread_kill(pthread_self(), 0); }},
    {"pthread_sigqueue", [] { pthread_sigqueue(pthread_self(), 0, {}); }},
    {"tgkill", [] { tgkill(getpid(), gettid(), 0); }},
    {"pthread_getcpuclockid", [] { pthread_getcpuclockid(pthread_self(), &gNumber); }},
    {"pthread_barrier_wait", [] { pthread_barrier_wait(&gBarrier); }},
    {"fork", [] { fork(); }},
    {"_Fork", [] { _Fork(); }},
    {"daemon", [] { gNumber = daemon(1, 1); }},
    {"forkpty", [] { forkpty(&gNumber, nullptr, nullptr, nullptr); }},
    {"thrd_exit", [] { thrd_exit(0); }},
    {"thrd_create", [] { thrd_create(nullptr, nullptr, nullptr); }},
    {"thrd_join", [] { thrd_join(pthread_self(), nullptr); }},
    {"thrd_detach", [] { thrd_detach(pthread_self()); }},
    {"thrd_current", [] { thrd_current(); }},
    {"thrd_sleep", [] { thrd_sleep(&kTime, nullptr); }},
    {"thrd_yield", [] { thrd_yield(); }},
    {"mtx_lock", [] { mtx_lock(&gMutex); }},
    {"mtx_timedlock", [] { mtx_timedlock(&gMutex, &kTime); }},
    {"mtx_trylock", [] { mtx_trylock(&gMutex); }},
    {"mtx_unlock", [] { mtx_unlock(&gMutex); }},
    {"cnd_wait", [] { cnd_wait(&gCondition, &gMutex); }},
    {"cnd_timedwait", [] { cnd_timedwait(&gCondition, &gMutex, &kTime); }},
    {"cnd_signal", [] { cnd_signal(&gCondition); }},
    {"cnd_broadcast", [] { cnd_broadcast(&gCondition); }},
    {"call_once", [] { call_once(&gOnce, [] {}); }},
    {"pause", [] { pause(); }},
    {"sigsuspend", [] { sigsuspend(&gSignals); }},  // NOLINT(concurrency-mt-unsafe)
    {"sigpause", [] { __xpg_sigpause(SIGUSR1); }},
    {"sigwait", [] { sigwait(&gSignals, &gNumber); }},
    {"sigwaitinfo", [] { sigwaitinfo(&gSignals, nullptr); }},
    {"sigtimedwait", [] { sigtimedwait(&gSignals, nullptr, &kTime); }},
    {"alarm", [] { alarm(1); }},
    {"ualarm", [] { ualarm(1, 0); }},
    {"setitimer", [] { setitimer(ITIMER_REAL, nullptr, nullptr); }},
    {"timer_create", [] { timer_create(CLOCK_MONOTONIC, nullptr, nullptr); }},
    {"timerfd_settime", [] { timerfd_settime(-1, 0, nullptr, nullptr); }},
    {"clock_nanosleep", [] { clock_nanosleep(CLOCK_PROCESS_CPUTIME_ID, 0, &kTime, nullptr); }},
    {"msgrcv", [] { msgrcv(-1, nullptr, 0, 0, 0); }},
    {"msgsnd", [] { msgsnd(-1, nullptr, 0, 0); }},
    {"mq_receive", [] { mq_receive(-1, gText, 0, nullptr); }},
    {"mq_timedreceive", [] { mq_timedreceive(-1, gText, 0, nullptr, &kTime); }},
    {"mq_send", [] { mq_send(-1, gText, 0, 0); }},
    {"mq_timedsend", [] { mq_timedsend(-1, gText, 0, 0, &kTime); }},
    {"semop", [] { semop(-1, nullptr, 0); }},
    {"semtimedop", [] { semtimedop(-1, nullptr, 0, &kTime); }},
    {"flock", lockFileTwice},
    {"fcntl", lockDescriptionTwice},
    {"write", fillPipe},
    {"recvmmsg", [] { recvmmsg(emptySocket(), nullptr, 0, 0, nullptr); }},
    {"splice", [] { splice(emptyPipe(), nullptr, emptyPipe(), nullptr, 1, 0); }},
    {"tee", [] { tee(emptyPipe(), emptyPipe(), 1, 0); }},
};

using NotTakenTest = InVirtualTime;

TEST_F(NotTakenTest, EachEndsTheProcessAndIsNamed) {
    for (const auto& c : kCalls) {
        EXPECT_EXIT(
            {
                VirtualTime time(1);
                std::thread(c.call).join();
            },
            ::testing::ExitedWithCode(tv::kHangStatus),
            std::string("virtual time: ") + c.name + "[a-zA-Z ]* is not available: called by .*2")
            << c.name;
    }
}

TEST_F(NotTakenTest, TheManualListsThem) {
    std::set<std::string> called;
    for (const auto& c : kCalls) {
        called.insert(c.name);
    }
    std::set<std::string> listed;
    std::ifstream manual(KORVANE_MANUAL);
    std::string line;
    while (std::getline(manual, line) && line.rfind("| not taken |", 0) != 0) {
    }
    const std::regex name("`(\\w+)`");
    while (std::getline(manual, line) && !line.empty()) {
        const std::string column = line.substr(0, line.find('|', 1));
        for (std::sregex_iterator i(column.begin(), column.end(), name), end; i != end; ++i) {
            listed.insert((*i)[1]);
        }
    }
    EXPECT_EQ(called, listed);
}

/// They are libc's in real time: a thread exits with a value, another is cancelled.
TEST(NotTakenInRealTime, GoOnToLibc) {
    pthread_t thread{};
    void* result = nullptr;
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr, [](void* argument) -> void* { pthread_exit(argument); },
                     &gNumber));
    EXPECT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(&gNumber, result);
    const auto sleeps = [](void*) -> void* {
        for (;;) {
            sleep(1);  // NOLINT(concurrency-mt-unsafe): a point of cancellation
        }
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, sleeps, nullptr));
    EXPECT_EQ(0, pthread_cancel(thread));
    EXPECT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
}

}  // namespace
}  // namespace korvane::test
