// SPDX-License-Identifier: Apache-2.0
// Text from outside on a terminal and in a shell.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "player/base/Text.h"

namespace korvane::player {
namespace {

TEST(Text, ControlCharactersAndForeignBytesAreEscaped) {
    const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
        {"film-1.mp4", "film-1.mp4", "film-1.mp4"},
        {"", "", "''"},
        {"a b", "a b", "'a b'"},
        {"it's", "it's", "'it'\\''s'"},
        {"a\\b", "a\\b", "'a\\b'"},
        {"Grüße 電影 \U0001f3ac", "Grüße 電影 \U0001f3ac", "'Grüße 電影 \U0001f3ac'"},
        {"\x1b[31m'\\", "\\x1b[31m'\\", "$'\\x1b[31m\\'\\\\'"},
        {"\n\t\x7f", "\\x0a\\x09\\x7f", "$'\\x0a\\x09\\x7f'"},
        {"\xc2\x9b", "\\xc2\\x9b", "$'\\xc2\\x9b'"},                // U+009B begins a command
        {"\xc2\xa0", "\xc2\xa0", "'\xc2\xa0'"},                     // U+00A0 does not
        {"\x9b", "\\x9b", "$'\\x9b'"},                              // as one byte, too
        {"\xff", "\\xff", "$'\\xff'"},                              // never in UTF-8
        {"\xc3", "\\xc3", "$'\\xc3'"},                              // cut off
        {"\xc0\x9b", "\\xc0\\x9b", "$'\\xc0\\x9b'"},                // overlong
        {"\xe0\x80\x9b", "\\xe0\\x80\\x9b", "$'\\xe0\\x80\\x9b'"},  // overlong
        {"\xed\xa0\x80", "\\xed\\xa0\\x80", "$'\\xed\\xa0\\x80'"},  // surrogate
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80", "$'\\xf4\\x90\\x80\\x80'"},  // too large
    };
    for (const auto& [text, onTerminal, inShell] : cases) {
        EXPECT_EQ(printable(text), onTerminal);
        EXPECT_EQ(shellWord(text), inShell);
    }
}

}  // namespace
}  // namespace korvane::player
