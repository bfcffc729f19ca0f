// SPDX-License-Identifier: Apache-2.0
// Strategies: which schedules of a program are visited, one after the other.
//
//   RandomWalk   at each point another thread with some probability; each choice uniform
//   Pct          threads have random priorities, the highest of those that can run runs; at d - 1
//                random points the running one gets the lowest. With n threads and k points a run
//                finds a bug of depth d with a probability of at least 1 / (n k^(d-1)).
//   Exhaustive   every schedule with at most so many preemptions, depth first
//   Replay       the schedule that a text says
//
// Each records where a run differed from the default; a Replay of that gives the same run. One
// object serves many runs: `next` before each.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tv/clock/Schedule.h"
#include "tv/clock/Seed.h"
#include "tv/explore/ScheduleText.h"

#define KORVANE_EXPLORE_API __attribute__((visibility("default")))

namespace korvane::tv {

class SharedPlaces;

/// Plain data, for memory that processes share. Deviations beyond its end are only counted.
struct DeviationMirror {
    static constexpr size_t kMost = 4096;

    volatile size_t count = 0;
    Deviation deviations[kMost];
};

class KORVANE_EXPLORE_API Strategy : public Schedule {
public:
    /// Prepares the next run.
    /// @return false when every run has been made
    bool next();

    /// The number of that run, from 1.
    uint64_t run() const { return mRun; }

    /// Sets the number of the next run. A random strategy's run depends only on seed and number.
    void startAt(uint64_t run) { mRun = run - 1; }

    /// The run's schedule so far.
    const std::vector<Deviation>& deviations() const { return mDeviations; }

    /// The total time for which the schedule has kept threads from running in this run.
    int64_t awayNs() const { return mAwayNs; }

    /// Preempts at these places only, and counts only points there. Set between two runs; null: at
    /// every point.
    void onlyAt(const SharedPlaces* places) { mPlaces = places; }

    /// Points of the run so far at which the strategy could preempt, if `onlyAt` is set.
    uint64_t pointsThere() const { return mPointsThere; }

    /// Copies each deviation there when it is decided, for a process that survives this one.
    void mirrorTo(DeviationMirror* mirror) { mMirror = mirror; }

    Preemption preempt(const SchedulePoint& point, const ThreadList& runnable) final;
    size_t choose(const ScheduleChoice& choice) final;
    bool wakesSpuriously(int32_t thread, uint64_t threadStep) final;

protected:
    /// Points before this one need no decision.
    void askAgainFrom(uint64_t index) {
        mNext = index;
        mAskFrom = mPlaces == nullptr ? index : 0;
    }

    virtual bool begin() = 0;
    virtual Preemption decidePoint(const SchedulePoint& point, const ThreadList& runnable) = 0;
    virtual size_t decideChoice(const ScheduleChoice& choice) = 0;
    virtual bool decideSpurious(int32_t thread, uint64_t threadStep) = 0;

private:
    void record(const Deviation& deviation);

    uint64_t mRun = 0;
    int64_t mAwayNs = 0;
    std::vector<Deviation> mDeviations;
    DeviationMirror* mMirror = nullptr;
    const SharedPlaces* mPlaces = nullptr;
    uint64_t mPointsThere = 0;
    uint64_t mNext = 0;
};

/// What the random strategies share.
struct RandomOptions {
    uint64_t seed = 1;
    /// Out of 65536 preemptions, those after which the thread cannot run for some time.
    uint32_t away = 16384;
    /// The longest such time; lengths are drawn evenly among powers of two.
    int64_t longestAwayNs = 40'000'000;
    /// Out of 65536 waits on a condition, those that end spuriously.
    uint32_t spuriousWakeups = 1024;
};

/// Draws from a seed. Waits end without cause at random.
class KORVANE_EXPLORE_API SeededStrategy : public Strategy {
protected:
    explicit SeededStrategy(const RandomOptions& options);

    /// Each run draws other numbers.
    void seedRun();
    int64_t drawAwayNs();
    bool decideSpurious(int32_t thread, uint64_t threadStep) override;

    const RandomOptions mOptions;
    Seed mSeed;
};

class KORVANE_EXPLORE_API RandomWalk : public SeededStrategy {
public:
    /// @param preemptions  how many of 65536 points preempt; 0: each run another, from every second
    ///                     point to every 1024th
    explicit RandomWalk(const RandomOptions& options, uint32_t preemptions = 0);

protected:
    bool begin() override;
    Preemption decidePoint(const SchedulePoint& point, const ThreadList& runnable) override;
    size_t decideChoice(const ScheduleChoice& choice) override;

private:
    uint64_t gap();

    const uint32_t mPreemptions;
    double mLogStay = 0;  ///< logarithm of the probability that a point does not preempt
};

class KORVANE_EXPLORE_API Pct : public SeededStrategy {
public:
    /// @param depth   of the bugs looked for: 1 needs only an order of the threads
    /// @param points  k, about as many as a run has
    Pct(const RandomOptions& options, int depth, uint64_t points);

    void becameRunnable(int32_t thread) override;

protected:
    bool begin() override;
    Preemption decidePoint(const SchedulePoint& point, const ThreadList& runnable) override;
    size_t decideChoice(const ScheduleChoice& choice) override;

private:
    int64_t& priority(int32_t thread);
    size_t highest(const ThreadList& threads);

    const int mDepth;
    const uint64_t mPoints;
    std::vector<int64_t> mPriorities;      ///< by thread; 0: not drawn yet
    std::vector<uint64_t> mChangesToCome;  ///< indices of points, the next one last
    int64_t mLowest = 0;
};

class KORVANE_EXPLORE_API Exhaustive : public Strategy {
public:
    /// @param preemptions  most of them in a run; choices where a thread waits are not counted
    explicit Exhaustive(int preemptions);

    /// Whether every schedule has been visited; then `run` says how many there are.
    bool complete() const { return mComplete; }

    /// The program behaved differently under the same beginning of a schedule, so `complete` means
    /// nothing.
    bool diverged() const { return mDiverged; }

protected:
    bool begin() override;
    Preemption decidePoint(const SchedulePoint& point, const ThreadList& runnable) override;
    size_t decideChoice(const ScheduleChoice& choice) override;
    bool decideSpurious(int32_t thread, uint64_t threadStep) override;

private:
    struct Branch {
        size_t taken;
        size_t ways;
    };

    size_t follow(size_t ways);

    const int mMost;
    int mPreemptions = 0;  ///< so far in this run
    std::vector<Branch> mBranches;
    size_t mDepth = 0;  ///< branches so far in this run
    bool mComplete = false;
    bool mDiverged = false;
};

class KORVANE_EXPLORE_API Replay : public Strategy {
public:
    explicit Replay(std::vector<Deviation> schedule);

    /// Whether the run had every decision of the schedule.
    bool followed() const { return mFollowed == mSchedule.size(); }

protected:
    bool begin() override;
    Preemption decidePoint(const SchedulePoint& point, const ThreadList& runnable) override;
    size_t decideChoice(const ScheduleChoice& choice) override;
    bool decideSpurious(int32_t thread, uint64_t threadStep) override;

private:
    const Deviation* find(int32_t thread, uint64_t step);

    const std::vector<Deviation> mSchedule;
    size_t mFollowed = 0;
};

}  // namespace korvane::tv
