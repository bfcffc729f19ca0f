// SPDX-License-Identifier: Apache-2.0
// What keys of a viewer's remote make the player do: no thread, no clock.
#include "player/playback/ViewerControl.h"

#include <gtest/gtest.h>

#include <string>

namespace korvane::player {
namespace {

RemoteKey keyOf(char letter) {
    switch (letter) {
        case 'p':
            return {RemoteKey::Kind::Pause};
        case 's':
            return {RemoteKey::Kind::Step};
        case '>':
            return {RemoteKey::Kind::Seek, 10};
        case '<':
            return {RemoteKey::Kind::Seek, -10};
        default:
            return {RemoteKey::Kind::Quit};
    }
}

std::string stepText(const ViewerStep& step) {
    switch (step.kind) {
        case ViewerStep::Kind::Pause:
            return "pause ";
        case ViewerStep::Kind::Resume:
            return "resume ";
        case ViewerStep::Kind::AwaitVsync:
            return "vsync ";
        case ViewerStep::Kind::Seek:
            break;
    }
    return "to " + std::to_string(step.toUs) + " ";
}

struct ViewerCase {
    const char* name;
    bool withAudio;
    const char* keys;  ///< p pause, s step, < and > seek by 10 us, q quit; f: a frame is sent
    const char* steps;
    const char* state;  ///< at the end: [paused] [holds] [quit]
};

// Media time 100 us is shown.
const ViewerCase kViewerCases[] = {
    {"playing", true, "", "", ""},
    {"pause", true, "p", "pause ", "paused "},
    {"and resume", true, "pp", "pause resume ", ""},
    {"a step pauses first", true, "s", "pause ", "paused "},
    {"with audio the clock goes on for a vsync", true, "ps", "pause resume vsync pause ",
     "paused "},
    {"seek", true, ">", "to 110 ", ""},
    {"a seek ends the pause", true, "p<", "pause resume to 90 ", ""},
    {"quit while paused", true, "pq", "pause ", "paused quit "},
    {"frames with audio never anchor", true, "fpfsf", "pause resume vsync pause ", "paused "},

    {"without audio a pause holds frames", false, "p", "pause ", "paused holds "},
    {"until it ends", false, "pp", "pause resume ", ""},
    {"the next frame anchors the clock, once", false, "fppff", "pause resume anchor ", ""},
    {"a step first pauses, too", false, "s", "pause ", "paused holds "},
    {"a step lets a frame out", false, "ps", "pause ", "paused "},
    {"one frame", false, "psf", "pause anchor ", "paused holds "},
    {"each step's frame anchors, and the one after", false, "psfsfpff",
     "pause anchor anchor resume anchor ", ""},
    {"a seek ends this pause, too", false, "p>f", "pause resume to 110 anchor ", ""},
};

TEST(ViewerControl, TurnsKeysIntoSteps) {
    for (const auto& test : kViewerCases) {
        SCOPED_TRACE(test.name);
        ViewerControl viewer(test.withAudio);
        std::string steps;
        for (const char* key = test.keys; *key != '\0'; ++key) {
            if (*key == 'f') {
                steps += viewer.frameGoesOut() ? "anchor " : "";
                continue;
            }
            for (const auto& step : viewer.press(keyOf(*key), {true, 100, {}})) {
                steps += stepText(step);
            }
        }
        EXPECT_EQ(steps, test.steps);
        EXPECT_EQ(std::string(viewer.paused() ? "paused " : "") +
                      (viewer.holdsFrames() ? "holds " : "") + (viewer.quit() ? "quit " : ""),
                  test.state);
    }
}

struct SeekCase {
    const char* name;
    ViewerPosition at;
    int64_t byUs;
    int64_t toUs;
};

const SeekCase kViewerSeeks[] = {
    {"from what is shown", {true, 100, 700}, 10, 110},
    {"from where the last seek went, until that is shown", {false, 100, 700}, 10, 710},
    {"from what was shown last, after a flush in place", {false, 100, {}}, 10, 110},
    {"not before the beginning", {true, 100, {}}, -101, 0},
};

TEST(ViewerControl, SeeksFromWhereTheViewerIs) {
    for (const auto& test : kViewerSeeks) {
        SCOPED_TRACE(test.name);
        const auto steps = ViewerControl(true).press({RemoteKey::Kind::Seek, test.byUs}, test.at);
        ASSERT_EQ(steps.size(), 1U);
        EXPECT_EQ(steps[0].kind, ViewerStep::Kind::Seek);
        EXPECT_EQ(steps[0].toUs, test.toUs);
    }
}

}  // namespace
}  // namespace korvane::player
