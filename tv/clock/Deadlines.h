// SPDX-License-Identifier: Apache-2.0
// The fibers that wait with a deadline: a binary heap, the earliest in front. A fiber knows its
// place in it, so that a wait that ends early leaves without a search. Nothing is allocated but
// when a fiber is made.
#pragma once

#include <vector>

#include "tv/clock/Fiber.h"

namespace korvane::tv {

class Deadlines {
public:
    /// The earliest deadline, kNever without any.
    int64_t firstNs() const { return mFirstNs; }

    size_t size() const { return mHeap.size() - 1; }

    void reserve(size_t fibers) { mHeap.reserve(fibers + 1); }

    void add(Fiber* fiber, int64_t deadlineNs) {
        mHeap.push_back({deadlineNs, fiber});
        rise(mHeap.size() - 1);
        mFirstNs = mHeap[1].deadlineNs;
    }

    bool has(const Fiber* fiber) const { return fiber->deadlineIndex != kNone; }

    void remove(Fiber* fiber) {
        const size_t index = fiber->deadlineIndex;
        fiber->deadlineIndex = kNone;
        const Entry last = mHeap.back();
        mHeap.pop_back();
        if (last.fiber != fiber) {
            put(index, last);
            rise(index);
            sink(last.fiber->deadlineIndex);
        }
        mFirstNs = mHeap.size() > 1 ? mHeap[1].deadlineNs : kNever;
    }

    Fiber* takeFirst() {
        Fiber* const first = mHeap[1].fiber;
        remove(first);
        return first;
    }

    int64_t of(const Fiber* fiber) const {
        return has(fiber) ? mHeap[fiber->deadlineIndex].deadlineNs : kNever;
    }

private:
    static constexpr size_t kNone = 0;  // the heap starts at 1

    struct Entry {
        int64_t deadlineNs;
        Fiber* fiber;
    };

    void put(size_t index, const Entry& entry) {
        mHeap[index] = entry;
        entry.fiber->deadlineIndex = index;
    }

    void rise(size_t index) {
        const Entry entry = mHeap[index];
        while (index > 1 && entry.deadlineNs < mHeap[index / 2].deadlineNs) {
            put(index, mHeap[index / 2]);
            index /= 2;
        }
        put(index, entry);
    }

    void sink(size_t index) {
        const Entry entry = mHeap[index];
        for (size_t child = 2 * index; child < mHeap.size(); child = 2 * index) {
            if (child + 1 < mHeap.size() && mHeap[child + 1].deadlineNs < mHeap[child].deadlineNs) {
                ++child;
            }
            if (entry.deadlineNs <= mHeap[child].deadlineNs) {
                break;
            }
            put(index, mHeap[child]);
            index = child;
        }
        put(index, entry);
    }

    int64_t mFirstNs = kNever;
    std::vector<Entry> mHeap{{0, nullptr}};
};

}  // namespace korvane::tv
