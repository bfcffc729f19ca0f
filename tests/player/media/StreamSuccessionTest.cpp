// SPDX-License-Identifier: Apache-2.0
// Which streams take over from the one that is played: packets of streams by number and time.
#include "player/media/StreamSuccession.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace korvane::player {
namespace {

constexpr int64_t kPictureUs = 40'000;

struct Stretch {
    int stream;
    int64_t fromUs;
    int packets;
};

struct SuccessionCase {
    const char* name;
    std::vector<Stretch> runs;  ///< stream 0 is played
    size_t played;              ///< of all packets
    int last;                   ///< the stream of the last one that is played
};

const SuccessionCase kSuccessions[] = {
    {"another goes on", {{0, 0, 50}, {1, 2'000'000, 50}}, 100, 1},
    {"and back", {{0, 0, 50}, {1, 2'000'000, 50}, {0, 4'000'000, 50}}, 150, 0},
    {"a former one's last packets", {{0, 0, 50}, {1, 2'000'000, 50}, {0, 1'960'000, 2}}, 100, 1},
    {"for a moment, at the end", {{0, 0, 50}, {1, 2'000'000, 5}}, 55, 1},
    {"for a moment, then on", {{0, 0, 50}, {1, 2'000'000, 5}, {0, 2'000'000, 50}}, 100, 0},
    {"beside for good",
     {{0, 0, 50}, {1, 2'000'000, 1}, {0, 2'000'000, 50}, {1, 2'040'000, 50}},
     100,
     0},
    {"before the first one's first packet", {{1, 0, 50}, {0, 0, 50}}, 50, 0},
};

TEST(StreamSuccession, FollowsWhereNothingElseGoesOn) {
    for (const SuccessionCase& test : kSuccessions) {
        StreamSuccession succession;
        succession.play(0);
        std::vector<PacketPtr> played;
        for (const Stretch& run : test.runs) {
            for (int i = 0; i < run.packets; ++i) {
                PacketPtr packet(av_packet_alloc());
                packet->stream_index = run.stream;
                succession.take(std::move(packet), 0, run.fromUs + i * kPictureUs, &played);
            }
        }
        succession.end(&played);
        EXPECT_EQ(played.size(), test.played) << test.name;
        EXPECT_EQ(played.back()->stream_index, test.last) << test.name;
    }
}

}  // namespace
}  // namespace korvane::player
