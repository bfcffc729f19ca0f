// SPDX-License-Identifier: Apache-2.0
// The time that splices cost on screen, from the frames of a playback.
#include "player/report/SpliceMeter.h"

#include <gtest/gtest.h>

#include <vector>

namespace korvane::player {
namespace {

struct Frame {
    int64_t shownUs;  ///< -1: dropped
    bool splice = false;
    int section = 0;
};

struct SpliceCase {
    const char* name;
    std::vector<Frame> frames;
    std::vector<int64_t> lostUs;
};

// Frames of 40 ms on a display of 60 Hz.
const SpliceCase kCases[] = {
    {"no splice", {{0}, {500'000}}, {}},
    {"longer by less than a vsync", {{0}, {50'000, true}}, {0}},
    {"longer by ten vsyncs", {{0}, {40'000 + 166'667, true}, {900'000}}, {166'667}},
    {"its first frames are dropped", {{0}, {-1, true}, {-1}, {240'000}}, {200'000}},
    {"a seek leads to it", {{0}, {900'000, true, 1}, {1'000'000, true, 1}}, {60'000}},
    {"a seek leads away from it",
     {{0}, {-1, true}, {900'000, false, 1}, {1'000'000, false, 1}},
     {}},
};

TEST(SpliceMeter, CountsWhatIsLostBeyondAFramesOwnDuration) {
    for (const SpliceCase& test : kCases) {
        SpliceMeter meter;
        for (const Frame& shown : test.frames) {
            FrameEntry frame;
            frame.section = shown.section;
            frame.followsSplice = shown.splice;
            frame.outcome = shown.shownUs < 0 ? Outcome::Dropped : Outcome::Shown;
            meter.add(frame, {0, shown.shownUs}, 40'000, 16'667);
        }
        std::vector<int64_t> lostUs;
        for (const auto& splice : meter.splices()) {
            lostUs.push_back(splice.lostUs);
        }
        EXPECT_EQ(lostUs, test.lostUs) << test.name;
    }
}

}  // namespace
}  // namespace korvane::player
