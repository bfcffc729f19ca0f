// SPDX-License-Identifier: Apache-2.0
#include "tv/clock/FiberStack.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

namespace korvane::tv {
namespace {

size_t pageBytes() {
    static const auto bytes = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return bytes;
}

}  // namespace

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
    const size_t page = pageBytes();
    const size_t usable = (std::max(bytes, kDefaultBytes) + page - 1) / page * page;
    const size_t total = usable + page;
    void* memory = mmap(nullptr, total, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED) {
        return {};
    }
    if (mprotect(memory, page, PROT_NONE) != 0) {
        munmap(memory, total);
        return {};
    }
    return {static_cast<char*>(memory), total};
}

void FiberStacks::giveBack(const FiberStack& stack) {
    if (stack.bytes == kDefaultBytes + pageBytes()) {
        mFree.push_back(stack);
    } else if (stack.memory != nullptr) {
        munmap(stack.memory, stack.bytes);
    }
}

}  // namespace korvane::tv
