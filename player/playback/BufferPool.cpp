// SPDX-License-Identifier: Apache-2.0
#include "player/playback/BufferPool.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "tv/Picture.h"
#include "tv/ScopedLock.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
}

namespace korvane::player {
namespace {

/// Row alignment of the packed planes, as wide vector units want it.
constexpr int kRowAlignment = 32;

constexpr int kUsualBuffers = 16;
constexpr int kBuffersWithoutReserve = 8;
constexpr int64_t kUsualBytes = int64_t{512} * 1000 * 1000;

[[noreturn]] void throwErrno(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

int usualBuffers(int64_t pictureBytes) {
    const int64_t fitting = kUsualBytes / std::max<int64_t>(pictureBytes, 1);
    return static_cast<int>(std::clamp<int64_t>(fitting, kBuffersWithoutReserve, kUsualBuffers));
}

BufferPool::BufferPool(int buffers) : mBuffers(static_cast<size_t>(buffers)) {
    for (size_t i = 0; i < mBuffers.size(); ++i) {
        tv::UniqueFd fd(memfd_create("korvane-frame", MFD_CLOEXEC | MFD_ALLOW_SEALING));
        if (fd.get() < 0) {
            throwErrno("cannot create a frame buffer");
        }
        // The display maps only files that cannot shrink; it reads the others.
        (void)fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK);
        mBuffers[i].fd = std::move(fd);
        mHoldings.push_back({static_cast<int>(i), false, -1});
        mFree.push_back(static_cast<int>(i));
    }
    mReport.buffers = buffers;
    mReport.lowestFree = buffers;
}

void Unmap::operator()(unsigned char* memory) const {
    munmap(memory, bytes);
}

int BufferPool::acquire(std::chrono::nanoseconds timeout) {
    tv::WaitLock lock(mLock);
    if (mFree.empty() && !mWaiting) {
        mWaiting = true;
        mWaitStart = std::chrono::steady_clock::now();
        ++mReport.waits;
    }
    const bool freed = mFreed.wait_for(lock.forWait(), timeout,
                                       [this]() KORVANE_REQUIRES(mLock) { return !mFree.empty(); });
    if (mWaiting) {
        // Updated during the wait too: playback may end before a buffer comes.
        const std::chrono::nanoseconds waited = std::chrono::steady_clock::now() - mWaitStart;
        mReport.longestWaitNs = std::max<int64_t>(mReport.longestWaitNs, waited.count());
        mWaiting = !freed;
    }
    if (!freed) {
        return -1;
    }
    const int buffer = mFree.front();
    mFree.pop_front();
    mReport.lowestFree = std::min(mReport.lowestFree, static_cast<int>(mFree.size()));
    return buffer;
}

void BufferPool::grow(Buffer& buffer, size_t bytes) {
    if (buffer.memory && buffer.memory.get_deleter().bytes >= bytes) {
        return;
    }
    buffer.memory.reset();
    if (ftruncate(buffer.fd.get(), static_cast<off_t>(bytes)) != 0) {
        throwErrno("cannot enlarge a frame buffer");
    }
    void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, buffer.fd.get(), 0);
    if (memory == MAP_FAILED) {
        throwErrno("cannot map a frame buffer");
    }
    buffer.memory = Mapping(static_cast<unsigned char*>(memory), Unmap{bytes});
}

/// Makes the buffer large enough and copies the planes after the header's page.
size_t BufferPool::copyPlanes(Buffer& buffer, const AVFrame& picture) {
    const auto format = static_cast<AVPixelFormat>(picture.format);
    const int planes =
        av_image_get_buffer_size(format, picture.width, picture.height, kRowAlignment);
    if (planes < 0) {
        throw std::system_error(EINVAL, std::generic_category(), "cannot size a picture");
    }
    grow(buffer, static_cast<size_t>(tv::kPictureHeaderBytes) + static_cast<size_t>(planes));
    av_image_copy_to_buffer(buffer.memory.get() + tv::kPictureHeaderBytes, planes, picture.data,
                            picture.linesize, format, picture.width, picture.height, kRowAlignment);
    return static_cast<size_t>(planes);
}

size_t BufferPool::fill(int index, const AVFrame* picture, int64_t frameNo, int64_t mediaTimeUs) {
    Buffer& buffer = mBuffers.at(static_cast<size_t>(index));
    grow(buffer, static_cast<size_t>(tv::kPictureHeaderBytes));
    const size_t bytes = picture != nullptr ? copyPlanes(buffer, *picture) : 0;
    tv::PictureHeader header;
    header.width = picture != nullptr ? static_cast<uint32_t>(picture->width) : 0;
    header.height = picture != nullptr ? static_cast<uint32_t>(picture->height) : 0;
    header.frameNo = frameNo;
    header.mediaTimeUs = mediaTimeUs;
    std::memcpy(buffer.memory.get(), &header, sizeof header);
    const std::lock_guard<std::mutex> guard(mLock);
    mHoldings[static_cast<size_t>(index)] = {index, true, frameNo};
    return bytes;
}

int BufferPool::fd(int buffer) const {
    return mBuffers.at(static_cast<size_t>(buffer)).fd.get();
}

int BufferPool::indexOf(int fd) const {
    const auto found = std::find_if(mBuffers.begin(), mBuffers.end(),
                                    [fd](const Buffer& buffer) { return buffer.fd.get() == fd; });
    return found == mBuffers.end() ? -1 : static_cast<int>(found - mBuffers.begin());
}

BufferPool::Holding BufferPool::holding(int fd) const {
    const std::lock_guard<std::mutex> guard(mLock);
    const int index = indexOf(fd);
    return index < 0 ? Holding{} : mHoldings[static_cast<size_t>(index)];
}

void BufferPool::giveBack(int fd) {
    const std::lock_guard<std::mutex> guard(mLock);
    const int index = indexOf(fd);
    if (index < 0) {
        ++mReport.unknownReturned;
        return;
    }
    Holding& holding = mHoldings[static_cast<size_t>(index)];
    if (!holding.out) {
        ++mReport.returnedAgain;
        return;
    }
    holding.out = false;
    ++mReport.returnedByCallback;
    mFree.push_back(index);
    mFreed.notify_one();
}

void BufferPool::takeBackAll() {
    const std::lock_guard<std::mutex> guard(mLock);
    for (Holding& holding : mHoldings) {
        if (holding.out) {
            holding.out = false;
            ++mReport.takenBackAtStop;
            mFree.push_back(holding.buffer);
        }
    }
}

int64_t BufferPool::free() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return static_cast<int64_t>(mFree.size());
}

PoolReport BufferPool::report() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mReport;
}

}  // namespace korvane::player
