// SPDX-License-Identifier: Apache-2.0
// The content of a buffer as the display reads it.
//
// A frame buffer is a memory file: one page with this header, then the picture's planes. A real
// panel shows what the memory holds at scan-out. So the display reads the header when a buffer is
// queued and again when the panel has finished reading it: the record of what was shown comes from
// the pictures, and a buffer that is overwritten too early is detected. Any other descriptor counts
// as a picture without a number (-1).
#pragma once

#include <cstdint>

namespace korvane::tv {

constexpr uint32_t kPictureMagic = 0x4b565046;
/// Bytes before the first plane: one page, so that planes are aligned for any decoder.
constexpr int64_t kPictureHeaderBytes = 4096;

struct PictureHeader {
    uint32_t magic = kPictureMagic;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t reserved = 0;
    int64_t frameNo = -1;
    int64_t mediaTimeUs = -1;
};

/// Reads a buffer's header.
/// @return a header with frameNo -1 if the descriptor has none
PictureHeader readPicture(int fd);

}  // namespace korvane::tv
