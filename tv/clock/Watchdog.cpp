// SPDX-License-Identifier: Apache-2.0
#include "tv/clock/Watchdog.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <sys/time.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tv/clock/Scheduler.h"

namespace korvane::tv {
namespace {

/// Checks until the time is up.
constexpr int kChecks = 4;

int64_t gLastProgress = 0;
int gChecksWithout = 0;

void put(const char* text) {
    // A failure here has no remedy.
    (void)!real::write::call(STDERR_FILENO, text, std::strlen(text));
}

/// Must not allocate: the signal may have interrupted the allocator.
void report() {
    const Fiber& fiber = gScheduler->current();
    char line[512];
    std::snprintf(line, sizeof(line),
                  "virtual time: endless computation: thread %d \"%s\" neither waits nor asks for "
                  "the time\n",
                  fiber.number, fiber.routine == nullptr ? "main" : fiber.name.c_str());
    put(line);
    std::array<void*, 32> calls{};
    const int count = backtrace(calls.data(), static_cast<int>(calls.size()));
    for (int i = 0; i < count; ++i) {
        Dl_info info{};
        if (dladdr(calls[static_cast<size_t>(i)], &info) == 0) {
            continue;
        }
        const auto* base = static_cast<char*>(info.dli_fbase);
        const auto* call = static_cast<char*>(calls[static_cast<size_t>(i)]);
        std::snprintf(line, sizeof(line), "      from %s (%s+0x%zx)\n",
                      info.dli_sname != nullptr ? info.dli_sname : "?", info.dli_fname,
                      static_cast<size_t>(call - base));
        put(line);
    }
}

void check(int) {
    if (gScheduler == nullptr) {
        return;
    }
    const int error = errno;
    const int64_t progress = gScheduler->progress();
    gChecksWithout = progress == gLastProgress ? gChecksWithout + 1 : 0;
    gLastProgress = progress;
    if (gChecksWithout >= kChecks) {
        report();
        _exit(kHangStatus);
    }
    errno = error;
}

void setTimer(int64_t intervalUs) {
    itimerval timer{};
    timer.it_interval = {intervalUs / 1'000'000, intervalUs % 1'000'000};
    timer.it_value = timer.it_interval;
    setitimer(ITIMER_PROF, &timer, nullptr);
}

}  // namespace

Watchdog::Watchdog(int seconds) : mOn(seconds > 0) {
    if (!mOn) {
        return;
    }
    void* unused = nullptr;
    backtrace(&unused, 1);  // loads its library, which a signal handler must not do
    gLastProgress = -1;
    gChecksWithout = 0;
    struct sigaction action {};
    action.sa_handler = check;
    action.sa_flags = SA_RESTART;
    sigaction(SIGPROF, &action, &mPrevious);
    setTimer(int64_t{seconds} * 1'000'000 / kChecks);
}

Watchdog::~Watchdog() {
    if (mOn) {
        setTimer(0);
        sigaction(SIGPROF, &mPrevious, nullptr);
    }
}

}  // namespace korvane::tv
