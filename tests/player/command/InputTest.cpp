// SPDX-License-Identifier: Apache-2.0
// Plays inputs of every kind through the command line, and checks which streams were taken and what
// the report says of them.
#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ostream>
#include <sstream>
#include <string>

#include "tests/player/command/CommandRunner.h"

namespace korvane::test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

/// Runs a line of the shell among the clips; in it, $TV is the player.
CommandResult shell(const std::string& line) {
    Command command;
    command.arguments = {"/bin/sh", "-c", "TV='" KORVANE_TV "'; cd '" KORVANE_CLIPS "' && " + line};
    return runCommand(command);
}

struct Input {
    const char* name;
    const char* line;   ///< of the shell
    const char* facts;  ///< of the summary, "key=value"
    const char* says;   ///< the report or the notes
};

void PrintTo(const Input& input, std::ostream* out) {
    *out << input.name;
}

const Input kInputs[] = {
    {"Pictures", "$TV play img%03d.png", "frames_in=24", "#0 video png"},
    {"Playlist", "$TV play concat:list.txt", "end=complete audio_stream=1", "[3:2] seen"},
    {"PlaylistOfSegments", "$TV play hls:list.m3u8", "end=complete", "[3:2] seen"},
    {"Joined", "$TV play 'concat:24.ts|24.ts'", "end=complete", "[3:2] seen"},
    {"Named", "$TV play file:24.mkv", "frames_in=72", ""},
    {"Redirected", "$TV play - --seek 1s:2s <24.mkv", "can_seek=true sections=2", ""},
    {"SeekInAPipe", "cat 24.ts | $TV play - --seek 500ms:0s",
     "can_seek=false sections=1 seeks_failed=1 end=complete",
     "--seek 0.500 s has no effect: the input cannot seek"},
    {"SeekInAListWithoutTimes", "$TV play concat:list.txt --seek 1s:2s",
     "can_seek=false seeks_failed=1 frames_in=144", ""},
    {"BreaksOffInAPipe", "cat half.mkv | $TV play -", "end=broken_off", ""},
    {"BestOfTwo", "$TV play two.ts", "streams=4 programs=2 video_stream=0 audio_stream=1",
     "#2 video mpeg2video 320x180, 25 fps; not taken"},
    {"OtherProgram", "$TV play two.ts --program 2", "video_stream=2 audio_stream=3",
     "program 2: #2 #3"},
    {"ProgramOfTheVideo", "$TV play two.ts --video 2", "video_stream=2 audio_stream=3", ""},
    {"OneOfEach", "$TV play two.ts --video 2 --audio 1", "video_stream=2 audio_stream=1", ""},
    {"NoAudio", "$TV play two.ts --audio none", "audio_stream=-1 with_audio=false",
     "audio left out"},
    {"Resized", "$TV play resized.ts", "stream_changes=1 end=complete",
     "at 0.960 s: 320x180 becomes 640x360"},
    {"GoesOnInAnotherStream", "$TV play renumbered.ts", "frames_in=48 end=complete",
     "at 0.960 s: stream #0 goes on as #1 (mpeg2video)"},
    {"GoesOnAndComesBack", "$TV play there-and-back.ts", "frames_in=73 end=complete splices=1",
     "stream #0 goes on as #0 (mpeg2video)"},
    {"SeekToBeforeItGoesOn", "$TV play avc-as-512.ts --seek 2s:500ms",
     "seeks_failed=0 end=complete", ""},
    {"SoundGoesOnInAnotherStream", "$TV play renumbered-sound.ts",
     "frames_in=142 end=complete lip_sync_samples=142", "stream #1 goes on as #3"},
    {"GoesOnWithAnotherCodec", "$TV play avc-as-512.ts", "frames_in=95 end=complete",
     "stream #0 goes on as #1 (h264)"},
    {"OtherCodecUnderTheSameNumber", "$TV play avc-as-256.ts", "end=broken_off even=false", ""},
    {"GoesOnInAStreamThatIsNotTaken", "$TV play one-after-the-other.mkv", "end=broken_off",
     "stream #0 goes on as #1, which was not taken"},
    {"PicturesAtAnotherRate", "$TV play img%03d.png --input-rate 24", "frames_in=24 content_hz=24",
     "[3:2] seen"},
    {"SilentPipeEndsAtItsTime",
     "mkfifo silent && exec 5<>silent && rm silent && head -c 60000 24.mkv >&5 && "
     "timeout 10 $TV play - --seconds 0.5 <&5",
     "frames_in=12 end=complete", ""},
    {"SilentPipeBreaksOff",
     "mkfifo silent && exec 5<>silent && rm silent && head -c 60000 24.mkv >&5 && "
     "timeout 10 $TV play - --seconds 2 <&5",
     "end=broken_off", ""},
    {"Interlaced", "$TV play interlaced.ts", "interlaced_pictures=25",
     "interlaced (top field first)"},
    {"Telecine", "$TV play telecine.m2v", "repeated_fields=30", "a field to be repeated"},
    {"Hdr", "$TV play hdr.mkv", "bit_depth=10 hdr_transfer=PQ", "10 bit, HDR (PQ); taken"},
    {"Rotated", "$TV play rotated.mp4", "rotation_degrees=270", "to be turned by 270 degrees"},
    {"LargePictures", "$TV play 8k.mkv --seconds 0.1", "buffers=10",
     "10 frame buffers of 7680x4320 will take 497 MB"},
    {"LargePicturesAsTold", "$TV play 8k.mkv --seconds 0.1 --buffers 16", "buffers=16",
     "16 frame buffers of 7680x4320 will take 796 MB"},
};

class InputTest : public ::testing::TestWithParam<Input> {};

TEST_P(InputTest, IsPlayedAndDescribed) {
    const std::string json = scratch("input.json");
    const CommandResult result = shell(std::string(GetParam().line) + " --json " + json);
    const bool whole = std::string(GetParam().facts).find("end=broken_off") == std::string::npos;
    EXPECT_EQ(result.status, whole ? 0 : 4) << result.error;
    EXPECT_THAT(result.output + result.error, HasSubstr(GetParam().says));
    auto facts = readFlatJson(json);
    unlink(json.c_str());
    std::istringstream wanted(GetParam().facts);
    for (std::string fact; wanted >> fact;) {
        const std::string key = fact.substr(0, fact.find('='));
        EXPECT_EQ(key + "=" + facts[key], fact);
    }
}

INSTANTIATE_TEST_SUITE_P(Inputs, InputTest, ::testing::ValuesIn(kInputs),
                         [](const auto& input) { return std::string(input.param.name); });

TEST(GeneratorTest, PlaysPicturesAndSound) {
    const CommandResult result =
        shell("$TV play 'lavfi:testsrc=duration=1:rate=30[out0];sine=duration=1[out1]'");
    if (result.error.find("libavdevice") != std::string::npos) {
        GTEST_SKIP() << result.error;
    }
    EXPECT_THAT(result.output, AllOf(HasSubstr("[2:2] seen"), HasSubstr("#1 audio pcm_s16le")));
    // Soft telecine: frames last 3 and 2 fields, alternating.
    EXPECT_THAT(shell("$TV play 'lavfi:testsrc=size=64x36:rate=60000/1001,select=eq(mod(n\\,5)\\,0)"
                      "+eq(mod(n\\,5)\\,3)' --rate 120 --seconds 4 --quiet")
                    .output,
                HasSubstr("Even: [6:4] held"));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
/// The hash of the events, on the line "repeat".
std::string eventsOf(const CommandResult& result) {
    const size_t at = result.output.find("repeat    events ");
    return at == std::string::npos ? result.output + result.error : result.output.substr(at, 33);
}

TEST(PipeTest, IsPlayedAsTheFileIs) {
    for (const std::string file : {"24.ts", "late-sound.mkv", "24.mp4"}) {
        for (const char* options : {"", " --flush-at 1s", " --passthrough"}) {
            const std::string named =
                eventsOf(shell("FILE=" + file + "; $TV play $FILE" + options));
            const std::string piped = "FILE=" + file + "; cat $FILE | $TV play -";
            EXPECT_EQ(eventsOf(shell(piped + options)), named) << file << options;
            EXPECT_THAT(named, MatchesRegex("repeat    events [0-9a-f]+")) << file << options;
        }
    }
}
#endif

TEST(PipeTest, ThatFallsSilentCanBeInterrupted) {
    const std::string pipe = scratch("film");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const int end = open(pipe.c_str(), O_RDWR);
    fcntl(end, F_SETPIPE_SZ, 1 << 20);
    const std::string half = readFile(KORVANE_CLIPS "/half.mkv");
    ASSERT_EQ(write(end, half.data(), half.size()), static_cast<ssize_t>(half.size()));
    Command command;
    command.arguments = {KORVANE_TV, "play", pipe, "--clock", "real", "--log", "1"};
    command.signals = {{SIGINT, "audio have started", ""}};
    const CommandResult result = runCommand(command);
    EXPECT_THAT(result.output, HasSubstr("interrupted; this is what was played"));
    close(end);
    unlink(pipe.c_str());
}

struct Refusal {
    const char* line;
    const char* says;
};

TEST(RefusedInputTest, IsToldWithWhatItHolds) {
    const Refusal refusals[] = {
        {"$TV play - </dev/null", "'-' is empty"},
        {"$TV play song.m4a", "#1 video png 320x180, a cover picture"},
        {"$TV play two.ts --video 1", "stream 1 of 'two.ts' is no video; it holds #0 video"},
        {"$TV play two.ts --audio 7", "stream 7 of 'two.ts' is no audio"},
        {"$TV play two.ts --program 3", "no program 3; its programs: 1, 2"},
        {"$TV play two.ts --audio -1", "--audio"},
        {"$TV play list.ffconcat", "is a playlist, and a file is played alone"},
        {"$TV play list.m3u8", "write hls:list.m3u8"},
        {"cat list.m3u8 | $TV play -", "is a playlist"},
        {"$TV play 24.mkv --input-rate 50", "has times of its own"},
        {"$TV play hls:remote.m3u8", "cannot"},
        {"$TV play nothing%03d.png", "No such file"},
        {"$TV play nowhere://x", "Protocol not found"},
    };
    for (const auto& [line, says] : refusals) {
        const CommandResult result = shell(line);
        EXPECT_EQ(result.status, 2) << line << result.output;
        EXPECT_THAT(result.error, HasSubstr(says)) << line;
    }
}

}  // namespace
}  // namespace korvane::test
