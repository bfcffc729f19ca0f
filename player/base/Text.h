// SPDX-License-Identifier: Apache-2.0
// Text that came from outside, such as file names, made fit for a terminal and for a shell.
#pragma once

#include <string>

namespace korvane::player {

/// The text with every control character, and every byte that is not UTF-8, written as \x1b: a
/// name cannot move the cursor or recolour the screen. A newline is \x0a, so one line stays one.
std::string printable(const std::string& text);

/// The text as one word of a shell's command line, quoted if it needs to be:
///   film.mp4   'my film.mp4'   'it'\''s.mp4'   $'bell\x07.mp4'
std::string shellWord(const std::string& text);

}  // namespace korvane::player
