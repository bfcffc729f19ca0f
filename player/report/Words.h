// SPDX-License-Identifier: Apache-2.0
// Words that the verdict and the report's text share.
#pragma once

#include <string>

#include "player/report/Summary.h"

namespace korvane::player {

/// "discarded by stop" for "discarded_by_stop".
std::string inWords(std::string name);

/// "held 0.12 s after audio start", of a stretch that held its pattern.
std::string whenHeld(const StretchReport& stretch);

}  // namespace korvane::player
