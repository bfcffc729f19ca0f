// SPDX-License-Identifier: Apache-2.0
// Looks for faults while schedules are explored: the interface of the detectors. It sees every
// access of an instrumented library (Runtime.cpp) and what orders the threads (as the RunObserver
// of virtual time), and reports:
//
//   Race          two threads access the same bytes, one of them writes, at least one not
//   atomically,
//                 and nothing orders the two (happens before), whether it mattered in this run or
//                 not
//   LockOrder     a cycle in the order in which threads take locks
//   UseAfterFree  an access to a block that was freed in this run, or freed twice
//   Outside       an access next to a block of memory
//   MemoryLeak, DescriptorLeak   what is left at the end of a run
//   ClosedTwice   a descriptor is closed that is not open
//
// It also counts coverage: pairs of places in the code that access the same object on two threads,
// seen in both orders.
//
//     Exploration exploration;
//     while (strategy.next()) {
//         exploration.beginRun();
//         { VirtualTime time(seed, {.schedule = &strategy, .observer = &exploration}); play(); }
//         exploration.endRun();
//     }
//
// Only what is instrumented is checked. Locks, threads, semaphores and descriptors order accesses
// wherever they are used, because virtual time sees them all; an atomic of code that is not
// instrumented is not seen, see happensBefore.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tv/clock/Schedule.h"

#define KORVANE_EXPLORE_API __attribute__((visibility("default")))

namespace korvane::tv {

struct ExploredFault {
    enum class Kind : uint8_t {
        Race,
        LockOrder,
        UseAfterFree,
        Outside,
        MemoryLeak,
        DescriptorLeak,
        ClosedTwice
    };

    Kind kind = Kind::Race;
    std::string what;     ///< one line
    std::string details;  ///< the call stacks, a line a call
    uint64_t runs = 0;    ///< in which it was seen
    bool inThisRun = false;
};

/// "data race" and so on.
KORVANE_EXPLORE_API const char* nameOf(ExploredFault::Kind kind);

struct HeldLock {
    const void* lock;
    const void* code;  ///< where it was taken
};

/// Pairs of places that accessed the same object on two threads, one after the other.
struct PairCoverage {
    size_t pairs = 0;
    size_t inBothOrders = 0;
};

class KORVANE_EXPLORE_API Exploration : public RunObserver {
public:
    Exploration();
    ~Exploration() override;

    /// Between two runs, before virtual time begins.
    void beginRun();
    /// After virtual time has ended.
    /// @param complete  the run ended by itself: what it left is a leak
    void endRun(bool complete = true);

    /// Each fault once, in the order in which they were found.
    const std::vector<ExploredFault>& faults() const;
    PairCoverage coverage() const;

    /// Locks that the calling thread holds, in the order of taking.
    const std::vector<HeldLock>& heldLocks() const;

    /// The calling thread's calls inside the instrumented code, innermost first.
    std::vector<const void*> callStack() const;

    /// "function file:line" of instructions, each a return address. Slow, and not in virtual time.
    static std::vector<std::string> places(const std::vector<const void*>& codes);

    /// For code that is not instrumented and orders threads by an atomic: what the calling thread
    /// has done so far happens before what a thread does after happensAfter(object).
    void happensBefore(const void* object);
    void happensAfter(const void* object);

    void began(int32_t thread) override;
    void created(int32_t thread, int32_t by) override;
    void joined(int32_t thread, int32_t by) override;
    void acquiring(Sync what, const void* object, const void* code) override;
    void acquired(Sync what, const void* object, const void* code) override;
    void released(Sync what, const void* object, const void* code) override;
    void switched(int32_t to) override;
    void closedAgain(int descriptor, const void* code) override;

    struct __attribute__((visibility("hidden"))) Detectors;
    Detectors& detectors() { return *mDetectors; }

private:
    const std::unique_ptr<Detectors> mDetectors;
};

}  // namespace korvane::tv
