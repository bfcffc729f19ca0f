// SPDX-License-Identifier: Apache-2.0
#include "player/base/Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <string_view>

namespace korvane::player {
namespace {

constexpr unsigned kDelete = 0x7f;
constexpr unsigned kFirstPrintable = 0x20;
/// U+0080 to U+009F are control characters, too: U+009B begins a terminal's commands.
constexpr unsigned kEndOfC1Controls = 0xa0;

/// Length of the printable UTF-8 character at the start of a text; 0 if there is none.
size_t printableLength(std::string_view text) {
    const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned first = byte(0);
    if (first < 0x80) {
        return first >= kFirstPrintable && first != kDelete ? 1 : 0;
    }
    const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < length) {
        return 0;
    }
    unsigned code = first & (0x7fU >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0U) != 0x80U) {
            return 0;
        }
        code = code << 6 | (byte(i) & 0x3fU);
    }
    const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool outside = (code >= 0xd800 && code < 0xe000) || code > 0x10ffff;
    return overlong || outside || code < kEndOfC1Controls ? 0 : length;
}

/// @param special  characters that get a backslash
std::string escaped(std::string_view text, std::string_view special) {
    std::string out;
    while (!text.empty()) {
        const size_t length = printableLength(text);
        if (length == 0) {
            out += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[0]));
        } else {
            out += special.find(text[0]) != special.npos ? "\\" : "";
            out += text.substr(0, length);
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return out;
}

bool isPlain(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
           std::string_view("-_./:=,+@%").find(c) != std::string_view::npos;
}

}  // namespace

std::string printable(const std::string& text) {
    return escaped(text, "");
}

std::string shellWord(const std::string& text) {
    if (!text.empty() && std::all_of(text.begin(), text.end(), isPlain)) {
        return text;
    }
    if (printable(text) != text) {
        return "$'" + escaped(text, "\\'") + "'";
    }
    std::string quoted;
    for (const char c : text) {
        quoted += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return "'" + quoted + "'";
}

}  // namespace korvane::player
