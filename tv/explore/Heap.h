// SPDX-License-Identifier: Apache-2.0
// The memory that instrumented code allocates while schedules are explored: consecutive blocks of
// an arena, never reused in a run, so that every access to a freed block is recognised. The next
// run begins at the start of the arena again, after the blocks that the last run left.
//
// One byte for each eight of the arena says how many of them belong to a live block, or that the
// block was freed. Blocks have eight bytes or more that belong to nobody between them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tv/explore/CallStacks.h"

namespace korvane::tv {

/// Where in the program something happened.
struct CodePlace {
    const void* code = nullptr;
    StackId stack = CallStacks::kEmpty;
    int32_t thread = 0;
};

struct HeapBlock {
    const char* begin = nullptr;
    size_t bytes = 0;
    CodePlace allocated;
    CodePlace freed;
    bool living = true;
};

class Heap {
public:
    static constexpr size_t kArenaBytes = size_t{32} << 20;
    static constexpr size_t kGranule = 8;

    Heap();
    ~Heap();
    Heap(const Heap&) = delete;
    Heap& operator=(const Heap&) = delete;

    const char* arena() const { return mArena; }
    bool contains(const void* address) const { return offset(address) < kArenaBytes; }
    /// In the arena, from its start.
    size_t offset(const void* address) const {
        return static_cast<size_t>(static_cast<const char*>(address) - mArena);
    }

    /// Whether these bytes belong to live blocks; the address is in the arena.
    bool living(const void* address, size_t bytes) const {
        const size_t at = offset(address);
        const size_t first = at % kGranule;
        const uint8_t state = mStates[at / kGranule];
        return first + bytes <= kGranule ? state != kFreed && first + bytes <= state
                                         : livingRange(at, bytes);
    }

    /// @return null when the arena is used up
    void* allocate(size_t bytes, size_t alignment, const CodePlace& place);
    /// @return the live block that begins there; null for none
    HeapBlock* find(const void* begin);
    /// The block at an address or right before it; null for none.
    const HeapBlock* near(const void* address) const;
    void free(HeapBlock& block, const CodePlace& place);

    /// Blocks of this run, in the order of allocation.
    const std::vector<HeapBlock>& blocks() const { return mBlocks; }
    size_t indexOf(const HeapBlock& block) const {
        return static_cast<size_t>(&block - mBlocks.data());
    }

    /// Begins the next run; blocks that are still live stay where they are, because something may
    /// point to them.
    void beginRun();

private:
    static constexpr uint8_t kFreed = 0xff;

    bool livingRange(size_t at, size_t bytes) const;

    char* const mArena;
    uint8_t* const mStates;
    size_t mStart = 0;  ///< of the run
    size_t mUsed = 0;
    std::vector<HeapBlock> mBlocks;
};

}  // namespace korvane::tv
