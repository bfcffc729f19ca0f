// SPDX-License-Identifier: Apache-2.0
// How command lines are parsed, and the messages for wrong ones.
#include <gmock/gmock.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "player/command/CommandLine.h"

namespace korvane::player {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

CommandLine parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "korvane-tv");
    return parseCommandLine(static_cast<int>(arguments.size()), arguments.data(), "version 1");
}

TEST(CommandLine, ReadsEveryOption) {
    const std::string line =
        "play film.mp4 --rate 59.94 --display-drift -200ppm --vsync-jitter 1ms --audio-delay 2s "
        "--audio-drift 50 --audio-underflow 1s:500ms --audio-underflow 2s:100ms --passthrough "
        "--peek --seek 3s:10s --flush-at 1s --video-stall 2s:300ms --seconds 5 --buffers 8 "
        "--video 2 --audio 3 --program 4 --log 0x3 --prop a=b=c --trace t --csv c --json j "
        "--events e --clock real --seed 7 -q";
    std::istringstream split(line);
    const std::vector<std::string> words{std::istream_iterator<std::string>(split), {}};
    std::vector<const char*> arguments(words.size());
    std::transform(words.begin(), words.end(), arguments.begin(),
                   [](const std::string& word) { return word.c_str(); });
    const auto play = parse(arguments).play;
    EXPECT_EQ(play.file, "film.mp4");
    EXPECT_EQ(play.rate.frames, 60000);
    EXPECT_EQ(play.displayDriftPpm, -200);
    EXPECT_EQ(play.vsyncJitterUs, 1000);
    EXPECT_EQ(play.audioDelayUs, 2'000'000);
    EXPECT_EQ(play.audioDriftPpm, 50);
    ASSERT_EQ(play.underflows.size(), 2U);
    EXPECT_EQ(play.underflows[1].atMediaUs, 2'000'000);
    EXPECT_TRUE(play.passthrough && play.peek && play.quiet && !play.noAudio);
    ASSERT_EQ(play.seeks.size(), 2U);
    EXPECT_TRUE(play.seeks[0].inPlace) << "seeks come in the order of their times";
    EXPECT_EQ(play.seeks[1].toUs, 10'000'000);
    EXPECT_EQ(play.videoStalls.at(0).durationUs, 300'000);
    EXPECT_EQ(play.limitUs, 5'000'000);
    EXPECT_EQ(play.buffers, 8);
    const MediaRequest request = requestOf(play);
    EXPECT_EQ(request.video, 2);
    EXPECT_EQ(request.audio, 3);
    EXPECT_EQ(request.program, 4);
    EXPECT_EQ(play.logMask, 3);
    EXPECT_EQ(play.properties.at(0).second, "b=c");
    EXPECT_EQ(play.virtualClock, false);
    EXPECT_EQ(play.seed, 7U);
    const PlaybackPlan plan = planOf(play, MediaInfo{});
    EXPECT_FALSE(plan.withAudio) << "the media has none";
    EXPECT_TRUE(plan.seeks.at(1).atPosition);
    EXPECT_EQ(plan.tv.display.seed, 7U) << "of the vsync jitter";
    const auto fraction = parse({"play", "x", "--rate", "60000/1001", "--seconds", "1h"}).play;
    EXPECT_DOUBLE_EQ(fraction.rate.hz(), play.rate.hz());
    EXPECT_EQ(fraction.limitUs, 3'600'000'000);
}

TEST(CommandLine, ReadsScenariosAndTellsHowToRepeatARun) {
    const auto line = parse({"run", "a.toml", "b", "-j", "3", "--seed", "5", "--events", "d"});
    EXPECT_EQ(line.command, Command::Run);
    EXPECT_EQ(line.run.paths, (std::vector<std::string>{"a.toml", "b"}));
    EXPECT_EQ(line.run.jobs, 3);
    EXPECT_EQ(line.run.seed, 5U);
    EXPECT_EQ(parse({"run", "a", "--preempt", "--seeds", "2..9"}).run.seeds->last, 9U);
    EXPECT_EQ(parse({"list", "d"}).list.path, "d");
    EXPECT_EQ(parse({"play", "it's.mp4", "--rate", "50"}).play.repeat,
              "korvane-tv play 'it'\\''s.mp4' --rate 50 --seed 1");
    EXPECT_EQ(parse({"play", "\x1b'\xff", "--seed=2"}).play.repeat,
              "korvane-tv play $'\\x1b\\'\\xff' --seed=2");
}

TEST(CommandLine, WhatCannotHappenWithAFileIsNoted) {
    MediaInfo film;
    film.durationUs = 10'000'000;
    film.hasAudio = true;
    const std::vector<std::pair<std::vector<const char*>, const char*>> notes = {
        {{"--seek", "9s:1s", "--audio-delay", "1s"}, ""},
        {{"--seek", "10s:1s"}, "--seek 10.000 s has no effect: the film ends at 10.000 s"},
        {{"--flush-at", "11"}, "--flush-at 11.000 s has"},
        {{"--video-stall", "11:1"}, "--video-stall 11.000 s has"},
        {{"--audio-underflow", "11:1"}, "--audio-underflow 11.000 s has"},
        {{"--no-audio", "--audio-delay", "1s"}, "--audio-delay has no effect: --no-audio is given"},
        {{"--no-audio", "--audio-underflow", "11:1"}, "--audio-underflow has no effect: --no-"},
    };
    for (const auto& [options, says] : notes) {
        std::vector<const char*> arguments = {"play", "x"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const auto noted = withoutEffect(parse(arguments).play, film);
        ASSERT_EQ(noted.size(), *says == '\0' ? 0U : 1U) << says;
        EXPECT_THAT(noted.empty() ? "" : noted[0], HasSubstr(says));
    }
}

TEST(CommandLine, WhatIsWrongIsToldInOneLine) {
    const std::vector<std::pair<std::vector<const char*>, const char*>> wrongs = {
        {{}, "no command given"},
        {{"paly", "x"}, "'paly' is no command"},
        {{"-x"}, "unknown option '-x'"},
        {{"play"}, "no file given"},
        {{"play", "--rtae=60"}, "unknown option '--rtae=60'"},
        {{"play", "x", "--rtae", "60"}, "unknown option '--rtae'"},
        {{"play", "x", "-qz"}, "unknown option '-qz'"},
        {{"play", "x", "y", "z"}, "too many: 'y'"},
        {{"play", "x", "--rate"}, "--rate needs a value"},
        {{"play", "x", "--seek="}, "--seek needs a value"},
        {{"play", "x", "--rate", "60", "--rate", "50"}, "--rate may be given once"},
        {{"play", "x", "--rate", "0"}, "--rate: '0' is not between 10 and 500"},
        {{"play", "x", "--audio-delay", "2x"}, "'2x' is not a duration"},
        {{"play", "x", "--seek", "3"}, "'3' is not a pair"},
        {{"play", "x", "--seek", "3s:"}, "'3s:' is not a pair"},
        {{"play", "x", "--seconds", "0"}, "more than 0"},
        {{"play", "x", "--seconds", "1000h"}, "'1000h' is too long; a duration is at most 277h"},
        {{"play", "x", "--seconds", "-1000h"}, "'-1000h' is not a duration of more than 0"},
        {{"play", "x", "--flush-at", "1000h"}, "at most 277h"},
        {{"explore", "--for", "1000h"}, "at most 277h"},
        {{"play", "x", "--seek", "3s:1000h"}, "at most 277h"},
        {{"play", "x", "--video-stall", "1000h:3s"}, "at most 277h"},
        {{"play", "x", "--seek", "3s:-1000h"}, "'3s:-1000h' is not a pair"},
        {{"play", "x", "--vsync-jitter", "1s"}, "at most 5ms"},
        {{"play", "x", "--audio-drift", "50001"}, "'50001' is not between -50000 and 50000 parts"},
        {{"play", "x", "--audio-drift", "50pp"}, "'50pp' is not between"},
        {{"play", "x", "--rate", "0x3c"}, "'0x3c' is not between"},
        {{"play", "x", "--rate", " 60"}, "' 60' is not between"},
        {{"play", "x", "--buffers", "4"}, "'4' is not a whole number of buffers between 5 and 64"},
        {{"play", "x", "--buffers", "5.7"}, "'5.7' is not a whole number"},
        {{"play", "x", "--log", "-1"}, "log mask"},
        {{"play", "x", "--prop", "=b"}, "NAME=VALUE"},
        {{"play", "x", "--peek=2"}, "--peek takes no value"},
        {{"play", "x", "--clock", "sun"}, "'sun' is not a clock"},
        {{"play", "x", "--seed", "-1"}, "'-1' is not a seed"},
        {{"run", "x", "--seeds", "9..2"}, "'9..2' is not a range of seeds"},
        {{"play", "x", "--seed", " -1"}, "' -1' is not a seed"},
        {{"play", "x", "--seed", "18446744073709551616"}, "is not a seed"},
        {{"play", "x", "--csv", ""}, "'' is not a file"},
        {{"play", "x", "--expect", ""}, "'' is not an expectation"},
        {{"play", "x", "--expect", "shwon=3"}, "--expect: shwon: unknown key; there are: buffers"},
        {{"play", "x", "--expect", "pattern=3:2"}, "--expect: pattern: '3:2' is not a pattern"},
        {{"play", "x", "--expect", "dwell=3", "--expect", "dwell=2"}, "--expect: not TOML: "},
        {{"play", "x", "--expect", "even=2"}, "--expect: even: wants true or false"},
        {{"play", "x", "--trace", "-"}, "'-' is not a file"},
        {{"run"}, "no scenario given"},
        {{"run", "x", "--jobs", "0"}, "between 1 and 256"},
    };
    for (const auto& [arguments, says] : wrongs) {
        try {
            parse(arguments);
            ADD_FAILURE() << "accepted; expected: " << says;
        } catch (const UsageError& error) {
            EXPECT_THAT(error.what(), HasSubstr(says));
            EXPECT_THAT(error.what(), Not(HasSubstr("\n")));
        }
    }
}

}  // namespace
}  // namespace korvane::player
