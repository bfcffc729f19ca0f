// SPDX-License-Identifier: Apache-2.0
// Reads a picture's header with one positioned read: any descriptor is safe to ask, none is moved.
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
