// SPDX-License-Identifier: Apache-2.0
#include "player/report/Words.h"

#include <fmt/core.h>

#include <algorithm>

#include "player/base/Units.h"

namespace korvane::player {

std::string inWords(std::string name) {
    std::replace(name.begin(), name.end(), '_', ' ');
    return name;
}

std::string whenHeld(const StretchReport& stretch) {
    return fmt::format("held {} after {}", seconds(stretch.heldAfterUs, 2),
                       stretch.begin == StretchBegin::ModeChange
                           ? "the change of the display's rate"
                       : stretch.begin == StretchBegin::RateChange ? "its first frame"
                       : stretch.afterAudio                        ? "audio start"
                                                                   : "the first frame");
}

}  // namespace korvane::player
