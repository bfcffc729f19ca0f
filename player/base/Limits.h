// SPDX-License-Identifier: Apache-2.0
// Limits of values, the same for options and scenarios.
#pragma once

#include <cstdint>

#include "player/base/Range.h"

namespace korvane::player {

/// Longest duration: beyond any playback, far from overflow in nanoseconds.
constexpr int64_t kLongestUs = 1'000'000'000'000;
/// What messages say of a longer one.
constexpr char kTooLong[] = "is too long; a duration is at most 277h";
/// A day and an hour: what a soak may last.
constexpr Range kContentDurationUs{1, int64_t{25} * 3600 * 1'000'000};
constexpr int64_t kMostFrames = 100'000'000;

/// Vsyncs per second that displays are built for, with room on both sides.
constexpr double kLowestDisplayHz = 10.0;
constexpr double kHighestDisplayHz = 500.0;
/// Frames per second of content, from slides to high-speed sport.
constexpr double kLowestContentHz = 0.1;
constexpr double kHighestContentHz = 240.0;
/// Real crystals are within 100 ppm; this leaves room to see drift within seconds.
constexpr double kMostDriftPpm = 50'000.0;
constexpr int64_t kMostVsyncJitterUs = 5'000;

/// The renderer takes a buffer back only while three are in the tunnel, and waits for its second
/// frame before it takes the first: with fewer buffers nothing would move.
constexpr int kFewestBuffers = 5;
/// What the TV's tunnel holds.
constexpr int kMostBuffers = 64;
/// Above any index of a stream and any number of a program.
constexpr int kMostStreams = 65'535;
/// Width and height of a recording: what encoders take.
constexpr Range kPictureSide{64, 8192};
/// Scenarios that `run` plays at a time.
constexpr int kMostJobs = 256;
/// Limits of `explore`, well above any use.
constexpr int64_t kMostSchedules = 1'000'000'000'000;
constexpr int kMostExploredFrames = 500;
constexpr int kMostPreemptions = 10;

}  // namespace korvane::player
