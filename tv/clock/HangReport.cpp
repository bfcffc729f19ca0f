// SPDX-License-Identifier: Apache-2.0
// The report of a program that hangs: each thread, what it waits for, since when, and its call
// stack. To unwind a waiting fiber the report switches to it for the length of one function, which
// runs the unwinder on the fiber's stack. Functions that a library does not export are given as an
// offset in the file, which `addr2line -Cfe FILE OFFSET` turns into a line.
#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>

#include <array>
#include <cinttypes>
#include <cstdio>
#include <thread>
#include <typeinfo>

#include "tv/clock/Scheduler.h"

namespace korvane::tv {
namespace {

using boost::context::detail::jump_fcontext;
using boost::context::detail::ontop_fcontext;
using boost::context::detail::transfer_t;

/// Its address identifies this library.
const char kInThisLibrary = 0;

constexpr int kDeepestStack = 48;
constexpr int kShownCallers = 8;

std::string seconds(int64_t ns) {
    char text[48];
    std::snprintf(text, sizeof(text), "%" PRId64 ".%09" PRId64 " s", ns / 1'000'000'000,
                  ns % 1'000'000'000);
    return text;
}

std::string hexadecimal(uintptr_t value) {
    char text[24];
    std::snprintf(text, sizeof(text), "0x%" PRIxPTR, value);
    return text;
}

std::string hexadecimal(const void* address) {
    return hexadecimal(reinterpret_cast<uintptr_t>(address));
}

std::string demangled(const char* name) {
    char* const readable = abi::__cxa_demangle(name, nullptr, nullptr, nullptr);
    std::string text = readable != nullptr ? readable : name;
    std::free(readable);
    return text;
}

std::string fileName(const Dl_info& info) {
    const std::string path = info.dli_fname != nullptr ? info.dli_fname : "?";
    return path.substr(path.rfind('/') + 1);
}

/// "function (library+0x1234)"; the address is inside the call, or a function's first.
std::string place(const void* address) {
    Dl_info info{};
    if (dladdr(address, &info) == 0) {
        return hexadecimal(address);
    }
    const auto offset =
        reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(info.dli_fbase);
    const std::string where = fileName(info) + "+" + hexadecimal(offset);
    return info.dli_sname != nullptr ? demangled(info.dli_sname) + " (" + where + ")" : where;
}

#ifdef __GLIBCXX__
/// "f" of "std::thread::_State_impl<std::thread::_Invoker<std::tuple<f> > >".
std::string insideTuple(std::string type) {
    constexpr char kStart[] = "std::tuple<";
    const size_t start = type.find(kStart);
    const size_t end = type.rfind(" > >");
    if (start == std::string::npos || end == std::string::npos) {
        return type;
    }
    type = type.substr(0, end).substr(start + sizeof(kStart) - 1);
    type.pop_back();
    return type.substr(0, type.find_last_not_of(' ') + 1);
}
#endif

struct Calls {
    std::array<void*, kDeepestStack> addresses{};
    int count = 0;

    void find() { count = backtrace(addresses.data(), kDeepestStack); }

    /// One byte before the return address, so that a call at the very end of a function is not
    /// attributed to the next function.
    const void* at(int index) const {
        return static_cast<char*>(addresses[static_cast<size_t>(index)]) - 1;
    }

    /// The first call after the interposed one, or after those of this library without one.
    int ofTheProgram() const {
        Dl_info own{};
        dladdr(&kInThisLibrary, &own);
        Dl_info info{};
        for (int i = 0; i < count && dladdr(at(i), &info) != 0 && info.dli_fbase == own.dli_fbase;
             ++i) {
            // C++ names are mangled; of this library's C functions only interposed ones appear
            // here.
            if (info.dli_sname != nullptr && info.dli_sname[0] != '_') {
                return i + 1;
            }
        }
        return 0;
    }
};

/// The name of a thread's routine: its function, or what a std::thread was constructed with. libc++
/// keeps no name of the latter; there the routine, which is not exported, is given as an offset.
std::string routineName(const Fiber& fiber) {
    const auto* address = reinterpret_cast<const void*>(fiber.routine);
#ifdef __GLIBCXX__
    Dl_info info{};
    if (dladdr(address, &info) != 0 && fileName(info).rfind("libstdc++", 0) == 0) {
        const auto& state = *static_cast<std::thread::_State*>(fiber.argument);
        return insideTuple(demangled(typeid(state).name()));
    }
#endif
    return place(address);
}

/// Runs on the visited fiber's stack.
transfer_t findCallsOf(transfer_t from) {
    static_cast<Calls*>(from.data)->find();
    return jump_fcontext(from.fctx, nullptr);
}

std::string nameOf(const Fiber& fiber) {
    if (!fiber.name.empty()) {
        return fiber.name;
    }
    if (fiber.routine == nullptr) {
        return "main";
    }
    return fiber.finished ? "ended" : routineName(fiber);
}

std::string title(const Fiber& fiber) {
    return "thread " + std::to_string(fiber.number) + " \"" + nameOf(fiber) + "\"";
}

}  // namespace

std::string VirtualTime::threadName(int32_t number) {
    const Fiber* fiber = gScheduler != nullptr ? gScheduler->byNumber(number) : nullptr;
    return fiber != nullptr ? nameOf(*fiber) : std::string();
}

std::string Scheduler::callers(const Fiber& fiber) const {
    if (!fiber.started || fiber.finished) {
        return {};
    }
    Calls calls;
    if (&fiber == mCurrent) {
        calls.find();
    } else {
        // Changes only the saved context, from which the fiber resumes.
        auto& visited = const_cast<Fiber&>(fiber);
        visited.context = ontop_fcontext(fiber.context, &calls, &findCallsOf).fctx;
    }
    std::string text;
    const int first = calls.ofTheProgram();
    for (int i = first; i < calls.count && i < first + kShownCallers; ++i) {
        text += "      from " + place(calls.at(i)) + "\n";
    }
    return text;
}

std::string Scheduler::describeOwner(const pthread_mutex_t* mutex) const {
    for (const auto& fiber : mFibers) {
        if (fiber->ownerWord == mutex->__data.__owner) {
            return "held by " + title(*fiber);
        }
    }
    return mutex->__data.__lock != 0 ? "held by a thread that has ended" : "held by nobody";
}

std::string Scheduler::describeWait(const Fiber& fiber) const {
    const void* object = fiber.waitObject;
    switch (fiber.waitFor) {
        case WaitFor::Mutex:
            return "waits for mutex " + hexadecimal(object) + ", " +
                   describeOwner(static_cast<const pthread_mutex_t*>(object));
        case WaitFor::Condition:
            return "waits for condition " + hexadecimal(object);
        case WaitFor::ReadLock:
            return "waits to read under lock " + hexadecimal(object);
        case WaitFor::WriteLock:
            return "waits to write under lock " + hexadecimal(object);
        case WaitFor::Spinlock:
            return "waits for spinlock " + hexadecimal(object);
        case WaitFor::Semaphore:
            return "waits for semaphore " + hexadecimal(object);
        case WaitFor::Join:
            return "waits for the end of " + title(*static_cast<const Fiber*>(object));
        case WaitFor::Futex:
            return "waits for word " + hexadecimal(object);
        case WaitFor::Descriptor:
            return "polls descriptor " + std::to_string(fiber.descriptor);
        case WaitFor::Time:
        case WaitFor::Nothing:
            break;
    }
    return "sleeps";
}

std::string Scheduler::describe(const Fiber& fiber) const {
    std::string text = "  " + title(fiber) + " ";
    if (fiber.finished) {
        text += "ended and was not joined";
    } else if (&fiber == mCurrent && fiber.waitFor == WaitFor::Nothing) {
        text += "runs";
    } else if (!fiber.started) {
        text += "can begin";
    } else if (fiber.runnable) {
        text += "can run";
    } else {
        text += describeWait(fiber) + ", since " + seconds(fiber.sinceNs);
        text += Deadlines::has(fiber) ? ", until " + seconds(Deadlines::of(fiber)) : "";
    }
    return text + "\n" + callers(fiber);
}

std::string Scheduler::dump() const {
    std::string text = "at " + seconds(mNowNs) + ", seed " + std::to_string(mSeedNumber) + "\n";
    for (const auto& fiber : mFibers) {
        text += describe(*fiber);
    }
    return text;
}

void Scheduler::failBusy() {
    mCallsLeft = mOptions.callsPerInstant;  // the report may read the clock
    fail("busy loop: " + title(*mCurrent) +
         " keeps asking for the time, yielding or waking others "
         "while time stands still");
}

void Scheduler::failNotTaken(const char* call) {
    fail(std::string(call) + " is not available: called by " + title(*mCurrent));
}

void Scheduler::failMutex(const pthread_mutex_t* mutex, const char* what) {
    fail("mutex " + hexadecimal(mutex) + ", " + describeOwner(mutex) + ", " + what + ": " +
         title(*mCurrent));
}

void Scheduler::fail(const std::string& what) {
    if (mAbandoning && mFailure.empty()) {
        mFailure = what + "\n" + dump();
        abandon();
    }
    if (!mFailing) {
        mFailing = true;
        const std::string report = "virtual time: " + what + "\n" + dump();
        if (mOptions.onHang) {
            mOptions.onHang(report);
        }
        std::fflush(nullptr);
        std::fputs(report.c_str(), stderr);
    }
    _exit(kHangStatus);
}

}  // namespace korvane::tv
