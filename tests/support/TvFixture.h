// SPDX-License-Identifier: Apache-2.0
// A TV whose time the test advances by hand: it has no thread, and the display scans out when the
// test calls it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "tests/support/ManualClock.h"
#include "tv/Properties.h"
#include "tv/Trace.h"
#include "tv/Tv.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::test {

/// Virtual time for tests with threads of their own: they wait without delay, and the seed decides
/// where a thread is preempted. Null in sanitizer builds, which check real threads.
inline std::unique_ptr<tv::VirtualTime> virtualTimeIfAvailable(
    uint32_t preemptions = 4096, int64_t longestPreemptionNs = 100'000) {
    if (!tv::VirtualTime::available()) {
        return nullptr;
    }
    tv::VirtualTimeOptions options;
    options.preemptions = preemptions;
    options.longestPreemptionNs = longestPreemptionNs;
    constexpr uint64_t kSeed = 1;
    return std::make_unique<tv::VirtualTime>(kSeed, options);
}

inline std::shared_ptr<tv::Tv> tvByHand() {
    tv::TvConfig config;
    config.displayThread = false;
    return tv::Tv::powerOn(config);
}

inline int64_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class TvFixture : public testing::Test {
protected:
    ~TvFixture() override {
        mTv->powerOff();
        tv::observeTrace(nullptr);
        tv::setTraceTagEnabled(false);
        tv::clearProperties();
    }

    /// Advances time and scans out the vsyncs on the way.
    void runFor(int64_t us) {
        mClock.advanceUs(us);
        mTv->runVsyncs(mClock.nowNs());
    }
    void setFaults(const tv::TunnelFaults& faults = {}) { mTv->tunnel().setFaults(faults); }
    void setFault(bool tv::TunnelFaults::*fault, bool on = true) {
        tv::TunnelFaults faults = mTv->tunnel().faults();
        faults.*fault = on;
        setFaults(faults);
    }

    ManualClock mClock;
    std::shared_ptr<tv::Tv> mTv = tvByHand();
};

/// Replaces a variable's value while this object exists; for the loaders' entry points.
template <typename Value>
class Swapped {
public:
    Swapped(Value& variable, std::decay_t<Value> value)
        : mVariable(variable), mBefore(std::exchange(variable, value)) {}
    ~Swapped() { mVariable = mBefore; }
    Swapped(const Swapped&) = delete;
    Swapped& operator=(const Swapped&) = delete;

private:
    Value& mVariable;
    const Value mBefore;
};

}  // namespace korvane::test
