// SPDX-License-Identifier: Apache-2.0
// The commands `run` and `list`: the shipped scenarios pass and repeat to the byte, a failed one
// says why, a wrong file is refused.
#include <gmock/gmock.h>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <utility>

#include "tests/player/command/CommandRunner.h"

namespace korvane::test {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

/// With a folder that is removed after the test.
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
        // The second run is on one processor: their number must have no effect.
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

/// The number after "name=" in a line of the event log.
int64_t numberIn(const std::string& line, const std::string& name) {
    const size_t at = line.find(" " + name + "=");
    return at == std::string::npos ? INT64_MIN : std::stoll(line.substr(at + name.size() + 2));
}

// Until the pause the clock is right and tells where the sound begins. After it the sound goes on
// from where it stopped, whatever the clock says.
TEST_F(RunTest, LipSyncTellsAWrongClockFromTheSound) {
    const std::string jump = KORVANE_SCENARIOS "/audio-latency-jump.toml";
    ASSERT_EQ(korvaneTv({"run", jump, "--events", mFolder}).status, 0);
    std::istringstream events(readFile(mFolder + "/audio-latency-jump.events"));
    std::map<int64_t, int64_t> mediaUs;
    int64_t soundUs = INT64_MIN;  // media time 0 is heard
    int64_t pausedUs = 0;
    int64_t resumedUs = INT64_MAX;
    std::vector<int64_t> wrongForUs;
    for (std::string line; std::getline(events, line);) {
        std::istringstream words(line);
        double seconds = 0;
        std::string kind;
        words >> seconds >> kind;
        const auto us = static_cast<int64_t>(std::llround(seconds * 1e6));
        const int64_t frame = numberIn(line, "frame");
        const int64_t lipSync = numberIn(line, "lip_sync_us");
        if (kind == "sent") {
            mediaUs[frame] = numberIn(line, "media_us");
        } else if (kind == "pause") {
            pausedUs = us;
        } else if (kind == "resume") {
            resumedUs = us;
            soundUs += resumedUs - pausedUs;
        } else if (kind == "shown" && lipSync != INT64_MIN) {
            const int64_t offset = numberIn(line, "offset_us");
            soundUs = soundUs == INT64_MIN ? us - offset - mediaUs[frame] : soundUs;
            ASSERT_NEAR(lipSync, us - mediaUs[frame] - soundUs, 5) << line;
            EXPECT_LE(std::abs(lipSync), resumedUs < us ? 100'000 : 30'000) << line;
            if (lipSync > 60'000) {
                wrongForUs.push_back(us - resumedUs);
            }
        }
    }
    ASSERT_GE(wrongForUs.size(), 40U);
    EXPECT_NEAR(wrongForUs.front(), 200'000, 100'000);
    EXPECT_NEAR(wrongForUs.back(), 2'000'000, 100'000);
}

/// Threads lose the processor with a seed that is not the scenario's own.
TEST_F(RunTest, AnotherSeedIsAnotherRunAndStillPasses) {
    const auto files = shipped();
    const std::string events = mFolder + "/events";
    std::vector<std::string> run = {"run", "--jobs", "2", "--seeds", "1..2", "--events", events};
    run.insert(run.end(), files.begin(), files.end());
    const CommandResult result = korvaneTv(run);
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr("seed 2"));
    for (const auto& file : files) {
        const bool exact = readFile(file).find("preempt = false") != std::string::npos;
        const std::string log = events + "/" + fs::path(file).stem().string();
        EXPECT_TRUE(exact || readFile(log + "-seed1.events") != readFile(log + "-seed2.events"))
            << file;
    }
}

TEST_F(RunTest, ScenariosOfOneNameKeepTheirOwnEventLogsAndAFolderHasOneRun) {
    const std::string events = mFolder + "/events";
    const std::string content = "[content]\nfps = 24\nduration = \"1s\"\n[expect]\nshown = ";
    fs::create_directories(mFolder + "/other");
    const std::vector<std::string> run = {
        "run",
        "--events",
        events,
        "--trace",
        mFolder + "/timelines",
        "--record",
        mFolder + "/films",
        scenario("one", content + "24\n"),
        scenario("other/one", "[content]\nfps = 24\nduration = \"2s\"\n[expect]\n"),
        scenario("one-2", content + "24\n")};
    const CommandResult result = korvaneTv(run);
    EXPECT_EQ(result.status, 0) << result.output << result.error;
    EXPECT_THAT(result.output, AllOf(HasSubstr("ok      one-3  48 shown"), HasSubstr("3 ok")));
    const auto framesOf = [&](const char* name) {
        const std::string log = readFile(events + "/" + name + ".events");
        return log.find(" frame=47 ") != log.npos   ? 48
               : log.find(" frame=23 ") != log.npos ? 24
                                                    : 0;
    };
    EXPECT_THAT((std::vector<int>{framesOf("one"), framesOf("one-2"), framesOf("one-3")}),
                ElementsAre(24, 24, 48));
    for (const char* file : {"/timelines/one-3.pftrace", "/films/one.mp4", "/films/one-2.mp4"}) {
        EXPECT_GT(readFile(mFolder + file).size(), 10'000U) << file;
    }
    const int other = open(events.c_str(), O_RDONLY);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    const CommandResult second = korvaneTv(run);
    close(other);
    EXPECT_EQ(second.status, 2);
    EXPECT_THAT(second.error, HasSubstr("--events " + events + ": another run is writing into it"));
}

TEST_F(RunTest, NamesAreQuotedForTheShellAndNeverRawOnTheTerminal) {
    const std::string body = "[content]\nfps = 24\nduration = \"1s\"\n[expect]\n";
    const std::string odd = mFolder + "/it's \x1b[2J.toml";
    fs::rename(scenario("plain", body), odd);
    const std::string output = korvaneTv({"run", odd}).output;
    EXPECT_THAT(output,
                AllOf(HasSubstr("ok      it's \\x1b[2J  "), Not(HasSubstr("\x1b")),
                      HasSubstr("# korvane-tv run $'" + mFolder + "/it\\'s \\x1b[2J.toml'")));
    EXPECT_THAT(korvaneTv({"list", odd}).output, Not(HasSubstr("\x1b")));
    // What is printed after the # plays the same again.
    Command again;
    again.arguments = {"/bin/bash", "-c",
                       "korvane-tv() { \"$0\" \"$@\"; }; " + output.substr(output.find('#') + 2),
                       KORVANE_TV};
    const auto hash = [](const std::string& text) { return text.substr(text.find("events "), 23); };
    EXPECT_EQ(hash(runCommand(again).output), hash(output));
}

TEST_F(RunTest, AFailureIsToldWithStatus1AndTheOthersGoOn) {
    const std::string content = "[content]\nfps = 24\nduration = \"2s\"\n[audio]\n[expect]\n";
    const std::string bad = scenario("bad", content + "dropped = 3\npattern = \"[2:2]\"\n");
    scenario("good", content + "shown = \"all\"\n");
    scenario("short", "[player]\nstop_at = \"3s\"\n" + content);
    const CommandResult result = korvaneTv({"run", mFolder, "--seed", "9"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("FAILED  bad "), HasSubstr("ok      good "),
                      HasSubstr("        dropped: expected 3, seen 0\n"),
                      HasSubstr("        pattern: expected [2:2] held, seen [3:2]\n"),
                      HasSubstr("# korvane-tv run " + bad + " --seed 9 --preempt\n"),
                      ContainsRegex("        player.stop_at at 3.000 s never happened: playback "
                                    "ended at 2\\.[0-9]+ s\n"),
                      HasSubstr("3 scenarios, 1 ok, 2 failed")));
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
    const std::string film = "[content]\nfile = \"" KORVANE_SCENARIOS "/media/film.mkv\"\n";
    const std::vector<std::pair<const char*, const char*>> pastEnd = {
        {"[player]\nseek = [{ at = \"1s\", to = \"1h\" }]\n", "player.seek.to: 3600.000 s is past"},
        {"[audio]\nunderflow = [{ at = \"1h\", for = \"1s\" }]\n",
         "audio.underflow.at: 3600.000 s"},
        {"[audio]\nstep_back = [{ at = \"1h\", by = \"1s\" }]\n", "audio.step_back.at: 3600.000 s"},
    };
    for (const auto& [fault, says] : pastEnd) {
        const CommandResult late =
            korvaneTv({"run", scenario("late", film + fault + "[expect]\n")});
        EXPECT_EQ(late.status, 2);
        EXPECT_THAT(late.output, HasSubstr(says));
    }
}

TEST_F(RunTest, LongWaitsAreNoHang) {
    scenario("pause",
             "[audio]\npause = [{ at = \"5s\", for = \"70m\" }]\n[expect]\nshown = \"all\"\n");
    scenario("list", "[content]\nlist = [\"0s\", \"70m\"]\n[expect]\nshown = \"all\"\n");
    scenario("slides", "[content]\nfps = 0.1\nduration = \"1m\"\n[expect]\nshown = \"all\"\n");
    const CommandResult result = korvaneTv({"run", mFolder});
    EXPECT_EQ(result.status, 0) << result.output << result.error;
}

/// What the event log says by itself of the frames on screen.
struct Seen {
    int64_t shown = 0;
    int64_t superseded = 0;
    std::map<int64_t, int64_t> dwells;  ///< without the last one, which stays until stop
    /// Vsyncs by which frames were off an ideal playback that is late by a constant time.
    double off = 0.0;
};

Seen readEvents(const std::string& path, double vsyncsPerFrame) {
    Seen seen;
    double least = 1e9;
    double most = -1e9;
    int64_t lastVsync = -1;
    std::ifstream lines(path);
    for (std::string line; std::getline(lines, line);) {
        long frame = 0;
        long vsync = 0;
        seen.superseded += line.find(" superseded ") != line.npos ? 1 : 0;
        const size_t at = line.find(" shown frame=");
        if (at == line.npos ||
            sscanf(line.c_str() + at, " shown frame=%ld vsync=%ld", &frame, &vsync) != 2) {
            continue;
        }
        seen.dwells[vsync - lastVsync] += seen.shown++ > 0 ? 1 : 0;
        lastVsync = vsync;
        const double late =
            static_cast<double>(vsync) - static_cast<double>(frame) * vsyncsPerFrame;
        least = std::min(least, late);
        most = std::max(most, late);
    }
    seen.off = most - least;
    return seen;
}

int64_t numberAfter(const std::string& text, const std::string& label) {
    const size_t at = text.find(label);
    return at == text.npos ? 0 : std::atoll(text.c_str() + at + label.size());
}

int64_t numberBefore(const std::string& text, const std::string& label) {
    const size_t at = text.find(label);
    const size_t begin = at == 0 ? 0 : text.find_last_not_of("0123456789", at - 1);
    return at == text.npos ? 0 : std::atoll(text.c_str() + begin + 1);
}

TEST_F(RunTest, TheReportSaysOfEachPairOfRatesWhatTheEventLogShows) {
    const std::pair<const char*, double> contents[] = {{"23.976", 24 / 1.001},
                                                       {"24", 24},
                                                       {"25", 25},
                                                       {"29.97", 30 / 1.001},
                                                       {"30", 30},
                                                       {"48", 48},
                                                       {"50", 50},
                                                       {"59.94", 60 / 1.001},
                                                       {"60", 60},
                                                       {"120", 120}};
    const std::pair<const char*, double> displays[] = {
        {"24", 24},   {"50", 50},   {"59.94", 60 / 1.001},
        {"60", 60},   {"100", 100}, {"119.88", 120 / 1.001},
        {"120", 120}, {"144", 144}};
    for (const auto& [content, contentHz] : contents) {
        for (const auto& [display, displayHz] : displays) {
            SCOPED_TRACE(std::string(content) + " on " + display);
            const std::string path =
                scenario("pair", std::string("[content]\nduration = \"20s\"\nfps = ") + content +
                                     "\n[display]\nrate = " + display + "\n[audio]\n[expect]\n");
            const CommandResult result =
                korvaneTv({"run", path, "--verbose", "--events", mFolder + "/events"});
            ASSERT_EQ(result.status, 0) << result.output;
            const std::string report = result.output + result.error;
            const Seen seen = readEvents(mFolder + "/events/pair.events", displayHz / contentHz);
            EXPECT_EQ(numberAfter(report, " in = "), seen.shown);
            EXPECT_EQ(numberBefore(report, " superseded + "), seen.superseded);
            int64_t dwells = 0;
            const size_t line = report.find("\ndwell ");
            const std::string told = report.substr(line, report.find('\n', line + 1) - line);
            for (const auto& [dwell, frames] : seen.dwells) {
                const std::string vsyncs = " for " + std::to_string(dwell);
                const int64_t counted =
                    numberBefore(told, " frames" + vsyncs) + numberBefore(told, " frame" + vsyncs);
                EXPECT_THAT(counted - frames, AnyOf(0, 1)) << told << ": the last one counts";
                dwells += frames;
            }
            EXPECT_EQ(dwells + 1, seen.shown);
            EXPECT_LT(seen.off, 1.75) << "a vsync, and what the renderer lets slips wait in [3:2]";
            EXPECT_THAT(report, AllOf(ContainsRegex("verdict   (Even|As even as the rates allow)"),
                                      HasSubstr("; unexpected: 0\n")));
        }
    }
}

TEST_F(RunTest, KilledItLeavesNoScenarioPlaying) {
    const std::string path =
        scenario("long", "[content]\nfps = 24\nduration = \"60s\"\n[expect]\n");
    for (const int signal : {SIGTERM, SIGKILL}) {
        // Every process that plays holds the write end of the pipe.
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

/// `make play` builds korvane-tv alone.
TEST_F(RunTest, SaysWhatToBuildWhereTheTestbenchIsMissing) {
    const fs::path alone = mFolder + "/bin/korvane-tv";
    fs::create_directories(alone.parent_path());
    fs::copy_file(KORVANE_TV, alone);
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"run", "any.toml"}, {"play", "a.mkv", "--against", "b.so"}}) {
        Command command{{alone}, {}, ""};
        command.arguments.insert(command.arguments.end(), words.begin(), words.end());
        const CommandResult result = runCommand(command);
        EXPECT_EQ(result.status, 1) << words.front();
        EXPECT_EQ(result.error,
                  "korvane-tv: this needs korvane-tv-testbench, which is not there; build it with: "
                  "make build\n");
    }
}

}  // namespace
}  // namespace korvane::test
