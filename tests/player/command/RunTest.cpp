// SPDX-License-Identifier: Apache-2.0
// The commands `run` and `list` as a person uses them: the shipped scenarios pass, twice the same;
// one that fails says why; one that is wrong is refused.
#include <gmock/gmock.h>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "tests/player/command/CommandRunner.h"

namespace korvane::test {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

/// A folder that goes when the test does.
class RunTest : public ::testing::Test {
protected:
    RunTest() : mFolder(::testing::TempDir() + "korvane-run-" + std::to_string(getpid())) {
        fs::create_directories(mFolder);
    }
    ~RunTest() override { fs::remove_all(mFolder); }

    std::string scenario(const std::string& name, const std::string& body) {
        const std::string path = mFolder + "/" + name + ".toml";
        std::ofstream(path) << "title = \"shows " << name << "\"\nholds = \"so it is\"\n" << body;
        return path;
    }
    const std::string mFolder;
};

/// Of the shipped scenarios, all but the one that takes a day.
std::vector<std::string> shipped() {
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(KORVANE_SCENARIOS)) {
        if (entry.path().extension() == ".toml" && entry.path().stem() != "soak-24h") {
            files.push_back(entry.path().string());
        }
    }
    return files;
}

TEST_F(RunTest, TheShippedScenariosPassAndTwoRunsAreTheSameToTheByte) {
    const auto files = shipped();
    ASSERT_GE(files.size(), 40U);
    cpu_set_t all;
    cpu_set_t one;
    sched_getaffinity(0, sizeof all, &all);
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    for (const char* folder : {"/first", "/second"}) {
        // The second time on one processor: how many there are must not show.
        sched_setaffinity(0, sizeof one, folder[1] == 's' ? &one : &all);
        std::vector<std::string> run = {"run", "--jobs", "2", "--events", mFolder + folder};
        run.insert(run.end(), files.begin(), files.end());
        const CommandResult result = korvaneTv(run);
        ASSERT_EQ(result.status, 0) << result.output << result.error;
        EXPECT_THAT(result.output, HasSubstr(", 0 failed"));
    }
    sched_setaffinity(0, sizeof all, &all);
    for (const auto& file : files) {
        const std::string name = fs::path(file).stem().string() + ".events";
        const std::string first = readFile(mFolder + "/first/" + name);
        EXPECT_EQ(first, readFile(mFolder + "/second/" + name)) << name;
        EXPECT_THAT(first, HasSubstr("0.000000000 start\n"));
    }
}

TEST_F(RunTest, AnotherSeedIsAnotherRunAndStillPasses) {
    auto run = std::vector<std::string>{"run", "--jobs", "2", "--seed", "20261121"};
    const auto files = shipped();
    run.insert(run.end(), files.begin(), files.end());
    const CommandResult result = korvaneTv(run);
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr("seed 20261121"));
}

TEST_F(RunTest, AFailureIsToldWithStatus1AndTheOthersGoOn) {
    const std::string content = "[content]\nfps = 24\nduration = \"2s\"\n[audio]\n[expect]\n";
    const std::string bad = scenario("bad", content + "dropped = 3\npattern = \"[2:2]\"\n");
    scenario("good", content + "shown = \"all\"\n");
    const CommandResult result = korvaneTv({"run", mFolder, "--seed", "9"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("FAILED  bad "), HasSubstr("ok      good "),
                      HasSubstr("        dropped: expected 3, seen 0\n"),
                      HasSubstr("        pattern: expected [2:2] held, seen [3:2]\n"),
                      HasSubstr("# korvane-tv run " + bad + " --seed 9\n"),
                      HasSubstr("2 scenarios, 1 ok, 1 failed")));
}

TEST_F(RunTest, WhatIsNoScenarioIsRefusedBeforeAnythingIsPlayed) {
    const std::string good = scenario("good", "[expect]\n");
    const std::string bad = scenario("wrong", "[expect]\nshwon = 1\n");
    const CommandResult result = korvaneTv({"run", good, bad});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.error, HasSubstr(bad + ":4: expect.shwon: unknown key"));
    EXPECT_EQ(korvaneTv({"run", mFolder + "/missing"}).status, 2);
    const std::string file = scenario("file", "[content]\nfile = \"none.mkv\"\n[expect]\n");
    const CommandResult input = korvaneTv({"run", file});
    EXPECT_EQ(input.status, 2);
    EXPECT_THAT(input.output, HasSubstr("none.mkv': No such file"));
}

TEST_F(RunTest, LongWaitsAreNoHang) {
    scenario("pause",
             "[audio]\npause = [{ at = \"5s\", for = \"70m\" }]\n[expect]\nshown = \"all\"\n");
    scenario("list", "[content]\nlist = [\"0s\", \"70m\"]\n[expect]\nshown = \"all\"\n");
    scenario("slides", "[content]\nfps = 0.1\nduration = \"1m\"\n[expect]\nshown = \"all\"\n");
    const CommandResult result = korvaneTv({"run", mFolder});
    EXPECT_EQ(result.status, 0) << result.output << result.error;
}

TEST_F(RunTest, KilledItLeavesNoScenarioPlaying) {
    const std::string path =
        scenario("long", "[content]\nfps = 24\nduration = \"60s\"\n[expect]\n");
    for (const int signal : {SIGTERM, SIGKILL}) {
        // Who plays holds the other end of the pipe.
        const std::string pipe = mFolder + "/pipe" + std::to_string(signal);
        ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
        pollfd end{open(pipe.c_str(), O_RDONLY | O_NONBLOCK), POLLIN, 0};
        Command command;
        command.arguments = {KORVANE_TV, "run", path, "--verbose", "--clock", "real"};
        command.signals = {{signal, "[start]", ""}};
        command.outputPath = pipe;
        EXPECT_EQ(runCommand(command).status, 128 + signal);
        EXPECT_EQ(poll(&end, 1, 10'000), 1);
        EXPECT_EQ(end.revents, POLLHUP) << "open still, or written to";
        close(end.fd);
    }
}

TEST_F(RunTest, ListSaysWhatEachShowsAndHolds) {
    const CommandResult result = korvaneTv({"list", KORVANE_SCENARIOS});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("soak-24h\n    shows  24 hours"), HasSubstr("    holds  ")));
    EXPECT_THAT(korvaneTv({"list", mFolder}).error, HasSubstr("holds no scenario"));
}

}  // namespace
}  // namespace korvane::test
