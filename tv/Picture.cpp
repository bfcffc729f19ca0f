// SPDX-License-Identifier: Apache-2.0
// Reads a picture's header with one pread, which moves no file position and fails on pipes.
#include "tv/Picture.h"

#include <unistd.h>

namespace korvane::tv {

PictureHeader readPicture(int fd) {
    PictureHeader header;
    if (fd < 0 || pread(fd, &header, sizeof(header), 0) != ssize_t{sizeof(header)} ||
        header.magic != kPictureMagic) {
        return PictureHeader{};
    }
    return header;
}

}  // namespace korvane::tv
