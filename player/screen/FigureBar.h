// SPDX-License-Identifier: Apache-2.0
// The bar below a recorded picture: the figures of the vsync, for people and for programs.
//
//   FRAME 123  VSYNC 310  DWELL 2/3  SEEN [3:2]  +16.5 MS
//   a row of 64 cells, white for 1, black for 0: 32 bits of the frame's number, 32 of the vsync's,
//   highest first; no picture is frame 0xffffffff
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "player/screen/Canvas.h"

namespace korvane::player {

struct Figures {
    int64_t frameNo = -1;  ///< -1: the screen is black
    int64_t vsync = 0;
    int64_t dwell = 0;    ///< vsyncs on screen, with this one
    int64_t dwells = 0;   ///< in all; 0: not known
    std::string pattern;  ///< that the last dwells follow, whatever the library has in force
    std::optional<int64_t> offsetUs;  ///< from the sync clock's time for the frame
};

/// The text of the bar; short names where space lacks.
std::string barText(const Figures& figures, bool brief);

/// Height of the bar below a picture of this width; even.
int barHeight(int width);

/// Where the cells are: `bit` 0 to 63, the first one left.
constexpr int kBarCells = 64;
Area barCell(const Area& bar, int bit);

void drawBar(Canvas* canvas, const Area& bar, const Figures& figures);

}  // namespace korvane::player
