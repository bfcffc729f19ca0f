// SPDX-License-Identifier: Apache-2.0
// Writes a canvas as PNG, with FFmpeg's encoder.
#pragma once

#include <iosfwd>

#include "player/screen/Canvas.h"

namespace korvane::player {

/// @param colours  the canvas's colour space; if unspecified, the usual one for its size
/// @throws std::runtime_error when this FFmpeg has no PNG encoder
void writePng(const Canvas& canvas, AVColorSpace colours, std::ostream* out);

}  // namespace korvane::player
