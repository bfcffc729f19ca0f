// SPDX-License-Identifier: Apache-2.0
#include "tv/clock/FiberStack.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

namespace korvane::tv {
namespace {

// Stacks begin at different offsets in their pages. With equal offsets the fibers' stacks would
// share the same few cache lines and evict each other at each switch.
constexpr size_t kOffsets = 61;
constexpr size_t kOffsetBytes = 192;

size_t pageBytes() {
    static const auto bytes = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return bytes;
}

/// The request, at least the default, plus the largest offset and the guard page; whole pages.
size_t mappedBytes(size_t stackBytes) {
    const size_t page = pageBytes();
    const size_t wanted =
        std::max(stackBytes, FiberStacks::kDefaultBytes) + kOffsets * kOffsetBytes;
    return (wanted + page - 1) / page * page + page;
}

}  // namespace

FiberStacks& FiberStacks::kept() {
    static FiberStacks stacks;
    return stacks;
}

FiberStacks::~FiberStacks() {
    for (const FiberStack& stack : mFree) {
        munmap(stack.memory, stack.bytes);
    }
}

FiberStack FiberStacks::take(size_t bytes) {
    if (bytes <= kDefaultBytes && !mFree.empty()) {
        const FiberStack stack = mFree.back();
        mFree.pop_back();
        return stack;
    }
    const size_t total = mappedBytes(bytes);
    void* memory = mmap(nullptr, total, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED) {
        return {};
    }
    if (mprotect(memory, pageBytes(), PROT_NONE) != 0) {
        munmap(memory, total);
        return {};
    }
    char* const guard = static_cast<char*>(memory);
    return {guard, total, guard + pageBytes(), guard + total - (mMade++ % kOffsets) * kOffsetBytes};
}

void FiberStacks::giveBack(const FiberStack& stack) {
    if (stack.bytes == mappedBytes(kDefaultBytes)) {
        mFree.push_back(stack);
    } else if (stack.memory != nullptr) {
        munmap(stack.memory, stack.bytes);
    }
}

}  // namespace korvane::tv
