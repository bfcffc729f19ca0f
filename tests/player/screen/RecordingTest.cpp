// SPDX-License-Identifier: Apache-2.0
// Recordings and contact sheets, decoded again: each vsync's picture and bar against the event log
// of the same playback, the sound against when it was heard.
//
// The clip's pictures carry their number as brightness; its sound is a quiet tone with a click.
#include <gmock/gmock.h>

#include <unistd.h>

#include <array>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "player/media/Ffmpeg.h"
#include "player/media/SoundStore.h"
#include "player/media/VideoReader.h"
#include "player/screen/FigureBar.h"
#include "player/screen/FilmWriter.h"
#include "player/screen/Recording.h"
#include "player/screen/Strip.h"
#include "tests/player/command/CommandRunner.h"

namespace korvane::player {
namespace {

using test::korvaneTv;
using test::readFile;
using test::runCommand;
using testing::HasSubstr;

constexpr char kClip[] = KORVANE_CLIPS "/numbered.mp4";
/// Of the clip: brightness of picture n is 20 + 2 n; when the click begins.
constexpr double kFirstLuma = 20.0;
constexpr double kLumaPerFrame = 2.0;
constexpr double kClickUs = 1'500'000;
constexpr float kClickLevel = 0.5F;

std::string scratchFile(const std::string& name) {
    return testing::TempDir() + "korvane-" + std::to_string(getpid()) + "-" + name;
}

/// What an event log says of the screen and the sound. Times in microseconds since `start`.
struct Truth {
    std::map<int64_t, int64_t> frameAt;  ///< by vsync
    std::map<int64_t, int64_t> dwells;   ///< by frame
    std::map<int64_t, double> mediaUs;   ///< by frame, as all below
    std::map<int64_t, double> shownUs;
    std::map<int64_t, double> lipSyncUs;
    int64_t clickFrame = -1;  ///< the one shown last whose media time is the click's
};

int64_t numberIn(const std::string& line, const std::string& key) {
    const size_t at = line.find(" " + key + "=");
    return at == std::string::npos ? INT64_MIN : std::stoll(line.substr(at + key.size() + 2));
}

Truth readTruth(const std::string& path) {
    Truth truth;
    std::istringstream lines(readFile(path));
    std::map<int64_t, int64_t> firstVsync;
    for (std::string line; std::getline(lines, line);) {
        const int64_t frame = numberIn(line, "frame");
        if (line.find(" sent ") != std::string::npos) {
            truth.mediaUs[frame] = static_cast<double>(numberIn(line, "media_us"));
        } else if (line.find(" shown ") != std::string::npos) {
            firstVsync[frame] = numberIn(line, "vsync");
            truth.shownUs[frame] = std::stod(line) * 1e6;
            truth.lipSyncUs[frame] = static_cast<double>(numberIn(line, "lip_sync_us"));
            truth.clickFrame = truth.mediaUs[frame] == kClickUs ? frame : truth.clickFrame;
        } else if (line.find(" replaced ") != std::string::npos) {
            truth.dwells[frame] = numberIn(line, "dwell");
            for (int64_t i = 0; i < truth.dwells[frame]; ++i) {
                truth.frameAt[firstVsync[frame] + i] = frame;
            }
        }
    }
    return truth;
}

double meanLuma(const AVFrame& picture, const Area& area) {
    int64_t sum = 0;
    for (int y = area.y; y < area.y + area.height; ++y) {
        for (int x = area.x; x < area.x + area.width; ++x) {
            sum += picture.data[0][y * picture.linesize[0] + x];
        }
    }
    return static_cast<double>(sum) / (area.width * area.height);
}

/// Frame and vsync, as the bar's cells tell.
std::pair<int32_t, uint32_t> readBar(const AVFrame& picture, const Area& bar) {
    uint64_t cells = 0;
    for (int bit = 0; bit < kBarCells; ++bit) {
        cells = cells << 1 | (meanLuma(picture, barCell(bar, bit)) > 125.0 ? 1 : 0);
    }
    return {static_cast<int32_t>(cells >> 32), static_cast<uint32_t>(cells)};
}

MediaRequest requestFor(const std::string& path) {
    MediaRequest request;
    request.name = path;
    return request;
}

struct Recorded {
    const char* name;
    const char* suffix;
    const char* arguments;
    double hz;
    int width;  ///< of the pictures
    int height;
    double silentMs;  ///< longest silence after the first sound, within 20 ms
};

void PrintTo(const Recorded& recorded, std::ostream* out) {
    *out << recorded.name;
}

const Recorded kRecorded[] = {
    {"Mp4", "mp4", "--rate 59.94", 60000.0 / 1001, 320, 180, 0.0},
    {"MkvUnderflowAndLateSound", "mkv", "--rate 60 --audio-underflow 1s:400ms --audio-delay 300ms",
     60.0, 320, 180, 400.0},
    {"WebmSmall", "webm", "--rate 50 --record-size 160x90", 50.0, 160, 90, 0.0},
    {"Mp4Seek", "mp4", "--rate 59.94 --seek 500ms:1.2s", 60000.0 / 1001, 320, 180, 100.0},
    {"MkvFastDisplayAndSound", "mkv", "--display-drift 1000 --audio-drift 1000", 60.06, 320, 180,
     0.0},
    {"Mp4ThatCannotSeek", "mp4", "- --rate 60", 60.0, 320, 180, 0.0},
};

class RecordingTest : public testing::TestWithParam<Recorded> {
protected:
    void play(const std::vector<std::string>& more, const std::string& events) {
        std::istringstream split(GetParam().arguments);
        std::vector<std::string> arguments{"play", "-q", "--events", events};
        for (std::string word; split >> word;) {
            arguments.push_back(word);
        }
        const bool piped = arguments[4] == "-";
        arguments.insert(arguments.end(), more.begin(), more.end());
        if (piped) {
            std::string command = "cat " + std::string(kClip) + " | exec \"$0\" \"$@\"";
            arguments.insert(arguments.begin(), {"/bin/sh", "-c", command, KORVANE_TV});
            EXPECT_EQ(runCommand({arguments, {}, ""}).status, 0);
            return;
        }
        arguments.insert(arguments.begin() + 1, kClip);
        const auto result = korvaneTv(arguments);
        EXPECT_EQ(result.status, 0) << result.error;
    }

    void checkPictures(VideoReader* reader, const Truth& truth) {
        const Recorded& expected = GetParam();
        const Area inside{8, 8, expected.width - 16, expected.height - 16};
        const Area bar{0, expected.height, expected.width, barHeight(expected.width)};
        EXPECT_NEAR(reader->info().frameRateHz, expected.hz, 1e-3);
        EXPECT_EQ(reader->info().width, expected.width);
        EXPECT_EQ(reader->info().height, expected.height + bar.height);
        for (; reader->next() == ReadStatus::Ready; ++mNext) {
            const AVFrame& picture = *reader->picture();
            const auto [frame, vsync] = readBar(picture, bar);
            const auto timeUs = static_cast<double>(reader->mediaTimeUs());
            if (mFirst < 0) {
                mFirst = mNext = vsync;
                mBeginsUs = timeUs;
            }
            ASSERT_EQ(int64_t{vsync}, mNext) << "one picture for each vsync";
            EXPECT_NEAR(timeUs - mBeginsUs, vsyncsUs(mNext - mFirst), 1000.0);
            const auto seen = truth.frameAt.find(vsync);
            ASSERT_EQ(frame, seen == truth.frameAt.end() ? -1 : seen->second) << "vsync " << vsync;
            if (frame >= 0) {
                ASSERT_NEAR((meanLuma(picture, inside) - kFirstLuma) / kLumaPerFrame,
                            truth.mediaUs.at(frame) * 24e-6, 0.6)
                    << "vsync " << vsync;
            }
        }
        EXPECT_GE(mNext, truth.frameAt.rbegin()->first) << "up to the last vsync";
    }

    void checkSound(const SoundStore& store, const Truth& truth) const {
        // In blocks of 1 ms; a wave of the tone has 2.3.
        constexpr int64_t kBlock = kSoundHz / 1000;
        const auto blocks = static_cast<int64_t>(vsyncsUs(mNext - mFirst) / 1000.0);
        std::vector<float> peaks;
        std::array<float, kBlock * kSoundChannels> samples{};
        for (int64_t i = 0; i < blocks; ++i) {
            store.read(i * kBlock, kBlock, samples.data());
            peaks.push_back(*std::max_element(samples.begin(), samples.end()));
        }
        const auto click =
            std::find_if(peaks.begin(), peaks.end(), [](float peak) { return peak > kClickLevel; });
        ASSERT_NE(click, peaks.end());
        // The click's picture is the one of its time; the event log says how far they are apart.
        const double originUs = truth.shownUs.begin()->second - mBeginsUs -
                                vsyncsUs(truth.frameAt.begin()->first - mFirst);
        EXPECT_NEAR(static_cast<double>(click - peaks.begin()) * 1000.0 + originUs,
                    truth.shownUs.at(truth.clickFrame) - truth.lipSyncUs.at(truth.clickFrame),
                    1500.0);
        int64_t silentMs = 0;
        int64_t quietMs = 0;
        bool begun = false;
        for (const float peak : peaks) {
            quietMs = peak < 0.02F ? quietMs + 1 : 0;
            silentMs = begun ? std::max(silentMs, quietMs) : 0;
            begun = begun || peak > 0.05F;
            quietMs = begun ? quietMs : 0;
        }
        // The end is silent, too, but not for long.
        EXPECT_NEAR(static_cast<double>(silentMs), GetParam().silentMs, 20.0);
    }

    double vsyncsUs(int64_t vsyncs) const {
        return static_cast<double>(vsyncs) * 1e6 / GetParam().hz;
    }

    int64_t mFirst = -1;     ///< vsync of the film's first picture
    int64_t mNext = -1;      ///< after its last one
    double mBeginsUs = 0.0;  ///< the sound's encoder may have a run-up before the first picture
};

INSTANTIATE_TEST_SUITE_P(All, RecordingTest, testing::ValuesIn(kRecorded),
                         [](const auto& each) { return each.param.name; });

TEST_P(RecordingTest, ShowsWhatWasOnScreenAndHeard) {
    const Recorded& expected = GetParam();
    const std::string film = scratchFile("film.") + expected.suffix;
    const std::string events = scratchFile("events");
    play({}, events);
    const std::string without = readFile(events);
    play({"--record", film, "--record-bar"}, events);
    EXPECT_EQ(readFile(events), without) << "recording must change no decision";
    const Truth truth = readTruth(events);
    ASSERT_GT(truth.frameAt.size(), 100U);
    auto request = requestFor(film);
    request.sound = std::make_shared<SoundStore>();
    VideoReader reader(request);
    checkPictures(&reader, truth);
    AudioPacket packet;
    for (auto audio = reader.openAudio(); audio->next(&packet) == ReadStatus::Ready;) {
    }
    checkSound(*request.sound, truth);
    unlink(film.c_str());
    unlink(events.c_str());
}

TEST(RecordingInputTest, SaysWhatIsWrongAndKeepsTheRest) {
    const std::string full = scratchFile("full");
    for (const char* suffix : {".mp4", ".mkv", ".png"}) {
        std::filesystem::create_symlink("/dev/full", full + suffix);
    }
    const std::string clip = kClip;
    const struct {
        std::vector<std::string> arguments;
        int status;
        const char* says;
    } cases[] = {
        {{"--record", scratchFile("film.avi")}, 2, "let it end in .mp4, .mkv or .webm"},
        {{"--record", "/nonexistent/film.mp4"}, 2, "No such file or directory"},
        {{"--record", clip}, 2, "is the film that is to be played"},
        {{"--record", full + ".mp4", "--record-size", "10x10"}, 2, "is not a size"},
        {{"--strip", full + ".png", "--strip-at", "frame:x"}, 2, "is not a moment"},
        {{"--record", full + ".mp4"}, 1, "could not be written whole; free some space"},
        {{"--record", full + ".mkv"}, 1, "could not be written whole; free some space"},
        {{"--strip", full + ".png"}, 1, "could not be written whole; free some space"},
        {{"--record-bar", "--strip-at", "break"}, 0, "--record-bar has no effect"},
    };
    for (const auto& wrong : cases) {
        std::vector<std::string> arguments{"play", clip, "-q"};
        arguments.insert(arguments.end(), wrong.arguments.begin(), wrong.arguments.end());
        const auto result = korvaneTv(arguments);
        EXPECT_EQ(result.status, wrong.status) << wrong.says;
        EXPECT_THAT(result.error, HasSubstr(wrong.says));
        EXPECT_EQ(result.output.empty(), wrong.status == 2) << "the report comes all the same";
    }
    EXPECT_FALSE(std::filesystem::exists(scratchFile("film.avi")));
    for (const char* suffix : {".mp4", ".mkv", ".png"}) {
        unlink((full + suffix).c_str());
    }
}

TEST(RecordingInputTest, AnInterruptedFilmIsWhole) {
    const std::string film = scratchFile("interrupted.mp4");
    const std::string clip = kClip;
    test::Command command;
    command.arguments = {KORVANE_TV, "play", clip,       "--clock", "real",
                         "--log",    "1",    "--record", film,      "--record-bar"};
    command.signals = {{SIGINT, "audio have started", ""}};
    EXPECT_EQ(runCommand(command).status, 128 + SIGINT);
    VideoReader reader(requestFor(film));
    int pictures = 0;
    while (reader.next() == ReadStatus::Ready) {
        ++pictures;
    }
    EXPECT_GT(pictures, 0);
    EXPECT_EQ(reader.decodeErrors(), 0);
    unlink(film.c_str());
}

TEST(FilmFormatTest, TakesTheBestEncoderThatThereIs) {
    const auto with = [](const std::string& name, const std::vector<std::string>& encoders) {
        try {
            const FilmFormat format = filmFormat(name, [&](const std::string& encoder) {
                return std::count(encoders.begin(), encoders.end(), encoder) > 0;
            });
            return format.container + " " + format.video + " " + format.audio;
        } catch (const std::runtime_error& error) {
            return std::string(error.what());
        }
    };
    EXPECT_EQ(with("a.mp4", {"mpeg4", "libx264", "aac"}), "mp4 libx264 aac");
    EXPECT_EQ(with("a.mkv", {"mpeg4", "aac"}), "matroska mpeg4 aac");
    EXPECT_EQ(with("a.webm", {"libvpx", "libopus", "libvorbis"}), "webm libvpx libopus");
    EXPECT_THAT(with("a.webm", {"libx264", "aac", "libopus"}),
                HasSubstr("lacks the encoder for it (libvpx-vp9, libvpx); let the name end in "
                          ".mp4 or .mkv"));
    EXPECT_THAT(with("mp4", {}), HasSubstr("the name tells no film"));
}

TEST(RecordingMomentsTest, RepeatsWhatItMissedAndDrawsForContentWithoutPictures) {
    const std::string film = scratchFile("moments.mkv");
    RecordingSpec spec;
    spec.film = {filmFormat(film), {60, 1}, false, false};
    spec.width = 320;
    spec.height = 180;
    spec.bar = true;
    std::ofstream out(film);
    Recording recording(spec, &out);
    // Vsync 5 is black, 8 is not told; frame 1 stays for longer than the recording waits for it.
    constexpr int64_t kFrames = 400;
    for (int64_t vsync = 5; vsync < kFrames; ++vsync) {
        ScreenMoment moment;
        moment.vsync = {vsync, vsync * 16'666'667};
        moment.frameNo = vsync < 6 ? -1 : vsync < 9 ? 0 : 1;
        moment.dwell = vsync < 6 ? 0 : vsync < 9 ? vsync - 5 : vsync - 8;
        if (vsync != 8) {
            recording.onVsync(moment, {});
        }
    }
    recording.onScreenEnd({});
    EXPECT_EQ(recording.failure(), "");
    out.close();
    VideoReader reader(requestFor(film));
    for (int64_t vsync = 5; vsync < kFrames; ++vsync) {
        ASSERT_EQ(reader.next(), ReadStatus::Ready) << vsync;
        const AVFrame& picture = *reader.picture();
        const int32_t frame = vsync < 6 ? -1 : vsync < 9 ? 0 : 1;
        EXPECT_EQ(readBar(picture, {0, 180, 320, barHeight(320)}),
                  std::make_pair(frame, static_cast<uint32_t>(vsync)));
        // The bar in the picture, 6 wide, moves by its width with each frame.
        EXPECT_EQ(meanLuma(picture, {0, 20, 6, 140}) > 150.0, frame == 0) << vsync;
        EXPECT_EQ(meanLuma(picture, {6, 20, 6, 140}) > 150.0, frame == 1) << vsync;
    }
    EXPECT_EQ(reader.next(), ReadStatus::End);
    unlink(film.c_str());
}

TEST(CanvasTest, TurnsPicturesClockwise) {
    // Bright in the upper left quarter.
    Canvas source(64, 32);
    source.fill({0, 0, 64, 32}, 40);
    source.fill({0, 0, 32, 16}, 200);
    const std::pair<int, Area> bright[] = {{0, {0, 0, 32, 16}},
                                           {90, {16, 0, 16, 32}},
                                           {180, {32, 16, 32, 16}},
                                           {270, {0, 32, 16, 32}}};
    for (const auto& [degrees, area] : bright) {
        const bool onItsSide = degrees % 180 != 0;
        const Area whole{0, 0, onItsSide ? 32 : 64, onItsSide ? 64 : 32};
        Canvas canvas(whole.width, whole.height, degrees);
        canvas.picture(source.frame(), whole);
        EXPECT_EQ(meanLuma(canvas.frame(), area), 200.0) << degrees;
        EXPECT_EQ(meanLuma(canvas.frame(), whole), 80.0) << degrees;
    }
}

/// The labels of a sheet, read off the picture: whether each cell's label is bright.
std::vector<bool> brightLabels(const std::string& path) {
    VideoReader reader(requestFor(path));
    EXPECT_EQ(reader.next(), ReadStatus::Ready);
    const AVFrame& sheet = *reader.picture();
    EXPECT_EQ(sheet.format, AV_PIX_FMT_RGB24);
    std::vector<bool> bright;
    for (int cell = 0; cell < Strip::kCells; ++cell) {
        // The label's lower right corner, which has no letters.
        const int x = 4 + cell % 8 * 196 + 188;
        const int y = 32 + cell / 8 * 152 + 108 + 38;
        bright.push_back(sheet.data[0][y * sheet.linesize[0] + 3 * x] > 150);
    }
    return bright;
}

TEST(StripTest, ShowsTheVsyncsAroundAMoment) {
    constexpr double kVsyncUs = 16'683.0;  // the moment is the first vsync from then on
    const std::string sheet = scratchFile("strip.png");
    const std::string events = scratchFile("strip-events");
    for (const std::string at : {"break", "frame:20", "1.9s"}) {
        EXPECT_EQ(korvaneTv({"play", kClip, "-q", "--rate", "59.94", "--audio-underflow",
                             "1s:200ms", "--strip", sheet, "--strip-at", at, "--events", events})
                      .status,
                  0);
        const Truth truth = readTruth(events);
        // The one that is longer than all others; or the last that was there by then.
        int64_t frame = -1;
        for (const auto& [number, dwell] : truth.dwells) {
            const bool wanted = at == "break"      ? dwell > 10
                                : at == "frame:20" ? number == 20
                                                   : truth.shownUs.at(number) < 1.9e6 + kVsyncUs;
            frame = wanted ? number : frame;
        }
        const auto labels = brightLabels(sheet);
        const auto first = std::find(labels.begin(), labels.end(), true);
        const auto count = std::count(labels.begin(), labels.end(), true);
        EXPECT_LE(first - labels.begin(), Strip::kBefore) << at;
        EXPECT_EQ(count, std::min<int64_t>(truth.dwells.at(frame), 16)) << at << " " << frame;
    }
    unlink(sheet.c_str());
    unlink(events.c_str());
}

}  // namespace
}  // namespace korvane::player
