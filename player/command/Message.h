// SPDX-License-Identifier: Apache-2.0
// Messages to the user on standard error.
#pragma once

#include <string>

namespace korvane::player {

/// Prints "korvane-tv: MESSAGE" on a line of its own. Control characters are escaped.
void say(const std::string& message);

}  // namespace korvane::player
