// SPDX-License-Identifier: Apache-2.0
#include "player/command/Message.h"

#include <fmt/format.h>

#include <cstdio>

#include "player/base/Text.h"
#include "player/command/Progress.h"

namespace korvane::player {

void say(const std::string& message) {
    clearProgress();
    // fmt::print would throw if standard error is closed.
    std::fputs(fmt::format("korvane-tv: {}\n", printable(message)).c_str(), stderr);
}

}  // namespace korvane::player
