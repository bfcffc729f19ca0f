// SPDX-License-Identifier: Apache-2.0
// Shared by the tests of virtual time, which skip in a build without it.
#pragma once

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tv/clock/VirtualTime.h"

namespace korvane::test {

class InVirtualTime : public ::testing::Test {
protected:
    void SetUp() override {
        if (!tv::VirtualTime::available()) {
            GTEST_SKIP() << "this build has no virtual time";
        }
    }
};

/// Threads that are joined together.
class Threads {
public:
    /// Each runs `routine` with its number, from 0.
    template <typename Routine>
    void add(int count, Routine routine) {
        for (int i = 0; i < count; ++i) {
            mThreads.emplace_back(routine, i);
        }
    }
    void join() {
        for (std::thread& thread : mThreads) {
            thread.join();
        }
    }

private:
    std::vector<std::thread> mThreads;
};

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecond = 1000 * kMs;

}  // namespace korvane::test
