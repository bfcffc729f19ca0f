// SPDX-License-Identifier: Apache-2.0
// What a library compiled with -fsanitize=thread calls: at each access to memory, each atomic
// operation, each function's begin and end. In virtual time with a Schedule each of them is a point
// of preemption; the detectors see them all. Otherwise they only do what the program asked for.
//
// The names are the compilers'. The library is linked against this file and not against the
// sanitizer's own runtime, so that the calls end here.
#include <malloc.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#include "tv/clock/Scheduler.h"
#include "tv/explore/Detectors.h"

// NOLINTBEGIN(bugprone-reserved-identifier,bugprone-macro-parentheses): the compilers' names;
// types cannot stand in parentheses.

#define KORVANE_RUNTIME extern "C" __attribute__((visibility("default")))

namespace {

using korvane::tv::gDetectors;
using korvane::tv::gScheduler;
using korvane::tv::Step;

inline void reach(Step step, const volatile void* object, size_t bytes, const void* code) {
    const bool plain = step == Step::Read || step == Step::Write;
    if (gScheduler != nullptr && gScheduler->asksAccess(plain)) {
        gScheduler->point(step, const_cast<const void*>(object), code,
                          static_cast<uint32_t>(bytes));
    }
}

inline void access(Step step, const volatile void* object, size_t bytes, const void* code) {
    reach(step, object, bytes, code);
    if (gDetectors != nullptr) {
        gDetectors->access(step, const_cast<const void*>(object), bytes, code);
    }
}

/// An atomic operation, performed after the preemption and before anything else can run.
template <typename T, typename Operation>
inline T atomically(Step step, const volatile T* object, int order, const void* code,
                    const Operation& operation) {
    reach(step, object, sizeof(T), code);
    if (gDetectors != nullptr) {
        gDetectors->atomic(step, const_cast<const T*>(object), sizeof(T), order, code);
    }
    return operation();
}

}  // namespace

KORVANE_RUNTIME void __tsan_init() {
    korvane::tv::noteInstrumented(KORVANE_CALLER);
}

KORVANE_RUNTIME void __tsan_func_entry(void* caller) {
    if (gDetectors != nullptr) {
        gDetectors->enter(caller);
    }
}

KORVANE_RUNTIME void __tsan_func_exit() {
    if (gDetectors != nullptr) {
        gDetectors->leave();
    }
}

KORVANE_RUNTIME void __tsan_ignore_thread_begin() {}
KORVANE_RUNTIME void __tsan_ignore_thread_end() {}

// ---- plain accesses ----

#define KORVANE_ACCESS(name, step, bytes)              \
    KORVANE_RUNTIME void __tsan_##name(void* object) { \
        access(step, object, bytes, KORVANE_CALLER);   \
    }
#define KORVANE_ACCESSES(bytes)                             \
    KORVANE_ACCESS(read##bytes, Step::Read, bytes)          \
    KORVANE_ACCESS(write##bytes, Step::Write, bytes)        \
    KORVANE_ACCESS(read_write##bytes, Step::Write, bytes)   \
    KORVANE_ACCESS(volatile_read##bytes, Step::Read, bytes) \
    KORVANE_ACCESS(volatile_write##bytes, Step::Write, bytes)
#define KORVANE_UNALIGNED_ACCESSES(bytes)                             \
    KORVANE_ACCESS(unaligned_read##bytes, Step::Read, bytes)          \
    KORVANE_ACCESS(unaligned_write##bytes, Step::Write, bytes)        \
    KORVANE_ACCESS(unaligned_read_write##bytes, Step::Write, bytes)   \
    KORVANE_ACCESS(unaligned_volatile_read##bytes, Step::Read, bytes) \
    KORVANE_ACCESS(unaligned_volatile_write##bytes, Step::Write, bytes)

KORVANE_ACCESSES(1)
KORVANE_ACCESSES(2)
KORVANE_ACCESSES(4)
KORVANE_ACCESSES(8)
KORVANE_ACCESSES(16)
KORVANE_UNALIGNED_ACCESSES(2)
KORVANE_UNALIGNED_ACCESSES(4)
KORVANE_UNALIGNED_ACCESSES(8)
KORVANE_UNALIGNED_ACCESSES(16)

KORVANE_RUNTIME void __tsan_read_range(void* object, size_t bytes) {
    access(Step::Read, object, bytes, KORVANE_CALLER);
}

KORVANE_RUNTIME void __tsan_write_range(void* object, size_t bytes) {
    access(Step::Write, object, bytes, KORVANE_CALLER);
}

/// A constructor or destructor overwrites its base's table address with its own. Writing the same
/// address again changes nothing that another thread could see.
KORVANE_RUNTIME void __tsan_vptr_update(void** table, void* value) {
    if (*table != value) {
        access(Step::Write, table, sizeof(*table), KORVANE_CALLER);
    }
}

KORVANE_RUNTIME void __tsan_vptr_read(void** table) {
    access(Step::Read, table, sizeof(*table), KORVANE_CALLER);
}

// Block operations: gcc leaves them calls of libc's, which the linker redirects (--wrap); clang
// has names of its own.
#define KORVANE_BLOCK_OPERATIONS(prefix)                                              \
    KORVANE_RUNTIME void* prefix##memcpy(void* to, const void* from, size_t bytes) {  \
        access(Step::Read, from, bytes, KORVANE_CALLER);                              \
        access(Step::Write, to, bytes, KORVANE_CALLER);                               \
        return std::memcpy(to, from, bytes);                                          \
    }                                                                                 \
    KORVANE_RUNTIME void* prefix##memmove(void* to, const void* from, size_t bytes) { \
        access(Step::Read, from, bytes, KORVANE_CALLER);                              \
        access(Step::Write, to, bytes, KORVANE_CALLER);                               \
        return std::memmove(to, from, bytes);                                         \
    }                                                                                 \
    KORVANE_RUNTIME void* prefix##memset(void* to, int value, size_t bytes) {         \
        access(Step::Write, to, bytes, KORVANE_CALLER);                               \
        return std::memset(to, value, bytes);                                         \
    }

KORVANE_BLOCK_OPERATIONS(__wrap_)
KORVANE_BLOCK_OPERATIONS(__tsan_)

// ---- atomics, all in sequentially consistent order: virtual time has one kernel thread. The
// detectors follow the order that was asked for. ----

#define KORVANE_CHANGE(bits, T, name, builtin)                                               \
    KORVANE_RUNTIME T __tsan_atomic##bits##_##name(volatile T* object, T value, int order) { \
        return atomically<T>(Step::AtomicChange, object, order, KORVANE_CALLER,              \
                             [=] { return builtin(object, value, __ATOMIC_SEQ_CST); });      \
    }

#define KORVANE_EXCHANGE_IF(bits, T, name)                                               \
    KORVANE_RUNTIME int __tsan_atomic##bits##_compare_exchange_##name(                   \
        volatile T* object, T* expected, T value, int order, int) {                      \
        bool exchanged = false;                                                          \
        atomically<T>(Step::AtomicChange, object, order, KORVANE_CALLER, [&] {           \
            exchanged = __atomic_compare_exchange_n(object, expected, value, false,      \
                                                    __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST); \
            return value;                                                                \
        });                                                                              \
        return exchanged ? 1 : 0;                                                        \
    }

#define KORVANE_ATOMICS(bits, T)                                                                 \
    KORVANE_RUNTIME T __tsan_atomic##bits##_load(const volatile T* object, int order) {          \
        return atomically<T>(Step::AtomicLoad, object, order, KORVANE_CALLER,                    \
                             [=] { return __atomic_load_n(object, __ATOMIC_SEQ_CST); });         \
    }                                                                                            \
    KORVANE_RUNTIME void __tsan_atomic##bits##_store(volatile T* object, T value, int order) {   \
        atomically<T>(Step::AtomicStore, object, order, KORVANE_CALLER, [=] {                    \
            __atomic_store_n(object, value, __ATOMIC_SEQ_CST);                                   \
            return value;                                                                        \
        });                                                                                      \
    }                                                                                            \
    KORVANE_CHANGE(bits, T, exchange, __atomic_exchange_n)                                       \
    KORVANE_CHANGE(bits, T, fetch_add, __atomic_fetch_add)                                       \
    KORVANE_CHANGE(bits, T, fetch_sub, __atomic_fetch_sub)                                       \
    KORVANE_CHANGE(bits, T, fetch_and, __atomic_fetch_and)                                       \
    KORVANE_CHANGE(bits, T, fetch_or, __atomic_fetch_or)                                         \
    KORVANE_CHANGE(bits, T, fetch_xor, __atomic_fetch_xor)                                       \
    KORVANE_CHANGE(bits, T, fetch_nand, __atomic_fetch_nand)                                     \
    KORVANE_EXCHANGE_IF(bits, T, strong)                                                         \
    KORVANE_EXCHANGE_IF(bits, T, weak)                                                           \
    KORVANE_RUNTIME T __tsan_atomic##bits##_compare_exchange_val(volatile T* object, T expected, \
                                                                 T value, int order, int) {      \
        return atomically<T>(Step::AtomicChange, object, order, KORVANE_CALLER, [&] {            \
            __atomic_compare_exchange_n(object, &expected, value, false, __ATOMIC_SEQ_CST,       \
                                        __ATOMIC_SEQ_CST);                                       \
            return expected;                                                                     \
        });                                                                                      \
    }

KORVANE_ATOMICS(8, uint8_t)
KORVANE_ATOMICS(16, uint16_t)
KORVANE_ATOMICS(32, uint32_t)
KORVANE_ATOMICS(64, uint64_t)

KORVANE_RUNTIME void __tsan_atomic_thread_fence(int order) {
    if (gDetectors != nullptr) {
        gDetectors->fence(order);
    }
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
}

KORVANE_RUNTIME void __tsan_atomic_signal_fence(int) {}

// ---- memory: the linker redirects the instrumented code's allocations (--wrap), and every delete
// of the process ends here, because another library may delete what that code has made ----

namespace {

void* allocated(size_t bytes, size_t alignment, const void* code) {
    return gDetectors != nullptr ? gDetectors->allocate(bytes, alignment, code) : nullptr;
}

/// @return whether the block was one of the arena
bool freed(void* block, const void* code) {
    return gDetectors != nullptr && block != nullptr && gDetectors->free(block, code);
}

void deleted(void* block, const void* code) {
    if (!freed(block, code)) {
        if (gDetectors != nullptr && block != nullptr) {
            gDetectors->forgetLocks(block, malloc_usable_size(block));
        }
        std::free(block);
    }
}

constexpr size_t kPlain = alignof(std::max_align_t);

}  // namespace

#define KORVANE_NEW(symbol, parameters, alignment, otherwise)            \
    KORVANE_RUNTIME void* __wrap_##symbol parameters {                   \
        void* const block = allocated(bytes, alignment, KORVANE_CALLER); \
        return block != nullptr ? block : (otherwise);                   \
    }

KORVANE_NEW(_Znwm, (size_t bytes), kPlain, operator new(bytes))
KORVANE_NEW(_Znam, (size_t bytes), kPlain, operator new(bytes))
KORVANE_NEW(_ZnwmRKSt9nothrow_t, (size_t bytes, const std::nothrow_t& none),
            kPlain, operator new(bytes, none))
KORVANE_NEW(_ZnamRKSt9nothrow_t, (size_t bytes, const std::nothrow_t& none),
            kPlain, operator new(bytes, none))
KORVANE_NEW(_ZnwmSt11align_val_t, (size_t bytes, std::align_val_t alignment),
            static_cast<size_t>(alignment), operator new(bytes, alignment))
KORVANE_NEW(malloc, (size_t bytes), kPlain, std::malloc(bytes))

KORVANE_RUNTIME void* __wrap_calloc(size_t count, size_t bytes) {
    void* const block = allocated(count * bytes, kPlain, KORVANE_CALLER);
    return block != nullptr ? std::memset(block, 0, count * bytes) : std::calloc(count, bytes);
}

KORVANE_RUNTIME void __wrap_free(void* block) {
    if (!freed(block, KORVANE_CALLER)) {
        std::free(block);
    }
}

#define KORVANE_DELETE(...)                                                              \
    __attribute__((visibility("default"))) void operator delete __VA_ARGS__ noexcept {   \
        deleted(block, KORVANE_CALLER);                                                  \
    }                                                                                    \
    __attribute__((visibility("default"))) void operator delete[] __VA_ARGS__ noexcept { \
        deleted(block, KORVANE_CALLER);                                                  \
    }

KORVANE_DELETE((void* block))
KORVANE_DELETE((void* block, size_t))
KORVANE_DELETE((void* block, const std::nothrow_t&))
KORVANE_DELETE((void* block, std::align_val_t))
KORVANE_DELETE((void* block, size_t, std::align_val_t))

// The guards of static variables: released out of sight, by the C++ library.

// The C++ ABI's own; C++ libraries declare them with different types.
extern "C" int acquireGuard(void* guard) __asm__("__cxa_guard_acquire");
extern "C" void releaseGuard(void* guard) __asm__("__cxa_guard_release");

KORVANE_RUNTIME int __wrap___cxa_guard_acquire(void* guard) {
    const int mine = acquireGuard(guard);
    if (mine == 0 && gDetectors != nullptr) {
        gDetectors->acquire(guard);
    }
    return mine;
}

KORVANE_RUNTIME void __wrap___cxa_guard_release(void* guard) {
    if (gDetectors != nullptr) {
        gDetectors->release(guard);
    }
    releaseGuard(guard);
}

// NOLINTEND(bugprone-reserved-identifier,bugprone-macro-parentheses)
