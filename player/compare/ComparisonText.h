// SPDX-License-Identifier: Apache-2.0
// A comparison for people, for scripts and for a browser: all say the same figures.
#pragma once

#include <iosfwd>

#include "player/compare/Comparison.h"

namespace korvane::player {

struct ComparedPair {
    const ComparedRun& a;
    const ComparedRun& b;
    const Comparison& comparison;
};

/// The verdict, each side's, and the figures that are not the same.
/// @param frames  also one line for each frame that is not the same
void printComparison(std::ostream& out, const ComparedPair& pair, bool frames);
/// All figures and all frames that are not the same, as one JSON object.
void writeComparisonJson(std::ostream& out, const ComparedPair& pair);
/// A page that needs no other file.
void writeComparisonPage(std::ostream& out, const ComparedPair& pair);

}  // namespace korvane::player
