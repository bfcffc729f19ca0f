// SPDX-License-Identifier: Apache-2.0
// The places of a program at which it matters which thread runs: those that access an object that
// one thread changes while another thread that accesses it exists already. A preemption anywhere
// else has the same effect as one at the thread's next such place, so strategies can skip the other
// points.
//
// They are learned from extra runs: `Learning` wraps a strategy and notes every point.
#pragma once

#include <algorithm>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "tv/explore/Strategies.h"

namespace korvane::tv {

class KORVANE_EXPLORE_API SharedPlaces {
public:
    void note(const SchedulePoint& point);
    /// A thread can run, perhaps for the first time.
    void noteThread(int32_t thread) { mNewestThread = std::max(mNewestThread, thread); }
    /// The run has ended; the next one has other objects.
    void endRun();

    /// Whether it matters who runs at this point. Making and joining a thread always does.
    bool has(const SchedulePoint& point) const {
        return point.object == nullptr || mPlaces.count(point.code) != 0;
    }
    size_t count() const { return mPlaces.size(); }

private:
    struct User {
        int32_t thread;
        int32_t newestAtChange;  ///< the newest thread when this one changed it last; 0: it did not
    };
    struct Object {
        std::vector<User> users;
        std::vector<const void*> places;

        bool isShared() const;
    };

    std::unordered_map<const void*, Object> mObjects;  ///< of the run
    int32_t mNewestThread = 0;
    std::unordered_set<const void*> mPlaces;
};

/// Makes a strategy's runs and notes their points.
class KORVANE_EXPLORE_API Learning : public Schedule {
public:
    Learning(Strategy& strategy, SharedPlaces& places) : mStrategy(strategy), mPlaces(places) {}

    Preemption preempt(const SchedulePoint& point, const ThreadList& runnable) override;
    size_t choose(const ScheduleChoice& choice) override { return mStrategy.choose(choice); }
    bool wakesSpuriously(int32_t thread, uint64_t threadStep) override {
        return mStrategy.wakesSpuriously(thread, threadStep);
    }
    void becameRunnable(int32_t thread) override {
        mPlaces.noteThread(thread);
        mStrategy.becameRunnable(thread);
    }

private:
    Strategy& mStrategy;
    SharedPlaces& mPlaces;
};

}  // namespace korvane::tv
