// SPDX-License-Identifier: Apache-2.0
// A bounded queue of trace events: many threads put, one takes, nobody waits. Each cell carries a
// turn number that says whether it is free for the put or ready for the take of a given position; a
// put claims its position by one compare-and-swap. A put that finds the ring full gives up.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

namespace korvane::tv {

struct TraceEvent {
    enum class Kind : uint8_t { Begin, End, Counter, AsyncBegin, AsyncEnd, Slice };
    Kind kind = Kind::Begin;
    int32_t thread = 0;  ///< thread id; for a slice its track
    int64_t timeNs = 0;
    int64_t value = 0;  ///< counter's value, slice's length in ns, async event's cookie
    std::array<char, 48> name{};
};

class TraceRing {
public:
    TraceRing() : mCells(std::make_unique<Cell[]>(kCells)) {
        for (uint64_t i = 0; i < kCells; ++i) {
            mCells[i].turn.store(i, std::memory_order_relaxed);
        }
    }

    /// Any thread. @return false when the ring is full
    bool put(const TraceEvent& event) {
        uint64_t position = mPut.load(std::memory_order_relaxed);
        for (;;) {
            Cell& cell = mCells[position % kCells];
            const uint64_t turn = cell.turn.load(std::memory_order_acquire);
            if (turn == position) {
                if (mPut.compare_exchange_weak(position, position + 1, std::memory_order_relaxed)) {
                    cell.event = event;
                    cell.turn.store(position + 1, std::memory_order_release);
                    return true;
                }
            } else if (turn < position) {
                return false;
            } else {
                position = mPut.load(std::memory_order_relaxed);
            }
        }
    }

    /// One thread at a time. @return false when there is nothing to take
    bool take(TraceEvent* event) {
        Cell& cell = mCells[mTake % kCells];
        if (cell.turn.load(std::memory_order_acquire) != mTake + 1) {
            return false;
        }
        *event = cell.event;
        cell.turn.store(mTake + kCells, std::memory_order_release);
        ++mTake;
        return true;
    }

    /// A few seconds of everything that the library traces, in about 1.5 MB.
    static constexpr uint64_t kCells = 16384;

private:
    struct Cell {
        std::atomic<uint64_t> turn{0};
        TraceEvent event;
    };
    std::unique_ptr<Cell[]> mCells;
    std::atomic<uint64_t> mPut{0};
    uint64_t mTake = 0;
};

}  // namespace korvane::tv
