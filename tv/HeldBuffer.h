// SPDX-License-Identifier: Apache-2.0
// A buffer's memory as the display holds it from queueing until the panel is done, as a driver
// holds its reference: the producer may close or reuse its own descriptor meanwhile.
//
// Memory that cannot shrink (a memory file sealed so, as the player's are) is mapped once and found
// again by its file for as long as the tunnel is connected: a look at the descriptor per frame is
// all that the kernel has to do. Any other is held by a duplicate and read, because a mapping must
// not end under its reader.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <utility>

#include "tv/Picture.h"
#include "tv/UniqueFd.h"

namespace korvane::tv {

/// The first page of a memory file, mapped for reading.
class MappedHeader;

class HeldBuffer {
public:
    /// Nothing: a buffer without a picture.
    HeldBuffer() = default;
    explicit HeldBuffer(std::shared_ptr<const MappedHeader> mapped) : mMapped(std::move(mapped)) {}
    explicit HeldBuffer(UniqueFd descriptor) : mDescriptor(std::move(descriptor)) {}

    PictureHeader picture() const;

private:
    std::shared_ptr<const MappedHeader> mMapped;
    UniqueFd mDescriptor;
};

/// The memory that a producer's buffers are in.
class BufferMemory {
public:
    /// Holds what is behind a descriptor; nothing, if that is none.
    /// @return 0, or -EMFILE when the process is out of descriptors
    int hold(int fd, HeldBuffer* out);

private:
    /// Mappings kept: more than a tunnel holds buffers.
    static constexpr size_t kMost = 128;

    void forgetUnused();

    std::map<std::pair<dev_t, ino_t>, std::shared_ptr<const MappedHeader>> mMapped;
};

}  // namespace korvane::tv
