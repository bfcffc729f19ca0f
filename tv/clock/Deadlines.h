// SPDX-License-Identifier: Apache-2.0
// The fibers that wait with a deadline: a binary heap of timer slots, the earliest in front. A slot
// has one deadline and lists the fibers that wait for it, in the order in which they came, because
// threads that poll at the same pace share their deadlines. A fiber knows its slot and a slot its
// index in the heap, so that a wait that ends early leaves without a search. A new deadline is
// compared only with that of the slot used last, so two slots may have the same one. Nothing is
// allocated except when a thread is created.
//
// A Boost.Intrusive multiset of the fibers would do in a third of the lines, but wakes equal
// deadlines in another order, and a minute of 64 renderers takes it 1.08 s instead of 0.79 s.
#pragma once

#include <boost/intrusive/list.hpp>
#include <deque>
#include <utility>
#include <vector>

#include "tv/clock/Fiber.h"

namespace korvane::tv {

using Sleepers =
    boost::intrusive::list<Fiber,
                           boost::intrusive::member_hook<Fiber, FiberHook, &Fiber::sleeperHook>,
                           boost::intrusive::constant_time_size<false>>;

struct TimerSlot {
    int64_t deadlineNs = 0;
    Sleepers sleepers;
    size_t index = 0;  ///< in the heap
};

class Deadlines {
public:
    /// The earliest deadline, kNever without any.
    int64_t firstNs() const { return mFirstNs; }

    /// Whether a single fiber has a deadline.
    bool holdsOne() const {
        return mHeap.size() == 2 &&
               ++mHeap[1].slot->sleepers.begin() == mHeap[1].slot->sleepers.end();
    }

    void reserve(size_t fibers) {
        while (mSlots.size() < fibers) {
            mFree.push_back(&mSlots.emplace_back());
        }
        mHeap.reserve(fibers + 1);
    }

    void add(Fiber& fiber, int64_t deadlineNs) {
        if (mLatest == nullptr || mLatest->deadlineNs != deadlineNs) {
            mLatest = make(deadlineNs);
        }
        fiber.slot = mLatest;
        mLatest->sleepers.push_back(fiber);
    }

    static bool has(const Fiber& fiber) { return fiber.slot != nullptr; }

    static int64_t of(const Fiber& fiber) { return has(fiber) ? fiber.slot->deadlineNs : kNever; }

    void remove(Fiber& fiber) {
        TimerSlot* const slot = std::exchange(fiber.slot, nullptr);
        slot->sleepers.erase(Sleepers::s_iterator_to(fiber));
        if (slot->sleepers.empty()) {
            release(slot);
        }
    }

    /// Takes out the fibers of a slot with the earliest deadline, and calls `wake` for each.
    template <typename Wake>
    void takeFirst(const Wake& wake) {
        TimerSlot* const slot = mHeap[1].slot;
        for (Fiber& fiber : slot->sleepers) {
            fiber.slot = nullptr;
            wake(fiber);
        }
        slot->sleepers.clear();
        release(slot);
    }

private:
    /// The deadline stands beside the slot, so that the heap is sorted without touching slots.
    struct Entry {
        int64_t deadlineNs;
        TimerSlot* slot;
    };

    TimerSlot* make(int64_t deadlineNs) {
        TimerSlot* const slot = mFree.back();
        mFree.pop_back();
        slot->deadlineNs = deadlineNs;
        mHeap.push_back({deadlineNs, slot});
        rise(mHeap.size() - 1);
        mFirstNs = mHeap[1].deadlineNs;
        return slot;
    }

    void release(TimerSlot* slot) {
        const Entry last = mHeap.back();
        mHeap.pop_back();
        if (last.slot != slot) {
            put(slot->index, last);
            rise(slot->index);
            sink(last.slot->index);
        }
        mFirstNs = mHeap.size() > 1 ? mHeap[1].deadlineNs : kNever;
        if (mLatest == slot) {
            mLatest = nullptr;
        }
        mFree.push_back(slot);
    }

    void put(size_t index, const Entry& entry) {
        mHeap[index] = entry;
        entry.slot->index = index;
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
    TimerSlot* mLatest = nullptr;
    std::vector<Entry> mHeap{{0, nullptr}};  // from 1
    std::vector<TimerSlot*> mFree;
    std::deque<TimerSlot> mSlots;  // stay where they are
};

}  // namespace korvane::tv
