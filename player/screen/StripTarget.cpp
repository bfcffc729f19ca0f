// SPDX-License-Identifier: Apache-2.0
#include "player/screen/StripTarget.h"

#include "player/base/Units.h"

namespace korvane::player {

std::optional<StripTarget> parseStripTarget(const std::string& text) {
    constexpr char kFrame[] = "frame:";
    constexpr size_t kFrameLength = sizeof kFrame - 1;
    if (text == "break") {
        return StripTarget{};
    }
    if (text.compare(0, kFrameLength, kFrame) == 0) {
        const auto number = parseCount(text.substr(kFrameLength));
        return number ? std::optional(StripTarget{StripTarget::Kind::Frame, *number})
                      : std::nullopt;
    }
    const auto us = parseDuration(text);
    return us && *us >= 0 ? std::optional(StripTarget{StripTarget::Kind::Time, *us}) : std::nullopt;
}

}  // namespace korvane::player
