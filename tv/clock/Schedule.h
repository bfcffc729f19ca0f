// SPDX-License-Identifier: Apache-2.0
// The decisions that the scheduler of virtual time leaves open, made by a Schedule instead of the
// seed; and what an observer sees of a run.
//
// A run is a sequence of steps. At each point of preemption (an access of an instrumented library,
// a lock, an unlock, a wait, a notification, a thread made or joined) the running thread goes on or
// loses the processor. Where a thread waits, ends or yields, one of those that can run is chosen;
// where one of several waiters is woken, one of them. A thread counts its own steps from 1, one for
// each point and for each choice; a thread and its step name a decision, whatever the other threads
// do.
//
// All calls come on the kernel thread of virtual time, from the fiber in question. They must not
// lock, wait or read the clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace korvane::tv {

enum class Step : uint8_t {
    Read,
    Write,
    AtomicLoad,
    AtomicStore,
    AtomicChange,  ///< reads and writes: exchange, add, compare and exchange
    Lock,
    Unlock,
    Wait,
    Notify,
    Thread,  ///< makes or joins one
};

/// Numbers of threads, from 1 in the order of making; see VirtualTime::threadNumber.
struct ThreadList {
    const int32_t* numbers = nullptr;
    size_t count = 0;

    const int32_t* begin() const { return numbers; }
    const int32_t* end() const { return numbers + count; }
    int32_t operator[](size_t index) const { return numbers[index]; }
};

struct SchedulePoint {
    Step step = Step::Read;
    uint32_t bytes = 0;            ///< of an access
    const void* object = nullptr;  ///< what is accessed, locked, waited for; a thread has none
    const void* code = nullptr;    ///< where in the program
    int32_t thread = 0;            ///< the running one
    uint64_t threadStep = 0;       ///< its own count
    uint64_t index = 0;            ///< points of the run before this one
};

/// What happens at a point.
struct Preemption {
    static constexpr int64_t kStay = -1;

    /// How long the thread cannot run; 0: it can at once, after all others that can.
    int64_t awayNs = kStay;
    /// The thread that runs now, one of those that can; 0 where there is none.
    int32_t next = 0;
};

struct ScheduleChoice {
    enum class What : uint8_t { Runnable, Waiter };

    What what = What::Runnable;
    int32_t thread = 0;  ///< the one that waits, ends, yields or wakes
    uint64_t threadStep = 0;
    /// Those to choose from, at least two; those that can run, longest first; waiters likewise.
    /// The thread itself is among them only where it yields.
    ThreadList threads;
};

class Schedule {
public:
    Schedule() = default;
    virtual ~Schedule() = default;
    Schedule(const Schedule&) = delete;
    Schedule& operator=(const Schedule&) = delete;

    /// Decides a point. Called at the points whose index is at least `askFrom`.
    /// @param runnable  the other threads that can run, longest first
    virtual Preemption preempt(const SchedulePoint& point, const ThreadList& runnable) = 0;

    /// @return an index of `choice.threads`
    virtual size_t choose(const ScheduleChoice& choice) = 0;

    /// Whether a thread's wait on a condition ends at once.
    virtual bool wakesSpuriously(int32_t thread, uint64_t threadStep) = 0;

    /// A thread has become able to run: it is new, it was woken, or its time has come.
    virtual void becameRunnable(int32_t thread) { (void)thread; }

    /// The scheduler compares this at each point, so that a schedule which knows its next
    /// preemption costs nothing before it.
    uint64_t askFrom() const { return mAskFrom; }

protected:
    uint64_t mAskFrom = 0;
};

/// Events that order threads (happens before), and which thread runs. Numbers of threads as in
/// VirtualTime.
class RunObserver {
public:
    RunObserver() = default;
    virtual ~RunObserver() = default;
    RunObserver(const RunObserver&) = delete;
    RunObserver& operator=(const RunObserver&) = delete;

    /// Mutexes and other locks have holders; the others only order.
    enum class Sync : uint8_t { Mutex, OtherLock, Semaphore, Futex, Once, Descriptor };

    virtual void began(int32_t thread) = 0;  ///< virtual time did, on this thread
    virtual void created(int32_t thread, int32_t by) = 0;
    virtual void joined(int32_t thread, int32_t by) = 0;
    /// A thread is about to wait for a lock that others hold, or has taken it.
    virtual void acquiring(Sync what, const void* object, const void* code) = 0;
    virtual void acquired(Sync what, const void* object, const void* code) = 0;
    virtual void released(Sync what, const void* object, const void* code) = 0;
    virtual void switched(int32_t to) = 0;
    /// A descriptor was closed that is not open.
    virtual void closedAgain(int descriptor, const void* code) = 0;
};

}  // namespace korvane::tv
