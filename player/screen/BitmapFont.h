// SPDX-License-Identifier: Apache-2.0
// A font of 5 by 7 dots: digits, capital letters and the signs that figures need, so that a picture
// is labelled without font files. Lower-case letters are drawn as capitals, characters that it
// lacks as blanks.
#pragma once

#include <cstdint>
#include <string>

namespace korvane::player {

constexpr int kGlyphWidth = 5;
constexpr int kGlyphHeight = 7;
/// From one letter to the next, in dots.
constexpr int kGlyphStep = 6;

/// The dots of a letter, row by row from the top left: the first is bit 34.
uint64_t glyph(char letter);

/// Width of a text in pixels, `scale` pixels a dot.
int textWidth(const std::string& text, int scale);

}  // namespace korvane::player
