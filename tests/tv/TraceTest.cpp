// SPDX-License-Identifier: Apache-2.0
// The trace file: whole packets, every event counted, bounded memory. The contents of the packets
// are tested by tests/player/report/trace_test.py.
#include "tv/Trace.h"

#define ATRACE_TAG ATRACE_TAG_VIDEO
#include <cutils/trace.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <protozero/pbf_reader.hpp>
#include <sstream>
#include <thread>

#include "tests/support/TvFixture.h"

namespace korvane::tv {
namespace {

using Numbers = std::vector<uint64_t>;

/// A trace in a file that is removed again.
class TraceFixture : public testing::Test {
protected:
    TraceFixture() {
        const int fd = mkstemp(mPath.data());
        EXPECT_GE(fd, 0);
        close(fd);
        std::string error;
        EXPECT_TRUE(startTrace(mPath, &error)) << error;
    }
    ~TraceFixture() override { std::filesystem::remove(mPath); }

    /// Stops and reads: type and time of each track event.
    std::vector<std::pair<int, uint64_t>> events() {
        mReport = stopTrace();
        EXPECT_EQ(mReport.failure, "");
        std::stringstream all;
        all << std::ifstream(mPath).rdbuf();
        mText = all.str();
        std::vector<std::pair<int, uint64_t>> found;
        protozero::pbf_reader trace(mText);
        while (trace.next(1)) {
            protozero::pbf_reader packet = trace.get_message();
            uint64_t timeNs = 0;
            while (packet.next()) {
                if (packet.tag() == 8) {
                    timeNs = packet.get_uint64();
                } else if (packet.tag() == 11) {
                    protozero::pbf_reader event = packet.get_message();
                    EXPECT_TRUE(event.next(9));
                    found.emplace_back(event.get_enum(), timeNs);
                } else {
                    packet.skip();
                }
            }
        }
        return found;
    }

    std::unique_ptr<VirtualTime> mTime = test::virtualTimeIfAvailable();
    std::string mPath = std::filesystem::temp_directory_path() / "tv_test_XXXXXX";
    std::string mText;
    TraceReport mReport;
};

TEST_F(TraceFixture, HoldsEachEventOfEachThreadOrCountsItAsLost) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 10'000; ++i) {  // faster than a file takes them in real time
                ATRACE_BEGIN("section");
                ATRACE_INT("counter", i);
                ATRACE_END();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const auto found = events();
    EXPECT_EQ(mReport.written + mReport.lost, 120'000);
    EXPECT_EQ(static_cast<int64_t>(found.size()), mReport.written);
    EXPECT_TRUE(mTime == nullptr || mReport.lost == 0) << "in virtual time none is";
    EXPECT_EQ(stopTrace().written, mReport.written) << "idempotent";
}

TEST_F(TraceFixture, KeepsNamesBeyondThoseThatItRemembers) {
    constexpr int kNames = 5'000;
    for (int i = 0; i < kNames; ++i) {
        const std::string name = "/" + std::to_string(i) + "/";
        atrace_begin(ATRACE_TAG, ("section" + name).c_str());
        atrace_end(ATRACE_TAG);
        atrace_int(ATRACE_TAG, ("counter" + name).c_str(), i);
    }
    EXPECT_EQ(events().size(), 3U * kNames);
    for (int i = 0; i < kNames; i += 49) {
        const std::string name = "/" + std::to_string(i) + "/";
        EXPECT_NE(mText.find("section" + name), std::string::npos);
        EXPECT_NE(mText.find(name.substr(1)), std::string::npos);
    }
}

TEST_F(TraceFixture, EndsAStateNotBeforeItBegan) {
    traceState("track", "first", 100);
    traceState("track", "second", 50);
    traceState("track", "", 120);
    traceState("track", "", 130);
    const std::vector<std::pair<int, uint64_t>> wanted = {{1, 100}, {2, 100}, {1, 100}, {2, 120}};
    EXPECT_EQ(events(), wanted);
}

}  // namespace
}  // namespace korvane::tv
