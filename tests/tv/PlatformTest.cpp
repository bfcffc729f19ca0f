// Properties, log routing and the trace file.
#include "tv/Platform.h"

#include <android/log.h>
#define ATRACE_TAG ATRACE_TAG_VIDEO
#include <cutils/trace.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/ManualClock.h"

namespace korvane::tv {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

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
        std::exit(0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return file.text();
}

TEST(Properties, HoldWhatFits) {
    clearProperties();
    EXPECT_FALSE(setProperty("", "1"));
    EXPECT_TRUE(setProperty("a.b", std::string(91, 'x')));
    EXPECT_FALSE(setProperty("a.b", std::string(92, 'y')));
    EXPECT_EQ(getProperty("a.b"), std::string(91, 'x'));
    EXPECT_TRUE(setProperty("a.b", ""));
    EXPECT_EQ(getProperty("a.b"), "");
    clearProperties();
    EXPECT_EQ(getProperty("a.b"), std::nullopt);
}

TEST(Log, ObserverSeesEveryLineAsFormatted) {
    std::vector<std::string> seen;
    observeLog([&](const LogLine& line) {
        seen.push_back(std::to_string(line.priority) + line.tag + ":" + line.text);
        __android_log_print(ANDROID_LOG_INFO, "observer", "of itself");
    });
    __android_log_print(ANDROID_LOG_DEBUG, "Tag", "[%s]:%d\n", "name", 7);
    __android_log_print(ANDROID_LOG_ERROR, "Tag", "%s", std::string(5000, 'x').c_str());
    observeLog(nullptr);
    __android_log_print(ANDROID_LOG_ERROR, "Tag", "unseen");
    EXPECT_THAT(seen, ElementsAre("3Tag:[name]:7\n", "6Tag:" + std::string(1023, 'x')));
}

// The log of this process is not open before these tests, so each child begins afresh.
TEST(Log, EarlyLinesFollowWhenTheLogIsOpened) {
    const std::string text = stderrOfChild([] {
        __android_log_print(ANDROID_LOG_DEBUG, "Tag", "early debug\n");
        __android_log_print(ANDROID_LOG_INFO, "Tag", "early info\n");
        openLog(ANDROID_LOG_INFO);
        __android_log_print(ANDROID_LOG_INFO, "Tag", "later info\n");
        __android_log_print(ANDROID_LOG_DEBUG, "Tag", "later debug\n");
    });
    EXPECT_THAT(text, HasSubstr("early info"));
    EXPECT_THAT(text, HasSubstr("later info"));
    EXPECT_LT(text.find("early info"), text.find("later info"));
    EXPECT_THAT(text, Not(HasSubstr("debug")));
    EXPECT_THAT(text, Not(HasSubstr("\n\n")));
}

TEST(Log, LinesWithoutAnOpenLogAreWrittenAtExitUpToABound) {
    const std::string text = stderrOfChild([] {
        for (int i = 0; i < 300; ++i) {
            __android_log_print(ANDROID_LOG_DEBUG, "Tag", "line %d.\n", i);
        }
    });
    EXPECT_THAT(text, HasSubstr("line 0."));
    EXPECT_THAT(text, Not(HasSubstr("line 299.")));
    EXPECT_THAT(text, HasSubstr("lines before the log was opened were not kept"));
}

TEST(Log, EightWritesNothing) {
    EXPECT_EQ(stderrOfChild([] {
                  openLog(8);
                  __android_log_print(ANDROID_LOG_FATAL, "Tag", "anything");
              }),
              "");
}

TEST(Trace, PointsReachTheObserverWhileTheTagIsOn) {
    std::vector<std::string> seen;
    observeTrace([&](char kind, const std::string& name, int64_t value) {
        seen.push_back(kind + name + std::to_string(value));
    });
    EXPECT_EQ(atrace_get_enabled_tags(), 0U);
    ATRACE_INT("counter", 1);
    setTraceTagEnabled(true);
    EXPECT_EQ(atrace_get_enabled_tags(), uint64_t{ATRACE_TAG_VIDEO});
    ATRACE_BEGIN("section");
    ATRACE_INT("counter", -2);
    ATRACE_INT64("wide", int64_t{1} << 40);
    ATRACE_END();
    setTraceTagEnabled(false);
    observeTrace(nullptr);
    EXPECT_THAT(seen, ElementsAre("Bsection0", "Ccounter-2", "Cwide1099511627776", "E0"));
}

TEST(Trace, FileIsJsonWithSectionsCountersThreadsAndTracks) {
    const TemporaryFile file;
    std::string error;
    ASSERT_TRUE(startTrace(file.path, &error)) << error;
    std::thread([] {
        for (int i = 0; i < 100; ++i) {
            ATRACE_BEGIN("with \"quotes\\");
            ATRACE_INT("counter", i);
            ATRACE_END();
        }
    }).join();
    traceSlice("screen", "frame 1", 1'000'001'500, 1'000'018'000);
    const TraceReport report = stopTrace();
    EXPECT_EQ(report.failure, "");
    EXPECT_EQ(report.path, file.path);
    EXPECT_EQ(report.written + report.lost, 301);
    EXPECT_EQ(std::system(("python3 -m json.tool " + file.path + " > /dev/null").c_str()), 0);
    const std::string text = file.text();
    EXPECT_THAT(text, HasSubstr(R"("name":"with \"quotes\\")"));
    EXPECT_THAT(text, HasSubstr(R"("ph":"C","args":{"value":99})"));
    EXPECT_THAT(text, HasSubstr(R"("args":{"name":"screen"})"));
    EXPECT_THAT(text, HasSubstr(R"("ts":1000001.500,"ph":"X","dur":16.500})"));
    EXPECT_EQ(stopTrace().written, report.written) << "idempotent";
}

TEST(Trace, KilledProcessLeavesWholeLines) {
    const TemporaryFile file;
    const pid_t child = fork();
    if (child == 0) {
        startTrace(file.path, nullptr);
        for (;;) {
            ATRACE_INT("counter", 1);
            usleep(100);
        }
    }
    EXPECT_TRUE(test::eventually([&] { return file.text().size() > 10'000; }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    std::string text = file.text();
    EXPECT_THAT(text, StartsWith("[\n{"));
    text.resize(text.find_last_of('}') + 1);
    std::ofstream(file.path) << text << "]";
    EXPECT_EQ(std::system(("python3 -m json.tool " + file.path + " > /dev/null").c_str()), 0);
}

TEST(Trace, FullDiskEndsTheRecordingWithOneMessage) {
    std::vector<std::string> messages;
    observeLog([&](const LogLine& line) { messages.push_back(line.text); });
    ASSERT_TRUE(startTrace("/dev/full", nullptr));
    ATRACE_INT("counter", 1);
    EXPECT_TRUE(test::eventually([] { return atrace_get_enabled_tags() == 0; }));
    ATRACE_BEGIN("goes on");
    const TraceReport report = stopTrace();
    observeLog(nullptr);
    EXPECT_THAT(messages, ElementsAre("recording of the trace ended, cannot write /dev/full: "
                                      "No space left on device"));
    EXPECT_EQ(report.failure, messages.front());
    EXPECT_EQ(report.written, 0);
}

TEST(Trace, FileThatCannotBeCreatedIsOneLine) {
    std::string error;
    EXPECT_FALSE(startTrace("/nowhere/trace.json", &error));
    EXPECT_EQ(error, "cannot create trace file /nowhere/trace.json: No such file or directory");
    EXPECT_FALSE(recordingTrace());
}

TEST(Trace, FullRingLosesEventsAndCountsThem) {
    const TemporaryFile file;
    ASSERT_TRUE(startTrace(file.path, nullptr));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 50'000; ++i) {
                ATRACE_INT("counter", i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const TraceReport report = stopTrace();
    EXPECT_GT(report.lost, 0);
    EXPECT_EQ(report.written + report.lost, 200'000);
}

}  // namespace
}  // namespace korvane::tv
