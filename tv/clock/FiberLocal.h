// SPDX-License-Identifier: Apache-2.0
// A variable per thread, in real and in virtual time. In virtual time all threads share one kernel
// thread and with it every `thread_local`; a FiberLocal has a value for each thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace korvane::tv {

/// Variables that a process can have; one more ends the process with a message.
constexpr int kFiberLocals = 16;
constexpr int kFiberLocalBytes = 8;

/// One thread's variables, initially zero.
struct alignas(kFiberLocalBytes) FiberSlots {
    std::array<std::array<unsigned char, kFiberLocalBytes>, kFiberLocals> bytes{};
};

__attribute__((visibility("default"))) int newFiberLocal();
__attribute__((visibility("default"))) FiberSlots& fiberSlots();

/// Set by the scheduler: the running fiber's variables. Null: those of the kernel thread.
__attribute__((visibility("hidden"))) extern FiberSlots* gFiberSlots;

/// @tparam T  a plain value of at most 8 bytes, whose initial value has all bits zero.
///         Define it at namespace scope or as a static: its index is never reused.
template <typename T>
class FiberLocal {
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) <= kFiberLocalBytes);

public:
    FiberLocal() : mIndex(newFiberLocal()) {}
    FiberLocal(const FiberLocal&) = delete;
    FiberLocal& operator=(const FiberLocal&) = delete;

    /// The calling thread's value. Valid until that thread ends.
    T& get() const {
        return *reinterpret_cast<T*>(fiberSlots().bytes[static_cast<size_t>(mIndex)].data());
    }

private:
    const int mIndex;
};

}  // namespace korvane::tv
