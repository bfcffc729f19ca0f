// SPDX-License-Identifier: Apache-2.0
// A bounded lock-free queue of trace events: many producers, one consumer. Each cell has a sequence
// number: equal to a position, the cell is free for that position's put; one more, it is ready for
// that position's take. A put claims its position by one compare-and-swap and fails when the ring
// is full.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

namespace korvane::tv {

struct TraceEvent {
    enum class Kind : uint8_t { Begin, End, Counter, AsyncBegin, AsyncEnd, Slice };
    Kind kind = Kind::Begin;
    int32_t thread = 0;  ///< thread id; a slice's track
    int64_t timeNs = 0;
    int64_t value = 0;  ///< counter's value, slice's duration in ns, async event's cookie
    std::array<char, 48> name{};
};

class TraceRing {
public:
    TraceRing() : mCells(std::make_unique<Cell[]>(kCells)) {
        for (uint64_t i = 0; i < kCells; ++i) {
            mCells[i].sequence.store(i, std::memory_order_relaxed);
        }
    }

    /// Any thread. @return false when the ring is full
    bool put(const TraceEvent& event) {
        uint64_t position = mPut.load(std::memory_order_relaxed);
        for (;;) {
            Cell& cell = mCells[position % kCells];
            const uint64_t sequence = cell.sequence.load(std::memory_order_acquire);
            if (sequence == position) {
                if (mPut.compare_exchange_weak(position, position + 1, std::memory_order_relaxed)) {
                    cell.event = event;
                    cell.sequence.store(position + 1, std::memory_order_release);
                    return true;
                }
            } else if (sequence < position) {
                return false;
            } else {
                position = mPut.load(std::memory_order_relaxed);
            }
        }
    }

    /// One thread at a time. @return false when the ring is empty
    bool take(TraceEvent* event) {
        Cell& cell = mCells[mTake % kCells];
        if (cell.sequence.load(std::memory_order_acquire) != mTake + 1) {
            return false;
        }
        *event = cell.event;
        cell.sequence.store(mTake + kCells, std::memory_order_release);
        ++mTake;
        return true;
    }

    /// A few seconds of all that the library traces, in about 1.5 MB.
    static constexpr uint64_t kCells = 16384;

private:
    struct Cell {
        std::atomic<uint64_t> sequence{0};
        TraceEvent event;
    };
    std::unique_ptr<Cell[]> mCells;
    std::atomic<uint64_t> mPut{0};
    uint64_t mTake = 0;
};

}  // namespace korvane::tv
