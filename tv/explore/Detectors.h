// SPDX-License-Identifier: Apache-2.0
// The detectors: accesses and the order between threads, kept for one run; faults and coverage,
// kept for all runs. Exploration.h says what is reported.
//
// For each eight bytes the last accesses are kept that a later one can race with, with thread and
// time. An access races with a kept one of another thread unless it knows that thread's time
// (vector clocks). Kept are those of the arena and of the libraries' own variables; other memory
// belongs to code that is not instrumented, which may give an address to another object unseen.
#pragma once

#include <array>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "tv/clock/Scheduler.h"
#include "tv/explore/AddressMap.h"
#include "tv/explore/CallStacks.h"
#include "tv/explore/Exploration.h"
#include "tv/explore/Heap.h"
#include "tv/explore/VectorClock.h"

namespace korvane::tv {

/// One kept access.
struct KeptAccess {
    const void* code;
    StackId stack;
    uint32_t time;
    uint16_t thread;
    uint8_t bytes;  ///< a bit for each of the eight
    bool writes;
    bool atomic;

    bool conflictsWith(const KeptAccess& other) const {
        return (bytes & other.bytes) != 0 && (writes || other.writes) && !(atomic && other.atomic);
    }
    /// Whether every access that races with the other races with this one too.
    bool standsFor(const KeptAccess& other) const {
        return (other.bytes & ~bytes) == 0 && writes >= other.writes && atomic <= other.atomic;
    }
};

/// What is kept of eight bytes, valid for its run.
struct AccessCell {
    static constexpr size_t kKept = 4;

    uint32_t run;
    uint16_t count;
    uint16_t latest;  ///< index
    std::array<KeptAccess, kKept> kept;
};

/// Memory whose accesses are kept: the arena, or the variables of a library.
struct CheckedRange {
    const char* begin = nullptr;
    size_t bytes = 0;
    AccessCell* cells = nullptr;

    size_t offset(const char* address) const { return static_cast<size_t>(address - begin); }
};

struct ThreadState {
    VectorClock clock;
    uint32_t now = 0;           ///< the clock's own entry
    VectorClock fenceReleased;  ///< by the last fence that releases
    VectorClock loaded;         ///< by atomic loads that wait for a fence
    StackId stack = CallStacks::kEmpty;
    const void* lastCode = nullptr;
    std::vector<HeldLock> held;

    void clear();
};

/// The clock that a lock or an atomic has released, and its last user.
struct SyncState {
    VectorClock clock;
    KeptAccess last;

    void clear();
};

/// One lock was taken while another was held.
struct LockEdge {
    const void* held;
    const void* taken;
    CodePlace heldAt;
    CodePlace takenAt;
};

/// A bit for each order in which a pair of places was seen.
struct PairOrders {
    uint8_t seen = 0;

    void clear() { seen = 0; }
};

struct FoundFault {
    ExploredFault::Kind kind;
    std::string title;
    std::vector<std::pair<std::string, CodePlace>> places;
    size_t index;  ///< in the list of faults
};

struct Exploration::Detectors {
    Detectors();
    ~Detectors();
    Detectors(const Detectors&) = delete;
    Detectors& operator=(const Detectors&) = delete;

    // accesses
    void access(Step step, const void* object, size_t bytes, const void* code) {
        current->lastCode = code;
        check(static_cast<const char*>(object), bytes, accessNow(code, step == Step::Write, false));
    }
    void atomic(Step step, const void* object, size_t bytes, int order, const void* code);
    void fence(int order);
    void enter(const void* caller) {
        current->stack = stacks.enter(current->stack, caller);
        current->lastCode = caller;
    }
    void leave() { current->stack = stacks.leave(current->stack); }

    // memory
    void* allocate(size_t bytes, size_t alignment, const void* code);
    /// @return false: not a block of the arena
    bool free(void* block, const void* code);
    void forgetLocks(const void* begin, size_t bytes);

    // threads and locks
    ThreadState& thread(int32_t number);
    void acquire(const void* object) { current->clock.join(syncs.at(object).clock); }
    void release(const void* object);
    void tick();
    void take(RunObserver::Sync what, const void* object, const void* code);
    void drop(const void* object);
    void orderLock(const void* taken, const void* code);

    // the beginning and the end of a run
    void findVariables();
    void findLeaks(bool report);
    void report(FoundFault fault);
    void reportDescriptor(int descriptor);
    void resolve();

    CodePlace here(const void* code) const {
        return {code != nullptr ? code : current->lastCode, current->stack, currentNumber};
    }

    // of the run
    uint32_t run = 0;
    int32_t currentNumber = 0;
    ThreadState* current;
    std::deque<ThreadState> threads;
    AddressMap<SyncState> syncs;
    std::vector<LockEdge> lockOrder;
    std::vector<bool> openBefore;  ///< descriptors

    // of the process
    Heap heap;
    CallStacks stacks;
    std::vector<CheckedRange> ranges;  ///< the arena first
    std::vector<ExploredFault> faults;
    std::vector<FoundFault> unresolved;
    std::unordered_map<std::string, size_t> known;  ///< faults by their places
    AddressMap<PairOrders> pairs;                   ///< by a hash of the two places
    PairCoverage coverage;
    size_t librariesFound = 0;

private:
    KeptAccess accessNow(const void* code, bool writes, bool isAtomic) const {
        return {code, current->stack, current->now, static_cast<uint16_t>(currentNumber),
                0,    writes,         isAtomic};
    }
    /// Checks an access where it is checked at all.
    void check(const char* object, size_t bytes, const KeptAccess& access) {
        for (CheckedRange& range : ranges) {
            if (range.offset(object) < range.bytes) {
                check(range, object, bytes, access);
                return;
            }
        }
    }
    void check(const CheckedRange& range, const char* object, size_t bytes, KeptAccess access) {
        const size_t at = range.offset(object);
        const size_t first = at % Heap::kGranule;
        if (&range == ranges.data() && !heap.living(object, bytes)) {
            reportMemory(object, access.code);
        } else if (first + bytes <= Heap::kGranule) {
            access.bytes = static_cast<uint8_t>(((1U << bytes) - 1) << first);
            check(range.cells[at / Heap::kGranule], access);
        } else {
            checkMore(range, at, std::min(at + bytes, range.bytes), access);
        }
    }
    void checkMore(const CheckedRange& range, size_t at, size_t end, KeptAccess access);
    /// Skips a repetition of the latest access.
    void check(AccessCell& cell, const KeptAccess& access) {
        const KeptAccess& latest = cell.kept[cell.latest];
        if (!KORVANE_LIKELY(cell.run == run && latest.thread == access.thread &&
                            latest.time == access.time && latest.standsFor(access))) {
            keep(cell, access);
        }
    }
    void keep(AccessCell& cell, const KeptAccess& access);
    void cover(const KeptAccess& first, const KeptAccess& second);
    void reportRace(const KeptAccess& first, const KeptAccess& second);
    void reportMemory(const void* object, const void* code);
    void reportCircle(const LockEdge& closing);
    std::vector<bool> reachable();
};

/// A library compiled for exploring has been loaded, with this code.
void noteInstrumented(const void* code);

/// Null outside of runs.
extern Exploration::Detectors* gDetectors __attribute__((visibility("hidden")));

}  // namespace korvane::tv
