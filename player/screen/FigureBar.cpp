// SPDX-License-Identifier: Apache-2.0
#include "player/screen/FigureBar.h"

#include <fmt/format.h>

#include <algorithm>

#include "player/base/Units.h"
#include "player/screen/BitmapFont.h"

namespace korvane::player {
namespace {

/// A picture this wide has one pixel a dot.
constexpr int kWidthOfScaleOne = 400;
/// Rows of the bar in dots: space, text, space, cells, space.
constexpr int kTextRow = 3;
constexpr int kCellRow = kTextRow + kGlyphHeight + 2;
constexpr int kCellRows = 4;
constexpr int kBarRows = kCellRow + kCellRows + 2;
static_assert(kBarRows % 2 == 0, "areas are even");

int scaleFor(int width) {
    return std::max(width / kWidthOfScaleOne, 1);
}

}  // namespace

std::string barText(const Figures& figures, bool brief) {
    std::string text = fmt::format("{}{}", brief ? "V" : "VSYNC ", figures.vsync);
    if (figures.frameNo >= 0) {
        text = fmt::format("{}{}  {}  {}{}/{}", brief ? "F" : "FRAME ", figures.frameNo, text,
                           brief ? "D" : "DWELL ", figures.dwell,
                           figures.dwells > 0 ? std::to_string(figures.dwells) : "-");
    }
    if (!figures.pattern.empty()) {
        text += (brief ? "  " : "  SEEN ") + figures.pattern;
    }
    if (figures.offsetUs) {
        text += "  " + signedMilliseconds(*figures.offsetUs);
    }
    return text;
}

int barHeight(int width) {
    return kBarRows * scaleFor(width);
}

Area barCell(const Area& bar, int bit) {
    const int scale = scaleFor(bar.width);
    const int left = bar.width * bit / kBarCells & ~1;
    const int right = bar.width * (bit + 1) / kBarCells & ~1;
    return {bar.x + left, bar.y + kCellRow * scale, right - left, kCellRows * scale};
}

void drawBar(Canvas* canvas, const Area& bar, const Figures& figures) {
    const int scale = scaleFor(bar.width);
    canvas->fill(bar, kBlack);
    const std::string whole = barText(figures, false);
    const bool fits = textWidth(whole, scale) + 2 * kGlyphStep * scale <= bar.width;
    canvas->text(bar.x + kGlyphStep * scale, bar.y + kTextRow * scale, scale,
                 fits ? whole : barText(figures, true));
    const uint64_t cells = static_cast<uint64_t>(static_cast<uint32_t>(figures.frameNo)) << 32 |
                           static_cast<uint32_t>(figures.vsync);
    for (int bit = 0; bit < kBarCells; ++bit) {
        if ((cells >> (kBarCells - 1 - bit) & 1) != 0) {
            canvas->fill(barCell(bar, bit), kWhite);
        }
    }
}

}  // namespace korvane::player
