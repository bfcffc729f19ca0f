// SPDX-License-Identifier: Apache-2.0
#include "tv/HeldBuffer.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace korvane::tv {

class MappedHeader {
public:
    explicit MappedHeader(void* memory) : mMemory(memory) {}
    ~MappedHeader() { munmap(mMemory, sizeof(PictureHeader)); }
    MappedHeader(const MappedHeader&) = delete;
    MappedHeader& operator=(const MappedHeader&) = delete;

    PictureHeader read() const {
        PictureHeader header;
        std::memcpy(&header, mMemory, sizeof header);
        return header.magic == kPictureMagic ? header : PictureHeader{};
    }

private:
    void* const mMemory;
};

namespace {

bool cannotShrink(int fd) {
    const int seals = fcntl(fd, F_GET_SEALS);
    return seals >= 0 && (seals & F_SEAL_SHRINK) != 0;
}

/// Null if unmappable or unsealed.
std::shared_ptr<const MappedHeader> map(int fd, const struct stat& file) {
    if (file.st_size < off_t{sizeof(PictureHeader)} || !cannotShrink(fd)) {
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(PictureHeader), PROT_READ, MAP_SHARED, fd, 0);
    return memory != MAP_FAILED ? std::make_shared<MappedHeader>(memory) : nullptr;
}

}  // namespace

PictureHeader HeldBuffer::picture() const {
    return mMapped ? mMapped->read() : readPicture(mDescriptor.get());
}

int BufferMemory::hold(int fd, HeldBuffer* out) {
    struct stat file {};
    if (fstat(fd, &file) != 0) {
        return 0;
    }
    const auto key = std::make_pair(file.st_dev, file.st_ino);
    if (const auto known = mMapped.find(key); known != mMapped.end()) {
        *out = HeldBuffer(known->second);
        return 0;
    }
    if (auto mapped = map(fd, file)) {
        dropUnused();
        mMapped.emplace(key, mapped);
        *out = HeldBuffer(std::move(mapped));
        return 0;
    }
    UniqueFd duplicate(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (duplicate.get() < 0) {
        return errno == EMFILE ? -EMFILE : 0;
    }
    *out = HeldBuffer(std::move(duplicate));
    return 0;
}

/// Bounds the mappings of a producer that keeps making new buffers.
void BufferMemory::dropUnused() {
    if (mMapped.size() < kMaxMappings) {
        return;
    }
    for (auto entry = mMapped.begin(); entry != mMapped.end();) {
        entry = entry->second.use_count() == 1 ? mMapped.erase(entry) : std::next(entry);
    }
}

}  // namespace korvane::tv
