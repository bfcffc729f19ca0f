// SPDX-License-Identifier: Apache-2.0
#include "tv/explore/Exploration.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>

#include "tv/explore/Detectors.h"
#include "tv/explore/Symbols.h"

namespace korvane::tv {
namespace {

/// Descriptors that are looked at; more than a playback opens.
constexpr size_t kDescriptors = 256;

std::vector<bool> openDescriptors() {
    std::vector<pollfd> all(kDescriptors);
    for (size_t i = 0; i < kDescriptors; ++i) {
        all[i].fd = static_cast<int>(i);
    }
    poll(all.data(), all.size(), 0);
    std::vector<bool> open(kDescriptors);
    for (size_t i = 0; i < kDescriptors; ++i) {
        open[i] = (all[i].revents & POLLNVAL) == 0;
    }
    return open;
}

}  // namespace

const char* nameOf(ExploredFault::Kind kind) {
    switch (kind) {
        case ExploredFault::Kind::Race:
            return "data race";
        case ExploredFault::Kind::LockOrder:
            return "lock-order cycle";
        case ExploredFault::Kind::UseAfterFree:
            return "use after free";
        case ExploredFault::Kind::Outside:
            return "access outside of a block";
        case ExploredFault::Kind::MemoryLeak:
            return "memory leak";
        case ExploredFault::Kind::DescriptorLeak:
            return "descriptor leak";
        case ExploredFault::Kind::ClosedTwice:
            return "descriptor closed twice";
    }
    return "";
}

Exploration::Exploration() : mDetectors(std::make_unique<Detectors>()) {}

Exploration::~Exploration() {
    gDetectors = nullptr;
}

void Exploration::beginRun() {
    Detectors& d = *mDetectors;
    for (ExploredFault& fault : d.faults) {
        fault.inThisRun = false;
    }
    ++d.run;
    d.findVariables();
    d.heap.beginRun();
    d.syncs.clear();
    d.lockOrder.clear();
    for (ThreadState& thread : d.threads) {
        thread.clear();
    }
    d.openBefore = openDescriptors();
}

void Exploration::endRun(bool complete) {
    Detectors& d = *mDetectors;
    gDetectors = nullptr;
    d.findLeaks(complete);
    if (complete) {
        const std::vector<bool> open = openDescriptors();
        for (size_t i = 0; i < kDescriptors; ++i) {
            if (open[i] && !d.openBefore[i]) {
                d.reportDescriptor(static_cast<int>(i));
            }
        }
    }
    d.resolve();
}

const std::vector<ExploredFault>& Exploration::faults() const {
    return mDetectors->faults;
}

PairCoverage Exploration::coverage() const {
    const auto& pairs = mDetectors->pairs;
    const auto both = std::count_if(pairs.begin(), pairs.end(),
                                    [](const auto& pair) { return pair.second == 3; });
    return {pairs.size(), static_cast<size_t>(both)};
}

const std::vector<HeldLock>& Exploration::heldLocks() const {
    return mDetectors->current->held;
}

std::vector<const void*> Exploration::callStack() const {
    return mDetectors->stacks.callers(mDetectors->current->stack);
}

std::vector<std::string> Exploration::places(const std::vector<const void*>& codes) {
    std::vector<std::string> texts;
    for (const SourcePlace& place : placesOf(codes)) {
        texts.push_back(place.text);
    }
    return texts;
}

void Exploration::happensBefore(const void* object) {
    if (gDetectors != nullptr) {
        mDetectors->release(object);
    }
}

void Exploration::happensAfter(const void* object) {
    if (gDetectors != nullptr) {
        mDetectors->acquire(object);
    }
}

// ---- what virtual time tells ----

void Exploration::began(int32_t thread) {
    gDetectors = mDetectors.get();
    switched(thread);
    mDetectors->tick();
}

void Exploration::created(int32_t thread, int32_t) {
    Detectors& d = *mDetectors;
    ThreadState& made = d.thread(thread);
    made.clear();
    made.clock.join(d.current->clock);
    made.clock.set(static_cast<uint32_t>(thread), made.now = 1);
    d.tick();
}

void Exploration::joined(int32_t thread, int32_t) {
    mDetectors->current->clock.join(mDetectors->thread(thread).clock);
}

void Exploration::acquiring(Sync what, const void* object, const void* code) {
    if (what == Sync::Mutex) {
        mDetectors->orderLock(object, code);
    }
}

void Exploration::acquired(Sync what, const void* object, const void* code) {
    mDetectors->take(what, object, code);
}

void Exploration::released(Sync, const void* object, const void*) {
    mDetectors->drop(object);
    mDetectors->release(object);
}

void Exploration::switched(int32_t to) {
    mDetectors->current = &mDetectors->thread(to);
    mDetectors->currentNumber = to;
}

void Exploration::closedAgain(int descriptor, const void* code) {
    if (descriptor >= 0) {
        mDetectors->report({ExploredFault::Kind::ClosedTwice,
                            "a descriptor is closed that is not open",
                            {{"closed", mDetectors->here(code)}},
                            0});
    }
}

}  // namespace korvane::tv
