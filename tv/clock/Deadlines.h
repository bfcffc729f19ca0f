// SPDX-License-Identifier: Apache-2.0
// The fibers that wait with a deadline. Threads that poll at the same pace wait for the same
// moments: a binary heap of moments, the earliest in front, holds them in the order in which they
// came. A fiber knows its moment and a moment its place, so that a wait that ends early leaves
// without a search. A moment that is not the latest one used is not looked for: the same time may
// stand in the heap twice. Nothing is allocated but when a fiber is made.
#pragma once

#include <deque>
#include <utility>
#include <vector>

#include "tv/clock/Fiber.h"

namespace korvane::tv {

class Deadlines {
public:
    /// The earliest deadline, kNever without any.
    int64_t firstNs() const { return mFirstNs; }

    /// Whether the earliest deadline has only one fiber, and no other has any.
    bool holdsOne() const {
        return mHeap.size() == 2 && mHeap[1].moment->first == mHeap[1].moment->last;
    }

    void reserve(size_t fibers) {
        while (mMoments.size() < fibers) {
            mFree.push_back(&mMoments.emplace_back());
        }
        mHeap.reserve(fibers + 1);
    }

    void add(Fiber* fiber, int64_t deadlineNs) {
        if (mLatest == nullptr || mLatest->deadlineNs != deadlineNs) {
            mLatest = make(deadlineNs);
        }
        fiber->moment = mLatest;
        fiber->nextSleeper = nullptr;
        fiber->previousSleeper = mLatest->last;
        (mLatest->last != nullptr ? mLatest->last->nextSleeper : mLatest->first) = fiber;
        mLatest->last = fiber;
    }

    static bool has(const Fiber* fiber) { return fiber->moment != nullptr; }

    static int64_t of(const Fiber* fiber) {
        return has(fiber) ? fiber->moment->deadlineNs : kNever;
    }

    void remove(Fiber* fiber) {
        Moment* const moment = std::exchange(fiber->moment, nullptr);
        Fiber* const next = fiber->nextSleeper;
        Fiber* const previous = fiber->previousSleeper;
        (next != nullptr ? next->previousSleeper : moment->last) = previous;
        (previous != nullptr ? previous->nextSleeper : moment->first) = next;
        if (moment->first == nullptr) {
            forget(moment);
        }
    }

    /// Takes out all of a moment with the earliest deadline.
    /// @return the first of them; `nextSleeper` leads to the others
    Fiber* takeFirst() {
        Moment* const moment = mHeap[1].moment;
        Fiber* const first = moment->first;
        for (Fiber* fiber = first; fiber != nullptr; fiber = fiber->nextSleeper) {
            fiber->moment = nullptr;
        }
        forget(moment);
        return first;
    }

private:
    struct Entry {
        int64_t deadlineNs;
        Moment* moment;
    };

    Moment* make(int64_t deadlineNs) {
        Moment* const moment = mFree.back();
        mFree.pop_back();
        *moment = {deadlineNs, nullptr, nullptr, 0};
        mHeap.push_back({deadlineNs, moment});
        rise(mHeap.size() - 1);
        mFirstNs = mHeap[1].deadlineNs;
        return moment;
    }

    void forget(Moment* moment) {
        const Entry last = mHeap.back();
        mHeap.pop_back();
        if (last.moment != moment) {
            put(moment->place, last);
            rise(moment->place);
            sink(last.moment->place);
        }
        mFirstNs = mHeap.size() > 1 ? mHeap[1].deadlineNs : kNever;
        if (mLatest == moment) {
            mLatest = nullptr;
        }
        mFree.push_back(moment);
    }

    void put(size_t place, const Entry& entry) {
        mHeap[place] = entry;
        entry.moment->place = place;
    }

    void rise(size_t place) {
        const Entry entry = mHeap[place];
        while (place > 1 && entry.deadlineNs < mHeap[place / 2].deadlineNs) {
            put(place, mHeap[place / 2]);
            place /= 2;
        }
        put(place, entry);
    }

    void sink(size_t place) {
        const Entry entry = mHeap[place];
        for (size_t child = 2 * place; child < mHeap.size(); child = 2 * place) {
            if (child + 1 < mHeap.size() && mHeap[child + 1].deadlineNs < mHeap[child].deadlineNs) {
                ++child;
            }
            if (entry.deadlineNs <= mHeap[child].deadlineNs) {
                break;
            }
            put(place, mHeap[child]);
            place = child;
        }
        put(place, entry);
    }

    int64_t mFirstNs = kNever;
    Moment* mLatest = nullptr;
    std::vector<Entry> mHeap{{0, nullptr}};  // from 1
    std::vector<Moment*> mFree;
    std::deque<Moment> mMoments;  // stay where they are
};

}  // namespace korvane::tv
