// SPDX-License-Identifier: Apache-2.0
// The TV's clock in virtual mode: while a VirtualTime exists, the process runs in virtual time.
//
// All threads of the process become fibers on one kernel thread. Time stands still while one of
// them can run; when all wait, it jumps to the earliest deadline. The calls by which threads wait
// for each other or read the time (docs/tv.md lists them) are defined by libkorvane_tv.so, which
// precedes libc and libstdc++ in symbol lookup; so the same binaries run in both modes.
//
// The seed decides which of several threads goes first and which of several waiters is woken: same
// program, same input, same seed, same run.
//
// A program that hangs ends. When every thread waits and none has a deadline, when threads stay
// busy while time stands still, when a mutex is misused or a call is not available, a report names
// each thread, what it waits for and from where, and the process exits with kHangStatus.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#define KORVANE_TV_API __attribute__((visibility("default")))

namespace korvane::tv {

class RunObserver;
class Schedule;

/// Exit status of a process that was ended because its threads hang or because it called what
/// virtual time does not take. Differs from the usual 0, 1, 2.
constexpr int kHangStatus = 3;

/// Where virtual time starts: a TV that has been up for some hours. Fixed, for reproducible runs.
constexpr int64_t kVirtualStartNs = 12'345'000'000'000;

/// What CLOCK_REALTIME shows when virtual time is 0: 2024-01-01 00:00:00 UTC.
constexpr int64_t kVirtualEpochNs = 1'704'067'200'000'000'000;

struct VirtualTimeOptions {
    int64_t startNs = kVirtualStartNs;
    /// How often, of 65536 times, a thread loses the processor where it locks, unlocks, waits or
    /// notifies. 0: threads run until they wait.
    uint32_t preemptions = 0;
    /// Longest time for which such a thread cannot run; 0: it only lets those that can run now go
    /// first.
    int64_t longestPreemptionNs = 0;
    /// How often, of 65536 times, a wait on a condition wakes spuriously.
    uint32_t spuriousWakeups = 0;
    /// Decides instead of the seed, see Schedule.h; null: the seed decides.
    Schedule* schedule = nullptr;
    /// Whether plain accesses of an instrumented library are points of preemption, too; atomic ones
    /// always are.
    bool plainAccesses = false;
    /// Sees what orders the threads; null: nobody.
    RunObserver* observer = nullptr;
    /// Clock reads, yields and switches that may happen without time moving on. 1000 times
    /// what one instant of 64 renderers takes.
    int64_t callsPerInstant = 10'000'000;
    /// CPU seconds that a thread may compute without waiting, well above a slow decoder's start;
    /// 0: no limit.
    int computeSeconds = 30;
    /// Virtual time after which a run is called a hang: threads that poll for something that never
    /// happens would otherwise go on for ever. Far above the longest film.
    int64_t longestRunNs = int64_t{30} * 24 * 3600 * 1'000'000'000;
    /// Called with the report before the process ends, on the thread that noticed. It must not
    /// wait. A thread that computes without end is reported from a signal handler and not to this.
    std::function<void(const std::string& report)> onHang;
};

struct VirtualTimeStatistics {
    int64_t elapsedNs = 0;    ///< virtual time since the start
    int64_t switches = 0;     ///< from one thread to another
    int64_t waits = 0;        ///< sleeps and blocking waits, those that needed no switch included
    int64_t threads = 0;      ///< ever made, the first one included
    int64_t peakThreads = 0;  ///< at a time
    uint64_t points = 0;      ///< of preemption, counted where there is a Schedule
    uint64_t trace = 0;       ///< hash of who ran when, likewise: equal for equal runs
};

class KORVANE_TV_API VirtualTime {
public:
    /// Whether this build has virtual time. Builds with a sanitizer do not: sanitizers track
    /// threads and locks themselves.
    static bool available();

    /// Whether the calling thread runs in virtual time.
    static bool active();

    /// Number of the calling thread, from 1 in the order of making; 0 in real time.
    static int32_t threadNumber();

    /// What the report calls a thread; empty when there is none of this number.
    static std::string threadName(int32_t number);

    /// Each thread and what it waits for, in words; empty in real time.
    static std::string dump();

    /// Switches to virtual time. The process must have a single thread, the calling one.
    /// @throws std::runtime_error when it cannot be, with the reason
    explicit VirtualTime(uint64_t seed, const VirtualTimeOptions& options = {});

    /// Back to real time, on the thread that constructed. Every other thread must have ended and
    /// been joined, or have been detached; one that is left counts as a hang.
    ~VirtualTime();

    VirtualTime(const VirtualTime&) = delete;
    VirtualTime& operator=(const VirtualTime&) = delete;

    /// Runs a program on a thread of its own until it ends. A hang ends the run instead of the
    /// process: its threads are abandoned where they are, nothing that they hold is released.
    /// @return what hung, the report without its threads; empty if the program ended and joined all
    ///         its threads. After a hang only `failure`, `statistics` and the destructor are left.
    std::string run(const std::function<void()>& program);

    /// The whole report of the hang that ended `run`.
    const std::string& failure() const;

    /// Virtual CLOCK_MONOTONIC, nanoseconds. Reading it here does not count as a clock read.
    int64_t nowNs() const;

    VirtualTimeStatistics statistics() const;
};

/// While one exists, the calling thread's calls are not points of preemption unless they wait: for
/// code that watches a run, which must not change it. Does nothing in real time.
class Undisturbed {
public:
    Undisturbed();
    ~Undisturbed();
    Undisturbed(const Undisturbed&) = delete;
    Undisturbed& operator=(const Undisturbed&) = delete;

private:
    int* const mScopes;  ///< of the thread; null in real time
};

}  // namespace korvane::tv
