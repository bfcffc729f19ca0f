// SPDX-License-Identifier: Apache-2.0
// One thread of the virtual gear: its context and stack, what it waits for, and what a kernel
// thread would keep for it (errno, exceptions under way, FiberLocals). Plain data; the Scheduler's.
#pragma once

#include <boost/context/detail/fcontext.hpp>
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
    Futex,
    Descriptor
};

/// Why a wait ended.
enum class WokenBy : uint8_t { Other, Deadline };

struct Fiber {
    boost::context::detail::fcontext_t context = nullptr;  ///< while it does not run

    // the wait
    WaitFor waitFor = WaitFor::Nothing;
    WokenBy wokenBy = WokenBy::Other;
    bool runnable = false;             ///< in the scheduler's set of those that can run
    const void* waitObject = nullptr;  ///< address of what it waits for
    Fiber* nextWaiter = nullptr;       ///< see Waiters
    Fiber* previousWaiter = nullptr;
    size_t deadlineIndex = 0;  ///< see Deadlines
    int64_t sinceNs = 0;
    int descriptor = -1;

    // what a kernel thread has of its own
    int savedErrno = 0;
    struct {
        void* caught = nullptr;
        unsigned int uncaught = 0;
    } savedExceptions;  ///< as the C++ ABI lays it out
    FiberSlots ownSlots;
    FiberSlots* slots = &ownSlots;

    // identity and life
    int32_t number = 0;
    int ownerWord = 0;                  ///< marks the mutexes that it holds
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
