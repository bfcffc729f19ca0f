// SPDX-License-Identifier: Apache-2.0
// A thread in virtual time: its context and stack, what it waits for, and what a kernel thread
// would keep for it (errno, exceptions in flight, FiberLocals). Plain data that belongs to the
// Scheduler.
#pragma once

#include <boost/context/detail/fcontext.hpp>
#include <boost/intrusive/list_hook.hpp>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "tv/clock/FiberLocal.h"
#include "tv/clock/FiberStack.h"

namespace korvane::tv {

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

enum class WaitFor : uint8_t {
    Nothing,
    Time,
    Mutex,
    Condition,
    ReadLock,
    WriteLock,
    Join,
    Spinlock,
    Semaphore,
    Futex,
    Descriptor
};

/// Why a wait ended.
enum class WokenBy : uint8_t { Other, Deadline };

using FiberHook =
    boost::intrusive::list_member_hook<boost::intrusive::link_mode<boost::intrusive::normal_link>>;

struct TimerSlot;

/// The members that a wait and a switch touch come first, in as few cache lines as possible.
struct alignas(64) Fiber {
    boost::context::detail::fcontext_t context = nullptr;  ///< while it does not run

    // the wait
    WaitFor waitFor = WaitFor::Nothing;
    WokenBy wokenBy = WokenBy::Other;
    bool runnable = false;             ///< in the scheduler's set of those that can run
    int ownerWord = 0;                 ///< marks the mutexes that it holds
    const void* waitObject = nullptr;  ///< address of what it waits for
    int64_t sinceNs = 0;
    uint64_t steps = 0;         ///< decisions of a Schedule so far
    int undisturbed = 0;        ///< scopes in which its calls are not points of preemption
    TimerSlot* slot = nullptr;  ///< of its deadline; see Deadlines
    FiberHook sleeperHook;
    FiberHook waiterHook;  ///< see Waiters

    // what a kernel thread would keep
    struct {
        void* caught = nullptr;
        unsigned int uncaught = 0;
    } savedExceptions;  ///< as the C++ ABI lays it out
    int savedErrno = 0;
    int descriptor = -1;  ///< that it polls
    FiberSlots* slots = &ownSlots;
    FiberSlots ownSlots;

    // identity and life
    int32_t number = 0;
    std::string name;                   ///< given by the program; empty without
    void* (*routine)(void*) = nullptr;  ///< null: the thread that entered virtual time
    void* argument = nullptr;
    void* result = nullptr;
    bool started = false;
    bool finished = false;
    bool detached = false;
    FiberStack stack;
};

}  // namespace korvane::tv
