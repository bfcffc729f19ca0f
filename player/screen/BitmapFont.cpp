// SPDX-License-Identifier: Apache-2.0
#include "player/screen/BitmapFont.h"

#include <algorithm>
#include <iterator>

namespace korvane::player {
namespace {

struct Glyph {
    char letter;
    uint64_t dots;
};

/// By letter.
constexpr Glyph kGlyphs[] = {
    {'(', 0x088842082}, {')', 0x208210888}, {'+', 0x0084f9080}, {',', 0x000003088},
    {'-', 0x0000f8000}, {'.', 0x00000018c}, {'/', 0x042222210}, {'0', 0x3a33ae62e},
    {'1', 0x11842108e}, {'2', 0x3a213221f}, {'3', 0x78217043e}, {'4', 0x08ca97c42},
    {'5', 0x7e1e0862e}, {'6', 0x1910f462e}, {'7', 0x7c2222108}, {'8', 0x3a317462e},
    {'9', 0x3a317844c}, {':', 0x018c03180}, {'=', 0x001f07c00}, {'A', 0x3a31fc631},
    {'B', 0x7a31f463e}, {'C', 0x3a308422e}, {'D', 0x72518c65c}, {'E', 0x7e10f421f},
    {'F', 0x7e10f4210}, {'G', 0x3a30bc62f}, {'H', 0x4631fc631}, {'I', 0x38842108e},
    {'J', 0x1c4210a4c}, {'K', 0x4654c5251}, {'L', 0x42108421f}, {'M', 0x4775ac631},
    {'N', 0x47359c631}, {'O', 0x3a318c62e}, {'P', 0x7a31f4210}, {'Q', 0x3a318d64d},
    {'R', 0x7a31f5251}, {'S', 0x3e107043e}, {'T', 0x7c8421084}, {'U', 0x46318c62e},
    {'V', 0x46318c544}, {'W', 0x4631ad771}, {'X', 0x462a22a31}, {'Y', 0x462a21084},
    {'Z', 0x7c222221f}, {'[', 0x39084210e}, {']', 0x38421084e},
};

}  // namespace

uint64_t glyph(char letter) {
    const bool lower = letter >= 'a' && letter <= 'z';
    const char wanted = lower ? static_cast<char>(letter - 'a' + 'A') : letter;
    const auto* const found =
        std::find_if(std::begin(kGlyphs), std::end(kGlyphs),
                     [wanted](const Glyph& entry) { return entry.letter == wanted; });
    return found != std::end(kGlyphs) ? found->dots : 0;
}

int textWidth(const std::string& text, int scale) {
    return static_cast<int>(text.size()) * kGlyphStep * scale;
}

}  // namespace korvane::player
