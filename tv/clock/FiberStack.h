// SPDX-License-Identifier: Apache-2.0
// The stacks of the virtual gear's threads: mapped when one is asked for, with a page below that
// stops an overflow, and kept for the next thread when theirs has ended.
#pragma once

#include <cstddef>
#include <vector>

namespace korvane::tv {

/// A stack with a page below it that cannot be touched.
struct FiberStack {
    char* memory = nullptr;  ///< the guard page
    size_t bytes = 0;        ///< of all that is mapped
    char* top = nullptr;     ///< where it begins, growing downwards

    size_t usable() const { return static_cast<size_t>(top - memory); }
};

/// Maps stacks and keeps those of the default size for reuse.
class FiberStacks {
public:
    /// A decoder's and a renderer's threads need a tenth of it; pages that are not touched cost
    /// nothing.
    static constexpr size_t kDefaultBytes = 1 << 20;

    FiberStacks() = default;
    ~FiberStacks();
    FiberStacks(const FiberStacks&) = delete;
    FiberStacks& operator=(const FiberStacks&) = delete;

    /// @return a stack of at least so many bytes; memory null when there is none to be had
    FiberStack take(size_t bytes);
    void giveBack(const FiberStack& stack);

private:
    std::vector<FiberStack> mFree;
    size_t mMade = 0;
};

}  // namespace korvane::tv
