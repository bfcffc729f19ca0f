// SPDX-License-Identifier: Apache-2.0
// Writes a canvas as PNG, with FFmpeg's encoder.
#pragma once

#include <iosfwd>

#include "player/screen/Canvas.h"

namespace korvane::player {

/// @param colours  what the canvas's colours mean; if unspecified, what is usual for its size
/// @throws std::runtime_error when this FFmpeg cannot
void writePng(const Canvas& canvas, AVColorSpace colours, std::ostream* out);

}  // namespace korvane::player
