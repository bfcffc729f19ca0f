// SPDX-License-Identifier: Apache-2.0
// The fibers that wait for an object, found by its address: buckets of linked fibers, in the order
// in which they began to wait. Addresses decide only how long a search takes, never what it finds.
// The objects themselves are not touched.
#pragma once

#include <algorithm>
#include <array>
#include <boost/intrusive/list.hpp>

#include "tv/clock/Fiber.h"

namespace korvane::tv {

class Waiters {
public:
    void add(Fiber& fiber) { mBuckets[index(fiber.waitObject)].push_back(fiber); }

    /// Call it only for a fiber that was added; its `waitObject` becomes null.
    void remove(Fiber& fiber) {
        mBuckets[index(fiber.waitObject)].erase(Bucket::s_iterator_to(fiber));
        fiber.waitObject = nullptr;
    }

    size_t count(const void* object) const {
        const Bucket& bucket = mBuckets[index(object)];
        return static_cast<size_t>(
            std::count_if(bucket.begin(), bucket.end(),
                          [object](const Fiber& fiber) { return fiber.waitObject == object; }));
    }

    /// The one that began to wait for an object after `skipped` others; null without such a one.
    Fiber* find(const void* object, size_t skipped = 0) {
        for (Fiber& fiber : mBuckets[index(object)]) {
            if (fiber.waitObject == object && skipped-- == 0) {
                return &fiber;
            }
        }
        return nullptr;
    }

private:
    static constexpr int kBucketBits = 10;  // the waits of a thousand renderers rarely share one

    using Bucket =
        boost::intrusive::list<Fiber,
                               boost::intrusive::member_hook<Fiber, FiberHook, &Fiber::waiterHook>,
                               boost::intrusive::constant_time_size<false>>;

    static size_t index(const void* object) {
        return (reinterpret_cast<uintptr_t>(object) * 0x9e3779b97f4a7c15) >> (64 - kBucketBits);
    }

    std::array<Bucket, size_t{1} << kBucketBits> mBuckets;
};

}  // namespace korvane::tv
