// SPDX-License-Identifier: Apache-2.0
// The lines of the report about an input: its streams and programs, which were taken, and what
// changed on the way.
#pragma once

#include <string>
#include <vector>

#include "player/media/FrameSource.h"

namespace korvane::player {

/// Lines of the report, the first one for the label "streams"; none for made-up content.
std::vector<std::string> streamLines(const MediaInfo& media);

}  // namespace korvane::player
