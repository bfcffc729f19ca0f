// SPDX-License-Identifier: Apache-2.0
// What is in a buffer, readable by the display.
//
// A frame buffer is a memory file: one page with this header, then the picture's planes. As a real
// panel shows whatever the memory holds at scan-out, the display reads the header when a buffer is
// queued and again when the panel has finished reading it. So the record of what was shown comes
// from the pictures themselves, and a buffer that its owner overwrites too early is caught.
// A descriptor that is no such buffer is a picture without a number (-1).
#pragma once

#include <cstdint>

namespace korvane::tv {

constexpr uint32_t kPictureMagic = 0x4b565046;
/// Bytes before the first plane: one page, so that planes stay aligned for any decoder.
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
/// @return a header with frameNo -1 when the descriptor holds none
PictureHeader readPicture(int fd);

}  // namespace korvane::tv
