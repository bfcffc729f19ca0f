// SPDX-License-Identifier: Apache-2.0
// The trace file.
#include "tv/Trace.h"

#define ATRACE_TAG ATRACE_TAG_VIDEO
#include <cutils/trace.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "tests/support/TvFixture.h"

namespace korvane::tv {
namespace {

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

/// Whether one of the events has all that another one has.
bool contains(const nlohmann::json& events, const nlohmann::json& part) {
    return std::any_of(events.begin(), events.end(), [&](nlohmann::json event) {
        const nlohmann::json before = event;
        event.merge_patch(part);
        return event == before;
    });
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
                ATRACE_BEGIN("section");
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
        traceSlice("screen", "frame 1", 1'000'001'501, 1'000'018'000);
        return file.text().find("frame 1") != std::string::npos;
    }));
    const TraceReport report = stopTrace();
    EXPECT_EQ(report.failure, "");
    EXPECT_GT(report.lost, 0);
    EXPECT_EQ(report.written + report.lost, 360'000 + slices);
    const auto events = nlohmann::json::parse(file.text());
    for (const char* part :
         {R"({"name": "section", "ph": "B"})", R"({"name": "", "ph": "E"})",
          R"({"name": "counter", "ph": "C", "args": {"value": 0}})",
          R"({"name": "thread_name", "ph": "M", "args": {"name": "screen"}})",
          R"({"name": "frame 1", "ph": "X", "ts": 1000001.501, "dur": 16.499})"}) {
        EXPECT_TRUE(contains(events, nlohmann::json::parse(part))) << part;
    }
    EXPECT_EQ(stopTrace().written, report.written) << "idempotent";
}

TEST(Trace, NamesOfAnyBytesGiveValidJson) {
    const std::pair<std::string, std::string> kNames[] = {
        {"with \"quotes\\", "with \"quotes\\"},
        {"line\n\033[31mred", "line\n\033[31mred"},
        {"Fünf ✓", "Fünf ✓"},
        {"a\xff\xc3z", "a\uFFFD\uFFFDz"},
        {std::string(46, 'x') + "ü", std::string(46, 'x') + "\uFFFD"}};  // cut after 47 bytes
    const TemporaryFile file;
    ASSERT_TRUE(startTrace(file.path, nullptr));
    for (const auto& [name, shown] : kNames) {
        traceSlice("track " + name, name, 0, 1);
    }
    stopTrace();
    const auto events = nlohmann::json::parse(file.text());
    for (const auto& [name, shown] : kNames) {
        EXPECT_TRUE(contains(events, {{"name", shown}})) << shown;
    }
}

}  // namespace
}  // namespace korvane::tv
