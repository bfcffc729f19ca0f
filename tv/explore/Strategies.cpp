// SPDX-License-Identifier: Apache-2.0
#include "tv/explore/Strategies.h"

#include <algorithm>
#include <cmath>

#include "tv/explore/SharedPlaces.h"

namespace korvane::tv {
namespace {

constexpr int64_t kShortestAwayNs = 10'000;

/// Each run of a strategy draws from its own seed, so that it can be repeated without the runs
/// before it.

}  // namespace

// ---- what all record ----

bool Strategy::next() {
    ++mRun;
    mDeviations.clear();
    mAwayNs = 0;
    mPointsThere = 0;
    askAgainFrom(0);
    if (mMirror != nullptr) {
        mMirror->count = 0;
    }
    const bool another = begin();
    mRun -= another ? 0 : 1;
    return another;
}

void Strategy::record(const Deviation& deviation) {
    mDeviations.push_back(deviation);
    mAwayNs += deviation.awayNs;
    if (mMirror != nullptr) {
        const size_t count = mMirror->count;
        if (count < DeviationMirror::kMost) {
            mMirror->deviations[count] = deviation;
        }
        mMirror->count = count + 1;
    }
}

Preemption Strategy::preempt(const SchedulePoint& reached, const ThreadList& runnable) {
    SchedulePoint point = reached;
    if (mPlaces != nullptr) {
        if (!mPlaces->has(point)) {
            return {};
        }
        point.index = mPointsThere++;
        if (point.index < mNext) {
            return {};
        }
    }
    const Preemption decided = decidePoint(point, runnable);
    if (decided.awayNs != Preemption::kStay && (decided.awayNs > 0 || decided.next != 0)) {
        record({point.thread, point.threadStep, decided.next, decided.awayNs, false});
    }
    return decided;
}

size_t Strategy::choose(const ScheduleChoice& choice) {
    const size_t chosen = decideChoice(choice);
    if (chosen != 0) {
        record({choice.thread, choice.threadStep, choice.threads[chosen], 0, false});
    }
    return chosen;
}

bool Strategy::wakesSpuriously(int32_t thread, uint64_t threadStep) {
    const bool wakes = decideSpurious(thread, threadStep);
    if (wakes) {
        record({thread, threadStep, 0, 0, true});
    }
    return wakes;
}

// ---- what the random ones share ----

SeededStrategy::SeededStrategy(const RandomOptions& options)
    : mOptions(options), mSeed(options.seed) {}

void SeededStrategy::seedRun() {
    Seed ofStrategy(mOptions.seed);
    Seed ofRun(ofStrategy.next() ^ run());
    mSeed = Seed(ofRun.next());
}

int64_t SeededStrategy::drawAwayNs() {
    if (!mSeed.happens(mOptions.away)) {
        return 0;
    }
    const int64_t steps = std::max<int64_t>(1, mOptions.longestAwayNs / kShortestAwayNs);
    const auto doublings = static_cast<size_t>(std::log2(static_cast<double>(steps))) + 1;
    return kShortestAwayNs << mSeed.below(doublings);
}

bool SeededStrategy::decideSpurious(int32_t, uint64_t) {
    return mSeed.happens(mOptions.spuriousWakeups);
}

// ---- random walk ----

RandomWalk::RandomWalk(const RandomOptions& options, uint32_t preemptions)
    : SeededStrategy(options), mPreemptions(preemptions) {}

bool RandomWalk::begin() {
    seedRun();
    const double often = mPreemptions != 0 ? mPreemptions / 65536.0
                                           : 0.5 / static_cast<double>(1U << mSeed.below(10));
    mLogStay = std::log1p(-std::min(often, 0.999'999));
    askAgainFrom(gap());
    return true;
}

/// Points without a preemption: geometrically distributed, as if drawn for each point.
uint64_t RandomWalk::gap() {
    const double uniform = static_cast<double>((mSeed.next() >> 11) + 1) * 0x1p-53;
    return static_cast<uint64_t>(std::log(uniform) / mLogStay);
}

Preemption RandomWalk::decidePoint(const SchedulePoint& point, const ThreadList& runnable) {
    askAgainFrom(point.index + 1 + gap());
    const int64_t awayNs = drawAwayNs();
    if (runnable.count == 0) {
        return {awayNs > 0 ? awayNs : Preemption::kStay, 0};
    }
    return {awayNs, runnable[mSeed.below(runnable.count)]};
}

size_t RandomWalk::decideChoice(const ScheduleChoice& choice) {
    return mSeed.below(choice.threads.count);
}

// ---- priorities ----

Pct::Pct(const RandomOptions& options, int depth, uint64_t points)
    : SeededStrategy(options), mDepth(depth), mPoints(std::max<uint64_t>(points, 1)) {}

bool Pct::begin() {
    seedRun();
    mPriorities.clear();
    mLowest = 0;
    mChangesToCome.clear();
    for (int i = 1; i < mDepth; ++i) {
        mChangesToCome.push_back(mSeed.below(mPoints));
    }
    std::sort(mChangesToCome.rbegin(), mChangesToCome.rend());
    return true;
}

void Pct::becameRunnable(int32_t) {
    askAgainFrom(0);
}

int64_t& Pct::priority(int32_t thread) {
    const auto index = static_cast<size_t>(thread);
    if (index >= mPriorities.size()) {
        mPriorities.resize(index + 1);
    }
    if (mPriorities[index] == 0) {
        mPriorities[index] = 1 + static_cast<int64_t>(mSeed.next() >> 2);
    }
    return mPriorities[index];
}

size_t Pct::highest(const ThreadList& threads) {
    size_t best = 0;
    for (size_t i = 1; i < threads.count; ++i) {
        if (priority(threads[i]) > priority(threads[best])) {
            best = i;
        }
    }
    return best;
}

Preemption Pct::decidePoint(const SchedulePoint& point, const ThreadList& runnable) {
    int64_t awayNs = 0;
    while (!mChangesToCome.empty() && mChangesToCome.back() <= point.index) {
        mChangesToCome.pop_back();
        priority(point.thread) = --mLowest;
        awayNs = drawAwayNs();
    }
    askAgainFrom(mChangesToCome.empty() ? UINT64_MAX : mChangesToCome.back());
    if (runnable.count == 0) {
        return {awayNs > 0 ? awayNs : Preemption::kStay, 0};
    }
    const int32_t best = runnable[highest(runnable)];
    const bool stays = awayNs == 0 && priority(point.thread) > priority(best);
    return stays ? Preemption{} : Preemption{awayNs, best};
}

/// A thread that yields waits for other threads.
size_t Pct::decideChoice(const ScheduleChoice& choice) {
    for (const int32_t thread : choice.threads) {
        if (thread == choice.thread) {
            priority(thread) = --mLowest;
        }
    }
    return highest(choice.threads);
}

// ---- all with few preemptions ----

Exhaustive::Exhaustive(int preemptions) : mMost(preemptions) {}

bool Exhaustive::begin() {
    if (run() > 1) {
        while (!mBranches.empty() && mBranches.back().taken + 1 == mBranches.back().ways) {
            mBranches.pop_back();
        }
        if (mBranches.empty()) {
            mComplete = true;
            return false;
        }
        ++mBranches.back().taken;
    }
    mDepth = 0;
    mPreemptions = 0;
    return true;
}

/// The choice of this run at its next branch.
size_t Exhaustive::follow(size_t ways) {
    if (mDepth == mBranches.size()) {
        mBranches.push_back({0, ways});
    }
    const Branch& branch = mBranches[mDepth++];
    mDiverged = mDiverged || branch.ways != ways;
    return std::min(branch.taken, ways - 1);
}

Preemption Exhaustive::decidePoint(const SchedulePoint&, const ThreadList& runnable) {
    if (runnable.count == 0 || mPreemptions == mMost) {
        return {};
    }
    const size_t way = follow(runnable.count + 1);
    if (way == 0) {
        return {};
    }
    ++mPreemptions;
    return {0, runnable[way - 1]};
}

size_t Exhaustive::decideChoice(const ScheduleChoice& choice) {
    return follow(choice.threads.count);
}

bool Exhaustive::decideSpurious(int32_t, uint64_t) {
    return false;
}

// ---- replay ----

Replay::Replay(std::vector<Deviation> schedule) : mSchedule(std::move(schedule)) {}

bool Replay::begin() {
    mFollowed = 0;
    return run() == 1;
}

/// A shrunk schedule leaves out some, so that a later decision may come before an earlier one.
const Deviation* Replay::find(int32_t thread, uint64_t step) {
    const auto found =
        std::find_if(mSchedule.begin(), mSchedule.end(), [=](const Deviation& deviation) {
            return deviation.thread == thread && deviation.step == step;
        });
    mFollowed += found != mSchedule.end() ? 1 : 0;
    return found != mSchedule.end() ? &*found : nullptr;
}

Preemption Replay::decidePoint(const SchedulePoint& point, const ThreadList& runnable) {
    const Deviation* deviation = find(point.thread, point.threadStep);
    if (deviation == nullptr || deviation->spurious) {
        return {};
    }
    const bool can = std::find(runnable.begin(), runnable.end(), deviation->next) != runnable.end();
    return {deviation->awayNs > 0 || can ? deviation->awayNs : Preemption::kStay,
            can ? deviation->next : 0};
}

size_t Replay::decideChoice(const ScheduleChoice& choice) {
    const Deviation* deviation = find(choice.thread, choice.threadStep);
    const int32_t wanted = deviation != nullptr ? deviation->next : 0;
    const auto* const found = std::find(choice.threads.begin(), choice.threads.end(), wanted);
    return found != choice.threads.end() ? static_cast<size_t>(found - choice.threads.begin()) : 0;
}

bool Replay::decideSpurious(int32_t thread, uint64_t threadStep) {
    const Deviation* deviation = find(thread, threadStep);
    return deviation != nullptr && deviation->spurious;
}

}  // namespace korvane::tv
