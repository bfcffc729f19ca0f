// SPDX-License-Identifier: Apache-2.0
// Log routing and the trace file.
#include "tv/Log.h"
#include "tv/Trace.h"

#include <android/log.h>
#define ATRACE_TAG ATRACE_TAG_VIDEO
#include <cutils/trace.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/TvFixture.h"

namespace korvane::tv {
namespace {

using testing::HasSubstr;
using testing::Not;

/// A file that is removed again.
struct TemporaryFile {
    TemporaryFile() {
        const int fd = mkstemp(path.data());
        EXPECT_GE(fd, 0);
        close(fd);
    }
    ~TemporaryFile() { std::filesystem::remove(path); }
    std::string text() const {
        std::stringstream all;
        all << std::ifstream(path).rdbuf();
        return all.str();
    }
    std::string path = std::filesystem::temp_directory_path() / "tv_test_XXXXXX";
};

/// Runs `action` in a child and returns what it wrote to stderr up to its regular exit.
template <typename Action>
std::string stderrOfChild(Action action) {
    TemporaryFile file;
    const pid_t child = fork();
    if (child == 0) {
        dup2(open(file.path.c_str(), O_WRONLY), STDERR_FILENO);
        action();
        std::exit(0);  // NOLINT(concurrency-mt-unsafe): the child has one thread
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return file.text();
}

bool isJson(const std::string& path) {
    const std::string command = "python3 -m json.tool " + path + " > /dev/null";
    return std::system(command.c_str()) == 0;  // NOLINT(concurrency-mt-unsafe): no other shell
}

// The log of this process is not open before these tests, so each child begins afresh.
TEST(Log, EarlyLinesFollowWhenItIsOpenedOrAtExitUpToABound) {
    const std::string opened = stderrOfChild([] {
        __android_log_print(ANDROID_LOG_DEBUG, "Tag", "early debug\n");
        __android_log_print(ANDROID_LOG_INFO, "Tag", "early info\n");
        openLog(ANDROID_LOG_INFO);
        __android_log_print(ANDROID_LOG_INFO, "Tag", "later info\n");
        __android_log_print(ANDROID_LOG_DEBUG, "Tag", "later debug\n");
    });
    EXPECT_THAT(opened, testing::ContainsRegex("early info\n.*later info\n"));
    EXPECT_THAT(opened, Not(HasSubstr("debug")));
    EXPECT_THAT(opened, Not(HasSubstr("\n\n")));
    const std::string never = stderrOfChild([] {
        for (int i = 0; i < 300; ++i) {
            __android_log_print(ANDROID_LOG_DEBUG, "Tag", "line %d.\n", i);
        }
    });
    EXPECT_THAT(never, HasSubstr("line 0."));
    EXPECT_THAT(never, Not(HasSubstr("line 299.")));
    EXPECT_THAT(never, HasSubstr("lines before the log was opened were not kept"));
}

TEST(Trace, FileIsJsonWithSectionsCountersThreadsAndTracks) {
    const auto time = test::virtualTimeIfAvailable();
    const TemporaryFile file;
    std::string error;
    ASSERT_TRUE(startTrace(file.path, &error)) << error;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 30'000; ++i) {  // more than the ring takes
                ATRACE_BEGIN("with \"quotes\\");
                ATRACE_INT("counter", i);
                ATRACE_END();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    int64_t slices = 0;
    EXPECT_TRUE(test::eventually([&] {  // until the ring has room again
        ++slices;
        traceSlice("screen", "frame 1", 1'000'001'500, 1'000'018'000);
        return file.text().find("frame 1") != std::string::npos;
    }));
    const TraceReport report = stopTrace();
    EXPECT_EQ(report.failure, "");
    EXPECT_GT(report.lost, 0);
    EXPECT_EQ(report.written + report.lost, 360'000 + slices);
    EXPECT_TRUE(isJson(file.path));
    for (const char* part :
         {R"("name":"with \"quotes\\")", R"("ph":"C","args":{"value":0})",
          R"("args":{"name":"screen"})", R"("ts":1000001.500,"ph":"X","dur":16.500})"}) {
        EXPECT_THAT(file.text(), HasSubstr(part));
    }
    EXPECT_EQ(stopTrace().written, report.written) << "idempotent";
}

}  // namespace
}  // namespace korvane::tv
