// SPDX-License-Identifier: Apache-2.0
// The fibers that wait for an object, found by its address: buckets of linked fibers, in the order
// in which they began to wait. What happens does not depend on addresses, only how long a search
// takes. The objects themselves are not touched.
#pragma once

#include <array>

#include "tv/clock/Fiber.h"

namespace korvane::tv {

class Waiters {
public:
    void add(Fiber* fiber) {
        Bucket& bucket = of(fiber->waitObject);
        fiber->previousWaiter = bucket.last;
        fiber->nextWaiter = nullptr;
        (bucket.last != nullptr ? bucket.last->nextWaiter : bucket.first) = fiber;
        bucket.last = fiber;
    }

    /// The object of a fiber that is in no bucket is null.
    void remove(Fiber* fiber) {
        Bucket& bucket = of(fiber->waitObject);
        Fiber* const next = fiber->nextWaiter;
        Fiber* const previous = fiber->previousWaiter;
        (previous != nullptr ? previous->nextWaiter : bucket.first) = next;
        (next != nullptr ? next->previousWaiter : bucket.last) = previous;
        fiber->waitObject = nullptr;
    }

    size_t count(const void* object) const {
        size_t found = 0;
        for (Fiber* fiber = first(object); fiber != nullptr; fiber = next(fiber)) {
            ++found;
        }
        return found;
    }

    /// The first to wait for an object, and the one after; null when there is no more.
    Fiber* first(const void* object) const {
        Fiber* fiber = mBuckets[index(object)].first;
        while (fiber != nullptr && fiber->waitObject != object) {
            fiber = fiber->nextWaiter;
        }
        return fiber;
    }
    static Fiber* next(const Fiber* fiber) {
        Fiber* other = fiber->nextWaiter;
        while (other != nullptr && other->waitObject != fiber->waitObject) {
            other = other->nextWaiter;
        }
        return other;
    }

private:
    static constexpr int kBucketBits = 10;  // a thousand renderers' waits rarely meet

    struct Bucket {
        Fiber* first = nullptr;
        Fiber* last = nullptr;
    };

    static size_t index(const void* object) {
        return (reinterpret_cast<uintptr_t>(object) * 0x9e3779b97f4a7c15) >> (64 - kBucketBits);
    }
    Bucket& of(const void* object) { return mBuckets[index(object)]; }

    std::array<Bucket, size_t{1} << kBucketBits> mBuckets;
};

}  // namespace korvane::tv
