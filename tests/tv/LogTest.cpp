// SPDX-License-Identifier: Apache-2.0
// Log routing, and the observer that log and trace share.
#include "tv/Log.h"

#include <android/log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

#include "tv/Observer.h"

namespace korvane::tv {
namespace {

using testing::AllOf;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::Not;

// The log of this process is not open, so each child starts with a closed log and writes to stderr
// up to its regular exit.
TEST(Log, EarlyLinesFollowWhenItIsOpenedOrAtExitUpToABound) {
    EXPECT_EXIT(
        {
            __android_log_print(ANDROID_LOG_DEBUG, "Tag", "early debug\n");
            __android_log_print(ANDROID_LOG_INFO, "Tag", "early info\n");
            openLog(ANDROID_LOG_INFO);
            __android_log_print(ANDROID_LOG_INFO, "Tag", "later info\n");
            __android_log_print(ANDROID_LOG_DEBUG, "Tag", "later debug\n");
            std::exit(0);  // NOLINT(concurrency-mt-unsafe): the child has one thread
        },
        ExitedWithCode(0),
        AllOf(testing::ContainsRegex("early info\n.*later info\n"), Not(HasSubstr("debug")),
              Not(HasSubstr("\n\n"))));
    EXPECT_EXIT(
        {
            for (int i = 0; i < 300; ++i) {
                __android_log_print(ANDROID_LOG_DEBUG, "Tag", "line %d.\n", i);
            }
            std::exit(0);  // NOLINT(concurrency-mt-unsafe): the child has one thread
        },
        ExitedWithCode(0),
        AllOf(HasSubstr("line 0."), Not(HasSubstr("line 299.")),
              HasSubstr("44 lines before the log was opened were not kept")));
}

TEST(Log, LinesThatDifferInNumbersOnlyAreSummed) {
    EXPECT_EXIT(
        {
            openLog(ANDROID_LOG_WARN);
            beginSums();
            for (int i = 0; i < 1'235; ++i) {
                __android_log_print(ANDROID_LOG_ERROR, "Tag", "frame %d lost\n", i);
            }
            __android_log_print(ANDROID_LOG_ERROR, "Tag", "once\n");
            endSums();
            __android_log_print(ANDROID_LOG_ERROR, "Tag", "frame 9999 lost\n");
            std::exit(0);  // NOLINT(concurrency-mt-unsafe): the child has one thread
        },
        ExitedWithCode(0),
        AllOf(testing::ContainsRegex("frame 0 lost\n.*once\n.*[.]{3} 1,234 more like this: frame "
                                     "0 lost\n.*frame 9999 lost\n"),
              Not(HasSubstr("frame 1 ")), Not(HasSubstr("like this: once"))));
}

TEST(Observer, IsCalledAgainAfterItThrewButNotFromInsideItself) {
    Observer<int> observer;
    observer.call(0);
    int calls = 0;
    observer.set([&](int value) {
        ++calls;
        observer.call(value);
        if (value < 0) {
            throw std::runtime_error("refused");
        }
    });
    EXPECT_THROW(observer.call(-1), std::runtime_error);
    observer.call(1);
    EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace korvane::tv
