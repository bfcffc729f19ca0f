// Plays small clips through the command line and checks status and summary.
//
// In virtual time, where each play is the same every time; those that a signal ends are played in
// real time. Builds with a sanitizer have the real clock only: there, what depends on threads being
// woken in time is not looked at.
#include <gmock/gmock.h>

#include <unistd.h>

#include <csignal>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "tests/player/CommandRunner.h"

namespace korvane::test {
namespace {

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::Ge;
using ::testing::HasSubstr;
using ::testing::Le;
using ::testing::Not;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kVirtualClock = false;
#else
constexpr bool kVirtualClock = true;
#endif

std::string clip(const std::string& name) {
    return std::string(KORVANE_CLIPS "/") + name;
}

std::string scratch(const std::string& name) {
    return ::testing::TempDir() + "korvane-" + std::to_string(getpid()) + "-" + name;
}

/// A summary by key; a key that is missing reads as 0.
class Facts {
public:
    explicit Facts(std::map<std::string, std::string> values) : mValues(std::move(values)) {}
    std::string text(const std::string& key) const {
        const auto found = mValues.find(key);
        return found == mValues.end() ? "" : found->second;
    }
    int64_t number(const std::string& key) const {
        const std::string value = text(key);
        return value.empty() ? 0 : std::stoll(value);
    }
    bool yes(const std::string& key) const { return text(key) == "true"; }

private:
    std::map<std::string, std::string> mValues;
};

struct Scenario {
    const char* name;
    const char* file;
    std::vector<std::string> options;
    /// What must hold in every run, beside the accounts.
    std::function<void(const Facts&)> always;
    /// What a busy machine may spoil in real time.
    std::function<bool(const Facts&)> inTime;
    int signal = 0;
};

void PrintTo(const Scenario& scenario, std::ostream* out) {
    *out << scenario.name;
}

std::function<bool(const Facts&)> locks(const std::string& pattern) {
    return [pattern](const Facts& facts) {
        return facts.text("pattern") == pattern && facts.number("held_after_us") <= 1'000'000 &&
               facts.yes("stayed");
    };
}

void all72(const Facts& facts) {
    EXPECT_EQ(facts.number("frames_in"), 72);
}

const std::vector<Scenario>& scenarios() {
    static const std::vector<Scenario> all = {
        {"24on59_94", "24.mp4", {"--rate", "59.94"}, all72, locks("[3:2]")},
        {"24on60", "24.mp4", {"--rate", "60"}, all72, locks("[3:2]")},
        {"23_976on59_94", "23.976.mp4", {"--rate", "59.94"}, nullptr, locks("[3:2]")},
        {"30on60", "30.mp4", {"--rate", "60"}, nullptr, locks("[2:2]")},
        {"60on60", "60.mp4", {"--rate", "60"}, nullptr, locks("[1:1]")},
        {"25on50", "25.mp4", {"--rate", "50"}, nullptr, locks("[2:2]")},
        {"DisplayDrifts", "24.mkv", {"--display-drift", "50"}, nullptr, locks("[3:2]")},
        {"AudioTwoSecondsLate",
         "24.mp4",
         {"--audio-delay", "2s", "--seconds", "1"},
         [](const Facts& facts) {
             EXPECT_THAT(facts.number("first_frame_us"), Ge(2'000'000))
                 << "the picture waits for the sound";
         },
         [](const Facts& facts) { return facts.number("first_frame_us") < 2'500'000; }},
        {"AudioTwoSecondsLatePeeked",
         "24.mp4",
         {"--audio-delay", "2s", "--seconds", "1", "--peek"},
         [](const Facts& facts) {
             EXPECT_THAT(facts.number("first_frame_us"), Le(1'500'000)) << "shown at once";
             EXPECT_THAT(facts.number("second_frame_us"), Ge(400'000)) << "then waits";
         },
         nullptr},
        {"AudioUnderflow",
         "24.mp4",
         {"--audio-underflow", "1s:500ms"},
         [](const Facts& facts) {
             all72(facts);
             EXPECT_EQ(facts.number("audio_underflows"), 1);
         },
         [](const Facts& facts) {
             return facts.number("frames_shown") == 72 &&
                    facts.number("dwells_unexpected") ==
                        facts.number("dwells_unexpected_explained");
         }},
        {"UnderflowAndCatchUp",
         "24.mp4",
         {"--audio-underflow", "1s:400ms", "--video-stall", "1s:700ms", "--log", "7"},
         [](const Facts& facts) {
             all72(facts);
             EXPECT_EQ(facts.number("audio_underflows"), 1);
             EXPECT_THAT(facts.number("frames_dropped"), Ge(1)) << "video was behind audio";
         },
         [](const Facts& facts) { return facts.number("dropped_underflow_catch_up") >= 1; }},
        {"VideoStall",
         "24.mp4",
         {"--video-stall", "1s:300ms"},
         [](const Facts& facts) {
             EXPECT_THAT(facts.number("dropped_late"), Ge(1));
             EXPECT_EQ(facts.number("dropped_late"), facts.number("frames_dropped"));
         },
         nullptr},
        {"NoAudioAsked",
         "24.mp4",
         {"--no-audio"},
         [](const Facts& facts) {
             all72(facts);
             EXPECT_FALSE(facts.yes("with_audio"));
         },
         [](const Facts& facts) { return facts.number("frames_shown") == 72; }},
        {"NoAudioTrack",
         "silent.mp4",
         {"--flush-at", "1s"},
         [](const Facts& facts) {
             all72(facts);
             EXPECT_EQ(facts.number("sections"), 2);
         },
         nullptr},
        {"PassthroughHoldsAndDrops",
         "24.mp4",
         {"--passthrough", "--video-stall", "1s:300ms"},
         [](const Facts& facts) {
             all72(facts);
             EXPECT_THAT(facts.number("passthrough_holds"), Ge(1));
             EXPECT_THAT(facts.number("dropped_policy"), Ge(1));
             EXPECT_EQ(facts.number("dropped_policy"), facts.number("frames_dropped"));
         },
         nullptr},
        {"FlushInTheMiddle",
         "24.mp4",
         {"--flush-at", "1.2s"},
         [](const Facts& facts) {
             all72(facts);
             EXPECT_EQ(facts.number("sections"), 2);
             EXPECT_THAT(facts.number("frames_flushed"), Ge(1));
         },
         [](const Facts& facts) {
             return facts.text("section1_pattern") == "[3:2]" && facts.yes("section1_stayed") &&
                    facts.number("section1_first_frame_us") < 500'000;
         }},
        {"FlushWhileItWaitsForAudio",
         "24.mp4",
         {"--flush-at", "1s", "--flush-at", "1s"},
         all72,
         [](const Facts& facts) { return facts.number("frames_dropped") <= 2; }},
        {"SeekBack",
         "24.mkv",
         {"--seek", "1s:0s", "--seek", "1.5s:2s", "--buffers", "5"},
         [](const Facts& facts) { EXPECT_EQ(facts.number("sections"), 3); },
         nullptr},
        {"Interrupted",
         "60.mp4",
         {},
         [](const Facts& facts) {
             EXPECT_EQ(facts.text("end"), "interrupted");
             EXPECT_THAT(facts.number("frames_in"), AllOf(Ge(1), Le(179)));
             EXPECT_THAT(facts.number("frames_discarded_by_stop"), Ge(1));
         },
         nullptr,
         SIGINT},
        {"InterruptedWhileItWaitsForAudio",
         "24.mp4",
         {"--audio-delay", "30s"},
         [](const Facts& facts) {
             EXPECT_EQ(facts.text("end"), "interrupted");
             EXPECT_EQ(facts.number("frames_shown"), 0);
             EXPECT_THAT(facts.number("stop_us"), Le(5'000'000)) << "a wait does not delay stop";
         },
         nullptr,
         SIGTERM},
        {"FileBreaksOff",
         "half.mp4",
         {},
         [](const Facts& facts) {
             EXPECT_EQ(facts.text("end"), "broken_off");
             EXPECT_THAT(facts.number("frames_in"), AllOf(Ge(10), Le(71)));
         },
         nullptr},
        {"MatroskaBreaksOff",
         "half.mkv",
         {},
         [](const Facts& facts) { EXPECT_EQ(facts.text("end"), "broken_off"); },
         nullptr},
    };
    return all;
}

struct Played {
    CommandResult command;
    Facts facts{{}};
};

Played play(const Scenario& scenario) {
    const std::string json = scratch(std::string(scenario.name) + ".json");
    Command command;
    command.arguments = {KORVANE_TV, "play", clip(scenario.file), "--json", json};
    command.arguments.insert(command.arguments.end(), scenario.options.begin(),
                             scenario.options.end());
    command.signal = scenario.signal;
    command.signalAfter = std::chrono::milliseconds(1500);
    if (scenario.signal != 0) {
        command.arguments.insert(command.arguments.end(), {"--clock", "real"});
    }
    Played played{runCommand(command), Facts(readFlatJson(json))};
    unlink(json.c_str());
    return played;
}

void expectAccounts(const Scenario& scenario, const Played& played) {
    const Facts& facts = played.facts;
    ASSERT_EQ(played.command.status, 0) << played.command.output << played.command.error;
    EXPECT_TRUE(facts.yes("ok")) << facts.text("verdict");
    int64_t sum = 0;
    for (const char* outcome : {"shown", "superseded", "dropped", "flushed", "refused",
                                "discarded_by_stop", "in_tunnel_at_stop"}) {
        sum += facts.number(std::string("frames_") + outcome);
    }
    EXPECT_EQ(sum, facts.number("frames_in"));
    EXPECT_EQ(facts.number("frames_lost"), 0);
    EXPECT_EQ(facts.number("buffers_kept"), 0);
    EXPECT_EQ(facts.number("pictures_overwritten_on_screen"), 0);
    // Each frame has its buffer back once: by callback, or at stop.
    EXPECT_EQ(facts.number("buffers_returned") + facts.number("buffers_taken_back_at_stop"),
              facts.number("frames_in"));
    if (scenario.always) {
        scenario.always(facts);
    }
}

class PlayTest : public ::testing::TestWithParam<Scenario> {};

TEST_P(PlayTest, IsAccountedForAndInTime) {
    const Scenario& scenario = GetParam();
    const Played played = play(scenario);
    expectAccounts(scenario, played);
    if (kVirtualClock && scenario.inTime) {
        EXPECT_TRUE(scenario.inTime(played.facts)) << played.command.output;
    }
}

std::string nameOf(const ::testing::TestParamInfo<Scenario>& scenario) {
    return scenario.param.name;
}
INSTANTIATE_TEST_SUITE_P(Clips, PlayTest, ::testing::ValuesIn(scenarios()), nameOf);

CommandResult korvaneTv(const std::vector<std::string>& arguments) {
    Command command;
    command.arguments = {KORVANE_TV};
    command.arguments.insert(command.arguments.end(), arguments.begin(), arguments.end());
    return runCommand(command);
}

struct BadInput {
    std::vector<std::string> arguments;
    const char* says;
};

TEST(BadInputTest, IsToldInOneLineWithStatus2) {
    const std::vector<BadInput> inputs = {
        {{"play", clip("missing.mp4")}, "No such file"},
        {{"play", clip("empty.mp4")}, "is empty"},
        {{"play", clip("noise.mp4")}, "no media file"},
        {{"play", clip("text.txt")}, "no media file"},
        {{"play", clip("cut.mp4")}, "cut off before its index"},
        {{"play", clip("tone.wav")}, "holds no video"},
        {{"play", KORVANE_CLIPS}, "is a directory"},
        {{"play", clip("24.mp4"), "--bogus"}, "--bogus"},
        {{"play", clip("24.mp4"), "--rate", "0"}, "--rate: '0'"},
        {{"play", clip("24.mp4"), "--prop", "a=" + std::string(92, 'x')}, "91 bytes"},
        {{"play", clip("24.mp4"), "--csv", "/nonexistent/frames.csv"}, "No such file"},
        {{"play", clip("24.mp4"), "--trace", "/nonexistent/trace.json"}, "No such file"},
        {{}, "no command"},
    };
    for (const auto& input : inputs) {
        const CommandResult result = korvaneTv(input.arguments);
        EXPECT_EQ(result.status, 2) << result.error;
        EXPECT_EQ(result.output, "");
        EXPECT_THAT(result.error, AllOf(HasSubstr("korvane-tv: "), HasSubstr(input.says)));
        EXPECT_EQ(std::count(result.error.begin(), result.error.end(), '\n'), 1) << result.error;
    }
}

TEST(HelpTest, GoesToStandardOutputWithStatus0) {
    for (const auto& arguments :
         std::vector<std::vector<std::string>>{{"--help"}, {"play", "--help"}, {"--version"}}) {
        const CommandResult result = korvaneTv(arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_THAT(result.output, HasSubstr("korvane-tv"));
        EXPECT_EQ(result.error, "");
    }
}

TEST(FullDiskTest, UnderTheTraceLosesTheTraceAlone) {
    const CommandResult result =
        korvaneTv({"play", clip("24.mp4"), "--seconds", "0.5", "--trace", "/dev/full", "--quiet"});
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_THAT(result.output, HasSubstr("every frame accounted for"));
    EXPECT_THAT(result.error, AllOf(HasSubstr("/dev/full"), HasSubstr("No space left"),
                                    HasSubstr("playback and summary are")));
}

TEST(FullDiskTest, UnderAnotherOutputIsToldWithStatus1) {
    const CommandResult files = korvaneTv({"play", clip("24.mp4"), "--seconds", "0.5", "--csv",
                                           "/dev/full", "--json", "/dev/full", "--quiet"});
    EXPECT_EQ(files.status, 1);
    EXPECT_THAT(files.error, AllOf(HasSubstr("--csv /dev/full"), HasSubstr("--json /dev/full")));
    Command command;
    command.arguments = {KORVANE_TV, "play", clip("24.mp4"), "--seconds", "0.5", "--quiet"};
    command.outputPath = "/dev/full";
    const CommandResult output = runCommand(command);
    EXPECT_EQ(output.status, 1);
    EXPECT_THAT(output.error, HasSubstr("standard output"));
}

TEST(KillTest, LeavesAReadableTraceAndNothingInTheWayOfTheNextPlay) {
    const std::string trace = scratch("killed.json");
    Command command;
    command.arguments = {KORVANE_TV, "play", clip("24.mp4"), "--trace", trace, "--clock", "real"};
    command.signal = SIGKILL;
    command.signalAfter = std::chrono::milliseconds(2500);
    EXPECT_EQ(runCommand(command).status, 128 + SIGKILL);
    const std::string events = readFile(trace);
    EXPECT_EQ(events.substr(0, 2), "[\n");
    EXPECT_THAT(events, HasSubstr("showFrame"));
    unlink(trace.c_str());
    EXPECT_EQ(korvaneTv({"play", clip("24.mp4"), "--seconds", "0.5"}).status, 0);
}

TEST(SecondSignalTest, KillsAPlayerThatIsToldAgain) {
    // The first signal only asks; one that comes on its heels is no longer caught.
    Command command;
    const std::string script =
        "\"$0\" play \"$1\" --clock real & p=$!; sleep 1; kill -INT $p; kill -INT $p; wait $p; "
        "exit $?";
    command.arguments = {"/bin/sh", "-c", script, KORVANE_TV, clip("24.mp4")};
    // Two signals at once may be taken for one; then the player ends as after one.
    EXPECT_THAT(runCommand(command).status, AnyOf(128 + SIGINT, 0));
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
