// SPDX-License-Identifier: Apache-2.0
// The trace file.
#include "tv/Trace.h"

#define ATRACE_TAG ATRACE_TAG_VIDEO
#include <cutils/trace.h>
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

bool isJson(const std::string& path) {
    const std::string command = "python3 -m json.tool " + path + " > /dev/null";
    return std::system(command.c_str()) == 0;  // NOLINT(concurrency-mt-unsafe): no other shell
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
