// SPDX-License-Identifier: Apache-2.0
// Jumping timestamps made continuous: splices told from wraps and gaps.
#include "player/media/TimelineMapper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace korvane::player {
namespace {

constexpr int64_t kFrameUs = 40'000;
/// From decoding to presentation.
constexpr int64_t kReorderUs = 80'000;
constexpr int64_t kWrapUs = 95'443'717'689;
constexpr int64_t kHourUs = 3'600'000'000;

/// Two parts of 5 s each, packets interleaved by time, audio 100 ms behind in the file.
struct MapperCase {
    const char* name;
    int64_t video2Us;   ///< where the second part's video begins
    int64_t audio2Us;   ///< the same; -1: there is no audio at all
    int64_t videoAtUs;  ///< where the second part's first picture comes out
    int64_t audioAtUs;
    size_t splices;
    int64_t stepUs = kFrameUs;  ///< of video
    int64_t startUs = 0;
};

const MapperCase kCases[] = {
    {"goes on", 5'000'000, 5'000'000, 5'000'000, 5'000'000, 0},
    {"an hour forward", kHourUs, kHourUs, 5'000'000, 5'000'000, 1},
    {"six seconds forward", 11'000'000, 11'000'000, 5'000'000, 5'000'000, 1},
    {"two seconds forward", 7'000'000, 7'000'000, 5'000'000, 5'000'000, 1},
    {"a section again", 0, 0, 5'000'000, 5'000'000, 1},
    {"back by two seconds", 3'000'000, 3'000'000, 5'000'000, 5'000'000, 1},
    {"audio begins first", kHourUs + 300'000, kHourUs, 5'200'000, 4'900'000, 1},
    {"video begins first", kHourUs, kHourUs + 300'000, 5'000'000, 5'300'000, 1},
    {"pictures are missing", 11'000'000, 5'000'000, 11'000'000, 5'000'000, 0},
    {"sound is missing", 5'000'000, 11'000'000, 5'000'000, 11'000'000, 0},
    {"pictures alone jump back", 0, 5'000'000, 5'000'000, 5'000'000, 1},
    {"video alone", kHourUs, -1, 5'000'000, -1, 1},
    {"slides", 16'000'000, -1, 16'000'000, -1, 0, 2'500'000},
    {"the counter begins again", 5'000'000, 5'000'000, 5'000'000, 5'000'000, 0, kFrameUs,
     kWrapUs - 2'000'000},
};

/// Where the packets of a track come out; of the second part, from its first one on.
struct Out {
    int64_t secondUs = -1;
    int64_t lastUs = -1;
};

Out run(const MapperCase& test, int track, TimelineMapper* mapper) {
    struct Sent {
        int64_t fileUs;
        int track;
        int64_t us;
        bool second;
    };
    std::vector<Sent> sent;
    for (int t = 0; t < (test.audio2Us < 0 ? 1 : 2); ++t) {
        const int64_t stepUs = t == 0 ? test.stepUs : kFrameUs;
        for (int64_t at = 0; at < 10'000'000; at += stepUs) {
            const bool second = at >= 5'000'000;
            const int64_t part2Us = t == 0 ? test.video2Us : test.audio2Us;
            const int64_t us = test.startUs + (second ? part2Us + at - 5'000'000 : at);
            sent.push_back({at + t * 100'000, t, us % kWrapUs, second});
        }
    }
    std::stable_sort(sent.begin(), sent.end(),
                     [](const Sent& a, const Sent& b) { return a.fileUs < b.fileUs; });
    Out out;
    size_t popped = 0;
    const auto pop = [&] {
        while (const auto shiftUs = mapper->pop()) {
            const Sent& packet = sent[popped++];
            const int64_t us = packet.us + *shiftUs - test.startUs;
            if (packet.track == track) {
                EXPECT_GT(us, out.lastUs - track * 100'000) << test.name;
                out.lastUs = us;
                out.secondUs = packet.second && out.secondUs < 0 ? us : out.secondUs;
            }
        }
    };
    for (const Sent& packet : sent) {
        mapper->push({packet.track, packet.us, 0, packet.us + kReorderUs});
        pop();
    }
    mapper->end();
    pop();
    EXPECT_EQ(popped, sent.size()) << test.name;
    return out;
}

TEST(TimelineMapper, MakesTimesContinuous) {
    for (const MapperCase& test : kCases) {
        TimelineMapper mapper(kWrapUs);
        EXPECT_EQ(run(test, 0, &mapper).secondUs, test.videoAtUs) << test.name;
        ASSERT_EQ(mapper.splices().size(), test.splices) << test.name;
        if (test.splices > 0) {
            EXPECT_EQ(mapper.splices()[0].pictureUs, test.videoAtUs + kReorderUs) << test.name;
        }
        mapper.restart();
        EXPECT_EQ(run(test, 1, &mapper).secondUs, test.audioAtUs) << test.name;
    }
}

}  // namespace
}  // namespace korvane::player
