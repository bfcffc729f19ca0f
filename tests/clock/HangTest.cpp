// SPDX-License-Identifier: Apache-2.0
// Programs that hang in virtual time: each ends with the status and a report from which the fault
// can be found. They run in processes of their own.
#include <gmock/gmock.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>

#include "tests/clock/InVirtualTime.h"

namespace korvane::test {

// Exported, so that the report can name them.
std::mutex gFirst;
std::mutex gSecond;
std::atomic<uint64_t> gWork{0};

__attribute__((noinline, visibility("default"))) void lockInOrder(std::mutex& one,
                                                                  std::mutex& other) {
    const std::lock_guard<std::mutex> outer(one);
    usleep(1000);
    const std::lock_guard<std::mutex> inner(other);
}

__attribute__((noinline, visibility("default"))) void waitForNobody() {
    std::mutex lock;
    std::condition_variable wake;
    std::unique_lock<std::mutex> guard(lock);
    wake.wait(guard);
}

__attribute__((noinline, visibility("default"))) void computeForGood() {
    for (;;) {
        gWork.fetch_add(1, std::memory_order_relaxed);
    }
}

namespace {

using tv::VirtualTime;
using tv::VirtualTimeOptions;

/// Fewer than usual, so that what does not end is noticed soon.
VirtualTimeOptions impatient() {
    VirtualTimeOptions options;
    options.callsPerInstant = 100'000;
    options.computeSeconds = 1;
    options.longestRunNs = 3600 * kSecond;
    return options;
}

void deadlockByOrder() {
    VirtualTime time(5, impatient());
    std::thread other([] {
        pthread_setname_np(pthread_self(), "other");
        lockInOrder(gSecond, gFirst);
    });
    lockInOrder(gFirst, gSecond);
    other.join();
}

void deadlockByLostNotification() {
    VirtualTime time(6, impatient());
    std::thread(waitForNobody).join();
}

void lockTwice() {
    VirtualTime time(1, impatient());
    std::mutex lock;
    lock.lock();
    lock.lock();
}

void unlockAnothers() {
    VirtualTime time(1, impatient());
    std::mutex lock;
    lock.lock();
    std::thread([&] { lock.unlock(); }).join();
}

void readClockForGood() {
    VirtualTime time(1, impatient());
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(1)) {
    }
}

void yieldForGood() {
    VirtualTime time(1, impatient());
    const std::thread sleeper(usleep, 1000);
    for (;;) {
        std::this_thread::yield();
    }
}

void pollForGood() {
    VirtualTime time(1, impatient());
    for (;;) {
        usleep(500);
    }
}

void compute() {
    VirtualTime time(1, impatient());
    std::thread(computeForGood).join();
}

void leaveWithThread() {
    VirtualTime time(1, impatient());
    std::thread(usleep, 1000).detach();
}

void hangWithHandler() {
    VirtualTimeOptions options = impatient();
    options.onHang = [](const std::string& report) {
        fprintf(stderr, "handler got: %s", report.substr(0, report.find(':', 14)).c_str());
    };
    VirtualTime time(1, options);
    waitForNobody();
}

class HangTest : public InVirtualTime {};

// The name of a std::thread's function in the report: with libc++ only its place is known.
#ifdef __GLIBCXX__
#define GIVEN_FUNCTION "void \\(\\*\\)\\(\\)"
#define GIVEN_LAMBDA "korvane::test::.*unlockAnothers\\(\\)::.lambda\\(\\)#1."
#else
#define GIVEN_FUNCTION "clock_test\\+0x[0-9a-f]+"
#define GIVEN_LAMBDA GIVEN_FUNCTION
#endif

TEST_F(HangTest, EndsTheProcessWithAReportThatNamesTheFault) {
    // `\n` in the middle of a pattern: the rest matches a later line.
    const struct {
        const char* name;
        void (*program)();
        const char* report;
    } cases[] = {
        {"two locks in two orders", deadlockByOrder,
         "deadlock: every thread waits and none has a deadline\nat 12345.001000000 s, seed 5\n"
         "(.|\n)*thread 1 \"main\" waits for mutex 0x[0-9a-f]+, held by thread 2 \"other\", "
         "since 12345.001000000 s\n(.|\n)*from korvane::test::lockInOrder"
         "(.|\n)*thread 2 \"other\" waits for mutex 0x[0-9a-f]+, held by thread 1 \"main\"(.|\n)*"
         "from korvane::test::lockInOrder"},
        {"lost notification", deadlockByLostNotification,
         "thread 1 \"main\" waits for the end of thread 2 \"" GIVEN_FUNCTION
         "\"(.|\n)*waits for condition 0x[0-9a-f]+, since (.|\n)*"
         "from korvane::test::waitForNobody\\(\\)"},
        {"locked twice", lockTwice,
         "mutex 0x[0-9a-f]+, held by thread 1 \"main\", is locked by the thread that holds it "
         "already: thread 1 \"main\""},
        {"unlocked by another", unlockAnothers,
         "held by thread 1 \"main\", is unlocked by a thread that does not hold it: thread 2 "
         "\"" GIVEN_LAMBDA "\""},
        {"waits for a clock that stands still", readClockForGood,
         "busy loop: thread 1 \"main\" keeps asking for the time"},
        {"yields until another thread's sleep ends", yieldForGood, "busy loop: thread 1 \"main\""},
        {"polls for what never comes", pollForGood, "reached the end of the longest run"},
        {"computes without a call", compute,
         "endless computation: thread 2(.|\n)*from .*computeForGood"},
        {"ends while a thread is left", leaveWithThread,
         "virtual time ends while threads are left(.|\n)*thread 2 .* can begin"},
        {"with a handler", hangWithHandler, "handler got: virtual time: deadlock"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EXIT(c.program(), ::testing::ExitedWithCode(tv::kHangStatus), c.report);
    }
}

TEST_F(HangTest, WhatComputesLongButGoesOnIsLeftAlone) {
    VirtualTimeOptions options;
    options.callsPerInstant = 100'000;
    VirtualTime time(1, options);
    for (int round = 0; round < 2; ++round) {
        // The watchdog's timer, up to three quarters of the time that a thread may compute.
        for (int check = 0; check < 3; ++check) {
            raise(SIGPROF);
        }
        for (int call = 0; call < 90'000; ++call) {
            std::chrono::steady_clock::now();
        }
        usleep(1);
    }
}

}  // namespace
}  // namespace korvane::test
