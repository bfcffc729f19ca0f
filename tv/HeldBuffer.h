// SPDX-License-Identifier: Apache-2.0
// The display's reference to a buffer's memory, from queueing until the panel is done. Like a
// driver's reference it is independent of the producer's descriptor, which may be closed or reused.
//
// A memory file that is sealed against shrinking, as the player's are, is mapped once per
// connection and found again by device and inode: one fstat per frame. Any other memory is read
// through a duplicate descriptor: a mapping of a file that shrinks would fault.
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
    /// A buffer without a picture.
    HeldBuffer() = default;
    explicit HeldBuffer(std::shared_ptr<const MappedHeader> mapped) : mMapped(std::move(mapped)) {}
    explicit HeldBuffer(UniqueFd descriptor) : mDescriptor(std::move(descriptor)) {}

    PictureHeader picture() const;

private:
    std::shared_ptr<const MappedHeader> mMapped;
    UniqueFd mDescriptor;
};

/// The memory of one producer's buffers.
class BufferMemory {
public:
    /// Takes a reference to a descriptor's memory; an invalid descriptor gives an empty one.
    /// @return 0, or -EMFILE when the process is out of descriptors
    int hold(int fd, HeldBuffer* out);

private:
    /// Mappings kept: more than a tunnel holds buffers.
    static constexpr size_t kMaxMappings = 128;

    void dropUnused();

    std::map<std::pair<dev_t, ino_t>, std::shared_ptr<const MappedHeader>> mMapped;
};

}  // namespace korvane::tv
