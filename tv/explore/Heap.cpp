// SPDX-License-Identifier: Apache-2.0
#include "tv/explore/Heap.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace korvane::tv {
namespace {

template <typename T>
T* mapped(size_t bytes) {
    void* const memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    return static_cast<T*>(memory);
}

constexpr size_t roundedUp(size_t value, size_t unit) {
    return (value + unit - 1) / unit * unit;
}

}  // namespace

Heap::Heap()
    : mArena(mapped<char>(kArenaBytes)), mStates(mapped<uint8_t>(kArenaBytes / kGranule)) {}

Heap::~Heap() {
    munmap(mArena, kArenaBytes);
    munmap(mStates, kArenaBytes / kGranule);
}

bool Heap::livingRange(size_t at, size_t bytes) const {
    const size_t end = std::min(at + bytes, kArenaBytes);
    while (at < end) {
        const size_t granuleEnd = std::min(end, (at / kGranule + 1) * kGranule);
        const uint8_t state = mStates[at / kGranule];
        if (state == kFreed || granuleEnd - at / kGranule * kGranule > state) {
            return false;
        }
        at = granuleEnd;
    }
    return true;
}

void* Heap::allocate(size_t bytes, size_t alignment, const CodePlace& place) {
    alignment = std::max(alignment, alignof(std::max_align_t));
    const size_t begin = roundedUp(mUsed + kGranule, alignment);
    if (bytes > kArenaBytes || begin + bytes + kGranule > kArenaBytes) {
        return nullptr;
    }
    mUsed = roundedUp(begin + bytes, kGranule);
    std::memset(mStates + begin / kGranule, kGranule, bytes / kGranule);
    if (bytes % kGranule != 0) {
        mStates[(begin + bytes) / kGranule] = static_cast<uint8_t>(bytes % kGranule);
    }
    mBlocks.push_back({mArena + begin, bytes, place, {}, true});
    // The same contents in every run, and no pointers that look valid.
    return std::memset(mArena + begin, 0xbe, bytes);
}

HeapBlock* Heap::find(const void* begin) {
    auto* const block = const_cast<HeapBlock*>(near(begin));
    return block != nullptr && block->begin == begin ? block : nullptr;
}

const HeapBlock* Heap::near(const void* address) const {
    const auto after = std::upper_bound(
        mBlocks.begin(), mBlocks.end(), static_cast<const char*>(address),
        [](const char* wanted, const HeapBlock& block) { return wanted < block.begin; });
    return after != mBlocks.begin() ? &*(after - 1) : nullptr;
}

void Heap::free(HeapBlock& block, const CodePlace& place) {
    block.living = false;
    block.freed = place;
    std::memset(mStates + offset(block.begin) / kGranule, kFreed,
                roundedUp(block.bytes, kGranule) / kGranule);
}

void Heap::beginRun() {
    size_t end = mStart;
    mBlocks.erase(std::remove_if(mBlocks.begin(), mBlocks.end(),
                                 [](const HeapBlock& block) { return !block.living; }),
                  mBlocks.end());
    for (const HeapBlock& block : mBlocks) {
        end = std::max(end, roundedUp(offset(block.begin) + block.bytes, kGranule));
    }
    std::memset(mStates + end / kGranule, 0, (mUsed - std::min(end, mUsed)) / kGranule);
    mStart = mUsed = end;
}

}  // namespace korvane::tv
