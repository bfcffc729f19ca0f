// SPDX-License-Identifier: Apache-2.0
// How names of inputs are interpreted, and how much is queued where one reader is far ahead of the
// other.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <optional>
#include <string>

#include "player/media/Demuxer.h"
#include "player/media/MediaDescription.h"
#include "player/media/MediaRequest.h"
#include "player/playback/BufferPool.h"

namespace korvane::player {
namespace {

TEST(InputName, IsAFileFirstAndThenWhatItsPrefixSays) {
    struct Case {
        const char* name;
        std::optional<unsigned> mode;
        InputKind kind;
        const char* demuxer;
        const char* opened;
    };
    const Case cases[] = {
        {"film.mkv", S_IFREG, InputKind::File, "", "film.mkv"},
        {"lavfi:odd name.mkv", S_IFREG, InputKind::File, "", "lavfi:odd name.mkv"},
        {"img%03d.png", S_IFREG, InputKind::File, "", "img%03d.png"},
        {"fifo", S_IFIFO, InputKind::Pipe, "", "fifo"},
        {"-", S_IFIFO, InputKind::Pipe, "", "-"},
        {"-", S_IFREG, InputKind::File, "", "/dev/stdin"},
        {"missing.mkv", {}, InputKind::File, "", "missing.mkv"},
        {"file:img%03d.png", {}, InputKind::File, "", "img%03d.png"},
        {"img%03d.png", {}, InputKind::Sequence, "image2", "img%03d.png"},
        {"100%.mkv", {}, InputKind::File, "", "100%.mkv"},
        {"lavfi:testsrc=rate=25", {}, InputKind::Generator, "lavfi", "testsrc=rate=25"},
        {"concat:list.txt", {}, InputKind::Playlist, "concat", "list.txt"},
        {"concat:a.ts|b.ts", {}, InputKind::Address, "", "concat:a.ts|b.ts"},
        {"hls:list.m3u8", {}, InputKind::Playlist, "hls", "list.m3u8"},
        {"http://host/list.m3u8", {}, InputKind::Address, "", "http://host/list.m3u8"},
        {"rtsp://host/film", {}, InputKind::Address, "", "rtsp://host/film"},
        {"12:30 news.ts", {}, InputKind::File, "", "12:30 news.ts"},
    };
    for (const auto& expected : cases) {
        const InputName input = inputOf(expected.name, expected.mode);
        EXPECT_EQ(input.kind, expected.kind) << expected.name;
        EXPECT_EQ(input.demuxer, expected.demuxer) << expected.name;
        EXPECT_EQ(input.opened, expected.opened) << expected.name;
    }
}

TEST(SharedDemuxer, EndsAReaderRatherThanKeepAllOfTheOthersPackets) {
    MediaRequest request;
    request.name = KORVANE_CLIPS "/24.mkv";
    const auto packets = [&request](size_t mostBytes, int first, int second) {
        Demuxer demuxer(request, mostBytes);
        demuxer.keep(0, false);
        demuxer.keep(1, true);
        const PacketPtr packet(av_packet_alloc());
        int count = 0;
        for (const int stream : {first, second}) {
            for (; demuxer.read(stream, packet.get()) == ReadStatus::Ready; ++count) {
            }
        }
        return count;
    };
    const int all = packets(kMostQueuedBytes, 0, 1);
    EXPECT_EQ(packets(kMostQueuedBytes, 1, 0), all);
    EXPECT_LT(packets(20'000, 1, 0), all) << "pictures filled the queue";
    EXPECT_EQ(packets(20'000, 0, 1), all) << "the sound's data is not kept";
}

TEST(UsualBuffers, AreFewerForLargePictures) {
    EXPECT_EQ(usualBuffers(0), 16) << "times without pictures";
    EXPECT_EQ(usualBuffers(1920 * 1080 * 3 / 2), 16);
    EXPECT_EQ(usualBuffers(int64_t{7680} * 4320 * 3 / 2), 10);
    EXPECT_EQ(usualBuffers(int64_t{7680} * 4320 * 6), 8) << "it has to play";
}

}  // namespace
}  // namespace korvane::player
