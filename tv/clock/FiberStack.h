// SPDX-License-Identifier: Apache-2.0
// The stacks of threads in virtual time. Each is mapped with a guard page below it, which catches
// an overflow, and is reused for the next thread when its own has ended, in this virtual time or in
// the next one of the process.
#pragma once

#include <cstddef>
#include <vector>

namespace korvane::tv {

/// A stack with its guard page.
struct FiberStack {
    char* memory = nullptr;  ///< the guard page
    size_t bytes = 0;        ///< of all that is mapped
    char* bottom = nullptr;  ///< above the guard page
    char* top = nullptr;     ///< where it begins; it grows downwards

    size_t usable() const { return static_cast<size_t>(top - bottom); }
};

/// Maps stacks and keeps those of the default size for reuse.
class FiberStacks {
public:
    /// The threads of decoders and renderers use a tenth of it; untouched pages cost nothing.
    static constexpr size_t kDefaultBytes = 1 << 20;

    /// The process's.
    static FiberStacks& kept();

    FiberStacks() = default;
    ~FiberStacks();
    FiberStacks(const FiberStacks&) = delete;
    FiberStacks& operator=(const FiberStacks&) = delete;

    /// @return a stack of at least so many bytes; `memory` is null if mapping failed
    FiberStack take(size_t bytes);
    void giveBack(const FiberStack& stack);

private:
    std::vector<FiberStack> mFree;
    size_t mMade = 0;
};

}  // namespace korvane::tv
