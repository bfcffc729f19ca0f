// SPDX-License-Identifier: Apache-2.0
// Plays small clips through the command line and checks status and summary.
//
// In virtual time, where every run is the same; those that a signal ends run in real time. Builds
// with a sanitizer have the real clock only: there, nothing is checked that depends on threads
// being woken in time.
#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <ostream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/player/command/CommandRunner.h"

namespace korvane::test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kVirtualClock = false;
#else
constexpr bool kVirtualClock = true;
#endif

std::string clip(const std::string& name) {
    return std::string(KORVANE_CLIPS "/") + name;
}

using Facts = std::map<std::string, std::string>;

std::vector<std::string> words(const std::string& text) {
    std::istringstream split(text);
    return {std::istream_iterator<std::string>(split), {}};
}

/// Checks values of the summary: "key=text", or a range of numbers, "key=1..5" or "key=1..".
void expectFacts(const Facts& facts, const std::string& wanted) {
    for (const auto& fact : words(wanted)) {
        const size_t equals = fact.find('=');
        const auto found = facts.find(fact.substr(0, equals));
        ASSERT_NE(found, facts.end()) << fact;
        const std::string says = fact.substr(equals + 1);
        const size_t dots = says.find("..");
        if (dots == std::string::npos) {
            EXPECT_EQ(found->second, says) << fact;
            continue;
        }
        const std::string most = says.substr(dots + 2);
        const int64_t seen = std::stoll(found->second);
        EXPECT_GE(seen, std::stoll(says)) << fact;
        EXPECT_LE(seen, most.empty() ? INT64_MAX : std::stoll(most)) << fact;
    }
}

using Json = nlohmann::json;

/// Checks a summary, or a line of the ledger, against its schema, of which it knows what the schema
/// uses. New keys must be described there.
void expectDescribed(const Json& summary, const char* schemaFile) {
    const Json schema = Json::parse(readFile(std::string(KORVANE_DOCS "/") + schemaFile));
    const Json patterns = schema.value("patternProperties", Json::object());
    for (const auto& key : schema["required"]) {
        EXPECT_TRUE(summary.contains(key)) << key;
    }
    const std::map<std::string, bool (*)(const Json&)> types = {
        {"integer", [](const Json& value) { return value.is_number_integer(); }},
        {"number", [](const Json& value) { return value.is_number(); }},
        {"boolean", [](const Json& value) { return value.is_boolean(); }},
        {"null", [](const Json& value) { return value.is_null(); }},
        {"string", [](const Json& value) { return value.is_string(); }}};
    const auto hasType = [&types](const Json& type, const Json& value) {
        const auto any = type.is_array() ? type : Json::array({type});
        return std::any_of(any.begin(), any.end(),
                           [&](const Json& name) { return types.at(name)(value); });
    };
    const auto allows = [&hasType](const Json& rule, const Json& value) {
        const auto has = [&rule](const char* key) { return rule.contains(key); };
        return (!has("const") || rule["const"] == value) &&
               (!has("type") || hasType(rule["type"], value)) &&
               (!has("minimum") || value >= rule["minimum"]) &&
               (!has("enum") || std::count(rule["enum"].begin(), rule["enum"].end(), value) == 1) &&
               (!has("pattern") || !value.is_string() ||
                std::regex_search(value.get<std::string>(),
                                  std::regex(rule["pattern"].get<std::string>())));
    };
    EXPECT_FALSE(summary.contains("dwells_unexpected_unexplained"));
    for (const auto& [key, value] : summary.items()) {
        Json rule = schema["properties"].value(key, Json());
        for (const auto& [pattern, patternRule] : patterns.items()) {
            rule = std::regex_search(key, std::regex(pattern)) ? patternRule : rule;
        }
        EXPECT_FALSE(rule.is_null()) << "not described: " << key;
        EXPECT_TRUE(rule.is_null() || allows(rule, value)) << key << " is " << value;
    }
}

struct Scenario {
    const char* name;
    const char* arguments;  ///< clip first
    const char* always;     ///< expected in every run
    const char* inTime;     ///< expected in virtual time: a busy machine is late in real time
    int signal = 0;         ///< is sent
    const char* said = "";  ///< once the player has printed this
};

void PrintTo(const Scenario& scenario, std::ostream* out) {
    *out << scenario.name;
}

constexpr char kLocks[] = "pattern=[3:2] held_after_us=0..1000000 stayed=true";

/// Tests that scenarios cannot be: files, options, signals. Also one of each kind of fault, for
/// builds with a sanitizer, which do not run scenarios.
const Scenario kScenarios[] = {
    {"24on60", "24.mp4 --rate 60", "frames_in=72", kLocks},
    {"SoundIsHeardWithItsPicture", "24.mp4 --rate 50", "",
     "lip_sync_samples=70..72 lip_sync_worst_us=-20000..40000 lip_sync_seconds_outside_ebu=0"},
    {"30on60", "30.mp4 --rate 60", "", "pattern=[2:2] held_after_us=0..1000000 stayed=true"},
    {"60on60", "60.mp4 --rate 60", "", "pattern=[1:1] held_after_us=0..1000000 stayed=true"},
    {"25on50", "25.mp4 --rate 50", "", "pattern=[2:2] stayed=true"},
    {"23_976on59_94", "23.976.mp4 --rate 59.94", "", kLocks},
    {"AudioTwoSecondsLate", "24.mp4 --audio-delay 2s --seconds 1", "first_frame_us=2000000..",
     "first_frame_us=0..2500000"},
    {"AudioTwoSecondsLatePeeked", "24.mp4 --audio-delay 2s --seconds 1 --peek",
     "first_frame_us=0..1500000 second_frame_us=400000..", ""},
    {"UnderflowAndCatchUp", "24.mp4 --audio-underflow 1s:400ms --video-stall 1s:700ms --log 7",
     "frames_in=72 audio_underflows=1 frames_dropped=1..", "dropped_underflow_catch_up=1.."},
    {"NoAudioAsked", "24.mp4 --no-audio", "frames_in=72 with_audio=false lip_sync_samples=0",
     "frames_shown=72 pattern=[3:2] dwells_unexpected=0"},
    {"NoAudioTrack", "silent.mp4 --flush-at 1s", "frames_in=72 sections=2", ""},
    {"Passthrough", "30.mp4 --passthrough", "frames_in=90",
     "frames_shown=90 pattern=[2:2] dwells_unexpected=0"},
    {"PassthroughHoldsAndDrops", "24.mp4 --passthrough --video-stall 1s:300ms",
     "frames_in=72 passthrough_holds=1.. dropped_policy=1..", ""},
    {"PassthroughSeekBack", "24.mkv --passthrough --seek 2s:0s", "sections=2 dropped_policy=1..3",
     "section1_first_frame_us=0..300000 dwells_unexpected=0"},
    {"EqualFlushes", "24.mp4 --flush-at 1s --flush-at 1s", "frames_in=72 sections=3",
     "frames_dropped=0..2"},
    {"EqualSeeks", "24.mkv --seek 2s:0s --seek 2s:0s", "sections=3", "frames_shown=170..175"},
    {"SeekInAStall", "24.mkv --video-stall 1s:1s --seek 1.3s:500ms", "sections=2",
     "frames_dropped=0 frames_in=84 longest_freeze_us=0..400000"},
    {"SeekBack", "24.mkv --seek 1s:0s --seek 1.5s:2s --buffers 5", "sections=3", ""},
    {"SoundComesLater", "late-sound.mkv", "frames_in=72",
     "frames_shown=72 first_frame_us=0..200000"},
    {"SoundComesNineSecondsLater", "very-late-sound.mkv",
     "frames_in=288 sound_from_us=8900000..9100000", "frames_shown=288 first_frame_us=0..200000"},
    {"TransportStreamWithSoundNineSecondsLater", "very-late-sound.ts",
     "with_audio=true sound_from_us=8900000..9100000", "first_frame_us=0..200000"},
    {"PicturesComeLater", "late-pictures.mkv", "end=complete frames_in=72",
     "frames_shown=72 first_frame_us=8000000..8200000"},
    {"TransportStreamWithPicturesLater", "late-pictures.ts", "end=complete frames_in=72",
     "frames_shown=72 first_frame_us=8000000..8200000"},
    {"SpliceAnHourForward", "an-hour-on.ts", "end=complete frames_in=144 splices=1",
     "frames_shown=144 dwells_unexpected=0 splice_lost_worst_us=0"},
    {"SpliceSixSecondsForward", "six-seconds-on.ts", "end=complete frames_in=144 splices=1",
     "frames_shown=144 splice_lost_worst_us=0"},
    {"SpliceAnHourBack", "an-hour-back.ts", "end=complete frames_in=144 splices=1",
     "frames_shown=144 splice_lost_worst_us=0"},
    {"SpliceThatCostsTime", "an-hour-on.ts --video-stall 2.95s:500ms", "splices=1",
     "splice_lost_worst_us=400000..600000"},
    {"RepeatedSections", "repeated.ts", "end=complete frames_in=216 splices=2",
     "frames_shown=216 splice_lost_worst_us=0"},
    {"SeekBackOverASplice", "an-hour-on.ts --seek 4s:1s", "end=complete sections=2",
     "section1_frames_in_step=119 dwells_unexpected=0"},
    {"SeekForwardOverASplice", "an-hour-on.ts --seek 1s:4s", "end=complete sections=2",
     "section1_frames_in_step=46..48"},
    {"SeekWithoutTimestamps", "no-times.h264 --seek 1s:500ms",
     "sections=2 seeks_failed=0 end=complete", ""},
    {"SeekBeyondTheEnd", "24.mp4 --seek 1s:60s", "end=complete seeks_beyond_end=1", ""},
    {"SlidesOfSixSeconds", "slides.mkv", "end=complete frames_shown=3", ""},
    {"SeekWithoutIndex", "one-key.ts --seek 500ms:2s", "sections=2", "section1_frames_in_step=23"},
    {"OneFrame", "one-frame.mp4", "end=complete frames_shown=1", ""},
    {"OneFrameOfMany", "24.mp4 --seconds 1us", "end=complete frames_shown=1", ""},
    {"OneFrameAfterASeek", "24.mkv --seek 500ms:2.95s", "end=complete sections=2", ""},
    {"Interrupted", "30.mp4 --log 1", "end=interrupted frames_in=1..89", "", SIGINT,
     "audio have started"},
    {"InterruptedWhileItWaitsForAudio", "24.mp4 --audio-delay 1000s --log 1",
     "end=interrupted frames_shown=0", "", SIGTERM, "[start]"},
    {"FileBreaksOff", "half.mp4", "end=broken_off frames_in=10..71", ""},
    {"MatroskaBreaksOff", "half.mkv", "end=broken_off", ""},
    {"BreaksOffNearTheEnd", "most.mp4", "end=broken_off frames_in=68..71", ""},
    {"MatroskaBreaksOffNearTheEnd", "most.mkv", "end=broken_off frames_in=62..71", ""},
    {"WholeButTimesBeginLate", "from-10s.mkv", "end=complete frames_in=72", ""},
    {"BreaksOffAfterTheFirstFrame", "first.mkv", "end=broken_off frames_shown=1", ""},
};

class PlayTest : public ::testing::TestWithParam<Scenario> {};

TEST_P(PlayTest, IsAccountedForAndInTime) {
    const Scenario& scenario = GetParam();
    const std::string json = scratch("summary.json");
    Command command;
    command.arguments = {KORVANE_TV, "play", "--json", json};
    for (const auto& word : words(KORVANE_CLIPS "/" + std::string(scenario.arguments))) {
        command.arguments.push_back(word);
    }
    if (scenario.signal != 0) {
        command.signals = {{scenario.signal, scenario.said, ""}};
        command.arguments.insert(command.arguments.end(), {"--clock", "real"});
    }
    const CommandResult result = runCommand(command);
    const Facts facts = readFlatJson(json);
    expectDescribed(Json::parse(readFile(json)), "summary.schema.json");
    unlink(json.c_str());
    const bool brokenOff = std::string(scenario.always).find("end=broken_off") != std::string::npos;
    const int status = scenario.signal != 0 ? 128 + scenario.signal : brokenOff ? 4 : 0;
    ASSERT_EQ(result.status, status) << result.output << result.error;
    expectFacts(facts, status == 0 ? "ok=true complete=true" : "ok=false complete=false");
    expectFacts(facts, "frames_lost=0 buffers_kept=0 pictures_overwritten_on_screen=0");
    const auto sum = [&facts](const std::string& keys) {
        int64_t total = 0;
        for (const auto& key : words(keys)) {
            total += std::stoll(facts.at(key));
        }
        return total;
    };
    const int64_t framesIn = sum("frames_in");
    EXPECT_EQ(sum("frames_shown frames_superseded frames_dropped frames_flushed frames_refused "
                  "frames_discarded_by_stop frames_in_tunnel_at_stop"),
              framesIn);
    // Each buffer is returned once: by callback or at stop.
    EXPECT_EQ(sum("buffers_returned buffers_taken_back_at_stop"), framesIn);
    expectFacts(facts, scenario.always);
    if (kVirtualClock) {
        expectFacts(facts, scenario.inTime);
    }
}

std::string nameOf(const ::testing::TestParamInfo<Scenario>& scenario) {
    return scenario.param.name;
}
INSTANTIATE_TEST_SUITE_P(Clips, PlayTest, ::testing::ValuesIn(kScenarios), nameOf);

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

void expectRefused(const std::vector<std::string>& arguments, const std::string& says) {
    const CommandResult result = korvaneTv(arguments);
    EXPECT_EQ(result.status, 2) << result.error;
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.error, AllOf(HasSubstr("korvane-tv: "), HasSubstr(says)));
    EXPECT_EQ(std::count(result.error.begin(), result.error.end(), '\n'), 1) << result.error;
}

TEST(BadInputTest, IsToldInOneLineWithStatus2) {
    // The index comes first, so the file opens; its pictures are missing.
    const std::string pictureless = scratch("pictureless.mp4");
    const std::string whole = readFile(clip("24.mp4"));
    writeFile(pictureless, whole.substr(0, whole.find("mdat") + 40));
    const std::vector<std::pair<std::vector<std::string>, std::string>> inputs = {
        {{"play", clip("missing.mp4")}, "No such file"},
        {{"play", clip("empty.mp4")}, "is empty"},
        {{"play", clip("noise.mp4")}, "no media file"},
        {{"play", clip("cut.mp4")}, "cut off before its index"},
        {{"play", clip("tone.wav")}, "holds no video"},
        {{"play", KORVANE_CLIPS}, "is a directory"},
        {{"play", "/dev/stdin"}, "is empty"},
        {{"play", pictureless, "--trace", scratch("untouched.pftrace")}, "no mpeg4 picture"},
        {{"play", clip("24.mp4"), "--bogus"}, "--bogus"},
        {{"play", "no\x1b[31m\n\x9b.mp4"}, "'no\\x1b[31m\\x0a\\x9b.mp4': No such file"},
        {{"play", clip("24.mp4"), "--prop", "a=" + std::string(92, 'x')}, "91 bytes"},
        {{"play", clip("24.mp4"), "--csv", "/nonexistent/frames.csv"}, "No such file"},
        {{"play", clip("24.mp4"), "--trace", "/nonexistent/trace.pftrace"}, "No such file"},
    };
    for (const auto& [arguments, says] : inputs) {
        expectRefused(arguments, says);
    }
    EXPECT_NE(access(scratch("untouched.pftrace").c_str(), F_OK), 0);
    chmod(pictureless.c_str(), 0);
    if (geteuid() != 0) {
        expectRefused({"play", pictureless}, "may not be read (Permission denied)");
    }
    unlink(pictureless.c_str());
}

TEST(RefusedOutputTest, LeavesEveryFileAsItWas) {
    const std::string film = scratch("film.mp4");
    const std::string link = scratch("link.mp4");
    const std::string kept = scratch("kept.csv");
    const std::string fresh = scratch("fresh");
    const std::string whole = readFile(clip("24.mp4"));
    writeFile(film, whole);
    writeFile(kept, "kept");
    ASSERT_EQ(symlink(film.c_str(), link.c_str()), 0);
    const std::vector<std::pair<std::vector<std::string>, std::string>> refusals = {
        {{"--csv", film}, "is the film"},
        {{"--json", link}, "is the film"},
        {{"--events", kept, "--trace", film}, "is the film"},
        {{"--csv", fresh, "--json", fresh}, "--json " + fresh + ": is also the file of --csv"},
        {{"--events", kept, "--trace", kept}, "is also the file of --events"},
        {{"--csv", kept, "--json", "/nonexistent/x"}, "No such file"},
        {{"--csv", kept, "--events", fresh, "--trace", "/nonexistent/x"}, "No such file"},
        {{"--csv", kept, "--prop", "a=" + std::string(92, 'x')}, "91 bytes"},
        {{"--csv", "/dev/stdout"}, "standard output"},
        {{"--csv", kept, "--report", "/proc/none"}, "--report /proc/none: No such file"},
        {{"--report", kept}, "--report " + kept + ": Not a directory"},
        {{"--report", fresh + "/a/b/", "--json", "/nonexistent/x"}, "No such file"},
    };
    for (const auto& [options, says] : refusals) {
        std::vector<std::string> play = {"play", film};
        play.insert(play.end(), options.begin(), options.end());
        expectRefused(play, says);
        EXPECT_EQ(readFile(film), whole) << says;
        EXPECT_EQ(readFile(kept), "kept") << says;
        EXPECT_NE(access(fresh.c_str(), F_OK), 0) << says;
    }
    for (const auto& file : {film, link, kept}) {
        unlink(file.c_str());
    }
}

TEST(TwoRunsTest, IntoOneFileAreRefusedWhileTheFirstPlays) {
    const std::string csv = scratch("shared.csv");
    const std::string trace = scratch("shared.pftrace");
    CommandResult first;
    std::thread playing([&] {
        first =
            korvaneTv({"play", clip("24.mp4"), "--csv", csv, "--trace", trace, "--clock", "real"});
    });
    while (readFile(trace).find("showFrame") == std::string::npos) {
        usleep(1000);
    }
    const std::string refusal = ": another run is writing it";
    expectRefused({"play", clip("24.mp4"), "--json", csv}, csv + refusal);
    expectRefused({"play", clip("24.mp4"), "--trace", trace}, trace + refusal);
    playing.join();
    EXPECT_EQ(first.status, 0) << first.error;
    const std::string lines = readFile(csv);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 73) << "a header and 72 frames";
    EXPECT_EQ(korvaneTv({"play", clip("24.mp4"), "--csv", csv, "--trace", trace}).status, 0);
    unlink(csv.c_str());
    unlink(trace.c_str());
}

TEST(SeedTest, ReachesTheVsyncJitter) {
    if (!kVirtualClock) {
        GTEST_SKIP() << "real time is another each time";
    }
    std::vector<std::string> hashes;
    for (const char* seed : {"1", "2", "2"}) {
        const std::string output =
            korvaneTv({"play", clip("24.mp4"), "--vsync-jitter", "5ms", "--seed", seed}).output;
        hashes.push_back(output.substr(output.find("events "), 23));
    }
    EXPECT_NE(hashes[0], hashes[1]);
    EXPECT_EQ(hashes[1], hashes[2]);
}

TEST(NoteTest, WhatCannotHappenIsSaidAndPlayedAllTheSame) {
    const CommandResult result = korvaneTv(
        {"play", clip("24.mp4"), "--no-audio", "--audio-drift", "9", "--seek", "8s:0s", "--quiet"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.error, AllOf(HasSubstr("--audio-drift has no effect: --no-audio is given\n"),
                                    HasSubstr("--seek 8.000 s has no effect: the film ends at 3")));
}

TEST(ExpectTest, HoldsOrIsToldWithItsOwnStatus) {
    if (!kVirtualClock) {
        GTEST_SKIP() << "real time is another each time";
    }
    const std::vector<std::string> met = {"even",       "pattern=[3:2]", "shown=all",
                                          "dwell=2..3", "dropped=0",     "stop-within=20ms"};
    const struct {
        const char* film;
        std::vector<std::string> expectations;
        int status;
        const char* says;
    } plays[] = {
        {"24.mp4", met, 0, ""},
        {"24.mp4", {"patterns=[\"[3:2]\"]", "log=[{ text = \"no such line\", count = 0 }]"}, 0, ""},
        {"24.mp4", {"even=false"}, 1, "\nFAILED    even: expected false, seen Even"},
        {"24.mp4",
         {"frames=71", "dwell=3"},
         1,
         "\nFAILED    frames: expected 71, seen 72\nFAILED    dwell: expected 3 vsyncs, seen 2, "
         "first"},
        {"24.mp4",
         {"log=[{ priority = \"error\", count = 1 }]"},
         1,
         "FAILED    log: expected 1 lines of its priority or above, seen 0"},
        {"half.mp4", {"frames=72"}, 4, "FAILED    end: expected complete, seen broken_off"},
        {"half.mp4", {"end=broken_off"}, 0, ""},
        {"half.mp4", {"end=broken_off", "frames=72"}, 1, "FAILED    frames: expected 72, seen "},
    };
    for (const auto& play : plays) {
        std::vector<std::string> arguments = {"play", clip(play.film), "--quiet"};
        for (const auto& expectation : play.expectations) {
            arguments.insert(arguments.end(), {"--expect", expectation});
        }
        const CommandResult result = korvaneTv(arguments);
        EXPECT_EQ(result.status, play.status) << play.says << result.output << result.error;
        EXPECT_THAT(result.output, HasSubstr(play.says));
        EXPECT_EQ(result.output.find("FAILED") != std::string::npos, play.says[0] != '\0');
    }
}

TEST(DamagedFileTest, IsToldInTheReport) {
    const CommandResult result = korvaneTv({"play", clip("damaged.ts"), "--seconds", "3"});
    EXPECT_THAT(result.output, HasSubstr("came damaged or could not be decoded"));
}

TEST(HelpTest, GoesToStandardOutputWithStatus0) {
    const CommandResult result = korvaneTv({"play", "--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, AllOf(HasSubstr("--audio-underflow"), HasSubstr("Exit status")));
    EXPECT_EQ(result.error, "");
}

TEST(FullDiskTest, UnderTheTraceLosesTheTraceAlone) {
    const std::string json = scratch("summary.json");
    const std::vector<std::string> play = {"play", clip("24.mp4"), "--json", json, "--trace"};
    auto whole = play;
    whole.push_back(scratch("whole.pftrace"));
    EXPECT_EQ(korvaneTv(whole).status, 0);
    const std::string events = readFlatJson(json)["trace_events"];
    auto full = play;
    full.push_back("/dev/full");
    const CommandResult result = korvaneTv(full);
    EXPECT_EQ(result.status, 1) << result.error;
    EXPECT_THAT(result.output, HasSubstr("every frame accounted for"));
    EXPECT_THAT(result.error,
                AllOf(HasSubstr("No space left"), HasSubstr("playback and summary are")));
    EXPECT_EQ(result.error.find("No space left"), result.error.rfind("No space left"));
    const Facts facts = readFlatJson(json);
    expectFacts(facts, "ok=true trace_events=0 trace_lost=1..");
    if (kVirtualClock) {
        EXPECT_EQ(facts.at("trace_lost"), events) << "what is not recorded is counted";
    }
    unlink(json.c_str());
    unlink(whole.back().c_str());
}

TEST(FullDiskTest, UnderAnotherOutputIsToldWithStatus1) {
    const CommandResult files = korvaneTv({"play", clip("24.mp4"), "--seconds", "0.5", "--csv",
                                           "/dev/full", "--json", "/dev/full", "--quiet"});
    EXPECT_EQ(files.status, 1);
    EXPECT_THAT(files.error, AllOf(HasSubstr("--csv /dev/full"), HasSubstr("--json /dev/full")));
    const std::vector<std::vector<std::string>> commands = {
        {"play", clip("24.mp4"), "--seconds", "0.5", "--quiet"},
        {"list", KORVANE_SCENARIOS},
        {"run", "--help"},
        {"--version"}};
    for (const auto& arguments : commands) {
        Command command;
        command.arguments = {KORVANE_TV};
        command.arguments.insert(command.arguments.end(), arguments.begin(), arguments.end());
        command.outputPath = "/dev/full";
        const CommandResult output = runCommand(command);
        EXPECT_EQ(output.status, 1) << arguments[0];
        EXPECT_THAT(output.error, HasSubstr("standard output")) << arguments[0];
    }
}

TEST(ReportFolderTest, HoldsAPageWhateverEndsPlayback) {
    const std::string folder = scratch("report");
    const std::string page = folder + "/report.html";
    const std::string ledger = scratch("ledger.jsonl");
    Command command;
    command.arguments = {KORVANE_TV, "play", clip("24.mp4"), "--report", folder, "--clock", "real"};
    command.signals = {{SIGINT, "has not ended yet", page}};
    const CommandResult ended = runCommand(command);
    if (ended.error.find("lacks the chart library") != std::string::npos) {
        EXPECT_EQ(ended.status, 1);
        GTEST_SKIP() << ended.error;
    }
    EXPECT_EQ(ended.status, 128 + SIGINT) << ended.error;
    const std::string html = readFile(page);
    EXPECT_NE(html.find("interrupted; this is what was played until then"), html.npos);
    EXPECT_NE(html.find("</html>"), html.npos);

    unlink(page.c_str());
    ASSERT_EQ(symlink("/dev/full", page.c_str()), 0);
    const CommandResult full = korvaneTv(
        {"play", clip("24.mp4"), "--report", folder, "--ledger", ledger, "--seconds", "1"});
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.error, HasSubstr("--report " + page + ": could not be written whole"));
    EXPECT_THAT(readFile(folder + "/events.txt"), HasSubstr(" stop\n"));
    expectDescribed(Json::parse(readFile(folder + "/summary.json")), "summary.schema.json");
    std::istringstream lines(readFile(ledger));
    size_t frames = 0;
    for (std::string line; std::getline(lines, line); ++frames) {
        expectDescribed(Json::parse(line), "ledger.schema.json");
    }
    EXPECT_EQ(frames, 24);
    for (const auto& file : {page, folder + "/events.txt", folder + "/summary.json", ledger}) {
        unlink(file.c_str());
    }
    EXPECT_EQ(rmdir(folder.c_str()), 0);
}

TEST(AgainstTest, ComparesTwoBuildsOfTheLibraryInOneCommand) {
    if (!kVirtualClock) {
        GTEST_SKIP() << "two plays differ in real time";
    }
    const std::string library = scratch("old.so");
    writeFile(library, readFile(KORVANE_LIBRARY));
    const CommandResult same =
        korvaneTv({"play", clip("24.mp4"), "--against", library, "--rate", "59.94"});
    EXPECT_EQ(same.status, 0) << same.error;
    EXPECT_THAT(same.output, HasSubstr("Same to the byte\n\nA         " + library + "\n"));
    const std::vector<std::string> play = {"play", clip("24.mp4"), "--against"};
    for (const auto& [words, says] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{clip("24.mp4")}, "no shared library"},
             {{library, "--csv", "frames.csv"}, "--against plays twice"},
             {{library, "--audio", "7"}, "7"}}) {
        auto refused = play;
        refused.insert(refused.end(), words.begin(), words.end());
        expectRefused(refused, says);
    }
    unlink(library.c_str());
}

TEST(ClosedStandardFilesTest, AreNotMistakenForAnOutput) {
    const std::string csv = scratch("frames.csv");
    Command command;
    command.arguments = {"/bin/sh",  "-c",   R"(exec "$0" "$@" <&- >&- 2>&-)",
                         KORVANE_TV, "play", clip("24.mp4"),
                         "--csv",    csv};
    EXPECT_EQ(runCommand(command).status, 1) << "nobody had the summary";
    const std::string lines = readFile(csv);
    EXPECT_THAT(lines, AllOf(HasSubstr("frame,media_us"), Not(HasSubstr("verdict"))));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 73) << "a header and 72 frames";
    unlink(csv.c_str());
}

TEST(KillTest, LeavesNothingInTheWayOfTheNextPlay) {
    const std::string trace = scratch("killed.pftrace");
    Command command;
    command.arguments = {KORVANE_TV, "play", clip("24.mp4"), "--trace", trace, "--clock", "real"};
    command.signals = {{SIGKILL, "showFrame", trace}};
    EXPECT_EQ(runCommand(command).status, 128 + SIGKILL);
    EXPECT_EQ(korvaneTv({"play", clip("24.mp4"), "--seconds", "0.5", "--trace", trace}).status, 0);
    unlink(trace.c_str());
}

TEST(FirstSignalTest, KillsAPlayerThatWaitsForAnOutputToOpen) {
    const std::string pipe = scratch("pipe");
    const std::string csv = scratch("first.csv");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    Command command;
    command.arguments = {KORVANE_TV, "play", clip("24.mp4"), "--csv", csv, "--json", pipe};
    command.signals = {{SIGINT, "", csv}};
    EXPECT_EQ(runCommand(command).status, 128 + SIGINT);
    unlink(csv.c_str());
    unlink(pipe.c_str());
}

TEST(SecondSignalTest, KillsAPlayerThatTheFirstDidNotEnd) {
    // The pipe for the summary is full: after the first signal the player blocks in writing.
    const std::string pipe = scratch("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const int end = open(pipe.c_str(), O_RDWR | O_NONBLOCK);
    while (write(end, "x", 1) == 1) {
    }
    Command command;
    command.arguments = {KORVANE_TV, "play", clip("24.mp4"), "--log", "1",
                         "--clock",  "real", "--json",       pipe};
    command.signals = {{SIGINT, "audio have started", ""}, {SIGINT, "verdict", ""}};
    EXPECT_EQ(runCommand(command).status, 128 + SIGINT);
    close(end);
    unlink(pipe.c_str());
}

TEST(LogTest, TheLibrarysLinesComeOnlyWhenAskedFor) {
    const std::vector<std::string> play = {"play", clip("24.mp4"), "--seconds", "1.5"};
    EXPECT_THAT(korvaneTv(play).error, Not(HasSubstr("Korvane_VideoTunnelRenderer I")));
    auto asked = play;
    asked.insert(asked.end(), {"--log", "3", "--prop", "vendor.tunerpassthrough.renderfreeRun=1"});
    EXPECT_THAT(korvaneTv(asked).error,
                AllOf(HasSubstr("vendor.korvane.loglevels set = 3"),
                      HasSubstr("vendor.tunerpassthrough.renderfreeRun set = 1"),
                      HasSubstr("3:2 pattern detected")));
}

}  // namespace
}  // namespace korvane::test
