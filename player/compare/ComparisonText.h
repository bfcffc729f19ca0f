// SPDX-License-Identifier: Apache-2.0
// A comparison as text, JSON and HTML, with the same figures in all three.
#pragma once

#include <iosfwd>

#include "player/compare/Comparison.h"

namespace korvane::player {

struct ComparedPair {
    const ComparedRun& a;
    const ComparedRun& b;
    const Comparison& comparison;
};

/// The verdict, that of each side, and the figures that differ.
/// @param frames  also one line for each frame that differs
void printComparison(std::ostream& out, const ComparedPair& pair, bool frames);
/// All figures, and all frames that differ, as one JSON object.
void writeComparisonJson(std::ostream& out, const ComparedPair& pair);
/// A page that needs no other file.
void writeComparisonPage(std::ostream& out, const ComparedPair& pair);

}  // namespace korvane::player
