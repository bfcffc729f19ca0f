// SPDX-License-Identifier: Apache-2.0
// Two playbacks compared: what changed, in sum and frame by frame, and which one is better.
//
//   align    frames of the same media time, in the order in which they were sent where one comes
//            more than once (a seek back). Containers round: 1 ms is the same time
//   frames   what became of a frame, why it was dropped and how long it stood; or where it is
//   figures  the sums of both reports, side by side
//   judge    the figures in the order of what a viewer minds most: the first that is not the same
//            decides, and the verdict names the others
//
// Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "player/compare/ComparedRun.h"

namespace korvane::player {

/// Frames of one media time that are not the same in both.
struct FrameDifference {
    int64_t mediaTimeUs = 0;
    std::optional<size_t> a;  ///< frame numbers; empty: it does not have that time
    std::optional<size_t> b;
};

enum class FigureUnit { Count, Microseconds, Seconds, Hertz };

/// A figure of both; a negative time was not measured.
struct Figure {
    std::string key;  ///< "frames_dropped"
    FigureUnit unit = FigureUnit::Count;
    double a = 0.0;
    double b = 0.0;
};

enum class ComparisonResult { SameBytes, SameDecisions, NeitherBetter, Better, Worse, Different };
/// "same_bytes".
const char* toString(ComparisonResult result);

struct Comparison {
    ComparisonResult result = ComparisonResult::SameBytes;
    std::string verdict;  ///< one sentence
    std::vector<Figure> figures;
    std::vector<FrameDifference> frames;
    int64_t common = 0;  ///< media times that both have
    int64_t onlyA = 0;
    int64_t onlyB = 0;
    int64_t mostMovedUs = 0;  ///< of all frames in both tunnels, by their presentation times

    /// B is as good as A, or better.
    bool noWorse() const {
        return result != ComparisonResult::Worse && result != ComparisonResult::Different;
    }
};

Comparison compareRuns(const ComparedRun& a, const ComparedRun& b);

/// Numbers of the frames, by media time; where one comes more than once, in order.
std::vector<size_t> byMediaTime(const LoggedPlayback& log);

/// "shown for 3 vsyncs", "dropped (late)", "-" without a frame.
std::string tellFrame(const ComparedRun& run, const std::optional<size_t>& frame);
/// "12", "0.417 s", "-".
std::string tellFigure(const Figure& figure, double value);

}  // namespace korvane::player
