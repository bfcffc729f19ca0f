// SPDX-License-Identifier: Apache-2.0
#include "player/explore/FrameAccount.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <set>
#include <system_error>
#include <utility>

#include "tv/Picture.h"
#include "tv/ScopedLock.h"
#include "tv/Tv.h"

namespace korvane::player {

FeederBuffers::FeederBuffers(int count) {
    for (int i = 0; i < count; ++i) {
        tv::UniqueFd fd(memfd_create("korvane-frame", MFD_CLOEXEC | MFD_ALLOW_SEALING));
        constexpr auto kBytes = static_cast<size_t>(tv::kPictureHeaderBytes);
        void* memory = MAP_FAILED;
        // The display maps only files that cannot shrink.
        if (fd.get() >= 0 && ftruncate(fd.get(), kBytes) == 0 &&
            fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK) == 0) {
            memory = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
        }
        if (memory == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "cannot create a frame buffer");
        }
        mFds.push_back(std::move(fd));
        mHeaders.push_back(static_cast<tv::PictureHeader*>(memory));
    }
}

FeederBuffers::~FeederBuffers() {
    for (auto* header : mHeaders) {
        munmap(header, static_cast<size_t>(tv::kPictureHeaderBytes));
    }
}

void FeederBuffers::fill(int buffer, int64_t frameNo, int64_t mediaUs) {
    tv::PictureHeader header;
    header.frameNo = frameNo;
    header.mediaTimeUs = mediaUs;
    *mHeaders[static_cast<size_t>(buffer)] = header;
}

FrameAccount::FrameAccount(RunRecord record, FeederBuffers& buffers, int firstBuffer, int count,
                           bool reuses)
    : mBuffers(buffers), mReuses(reuses), mRecord(std::move(record)) {
    for (int i = 0; i < count; ++i) {
        mFree.push_back(firstBuffer + i);
    }
}

int FrameAccount::beginSend(int64_t mediaUs, bool peek, int64_t waitUs) {
    SentFrame frame;
    frame.mediaUs = mediaUs;
    frame.peek = peek;
    int64_t frameNo = 0;
    {
        tv::WaitLock lock(mLock);
        if (!mFreed.wait_for(lock.forWait(), std::chrono::microseconds(waitUs),
                             [this]() KORVANE_REQUIRES(mLock) { return !mFree.empty(); })) {
            return -1;
        }
        frame.buffer = mFree.front();
        mFree.pop_front();
        frame.flushed = mFlushing > 0;
        frameNo = mRecord.firstFrame + static_cast<int64_t>(mRecord.frames.size());
        mRecord.frames.push_back(frame);
    }
    mBuffers.fill(frame.buffer, frameNo, mediaUs);
    return mBuffers.fd(frame.buffer);
}

void FrameAccount::endSend(int fd) {
    const std::lock_guard<std::mutex> guard(mLock);
    frameIn(fd)->afterStop = mRecord.stopBeganNs < INT64_MAX;
}

int64_t FrameAccount::lastMediaUs() {
    const std::lock_guard<std::mutex> guard(mLock);
    return mRecord.frames.empty() ? 0 : mRecord.frames.back().mediaUs;
}

/// The frame sent last in this buffer; null if none was.
SentFrame* FrameAccount::frameIn(int fd) {
    const auto found =
        std::find_if(mRecord.frames.rbegin(), mRecord.frames.rend(),
                     [&](const SentFrame& frame) { return mBuffers.fd(frame.buffer) == fd; });
    return found != mRecord.frames.rend() ? &*found : nullptr;
}

void FrameAccount::back(int fd, By by) {
    const std::lock_guard<std::mutex> guard(mLock);
    SentFrame* const frame = frameIn(fd);
    if (frame == nullptr) {
        ++mRecord.unknownBuffers;
        return;
    }
    frame->returns0 += by == By::Beside ? 1 : 0;
    frame->taken += by == By::Player ? 1 : 0;
    frame->returns += by != By::Beside ? 1 : 0;
    if (by == By::Beside || frame->returns > 1) {
        return;
    }
    frame->backNs = tv::nowNs();
    frame->rendered = by == By::Rendered;
    frame->dropped = by == By::Dropped;
    frame->dueUs = mAnchorRealUs >= 0 ? mAnchorRealUs + frame->mediaUs - mAnchorMediaUs : -1;
    if (mReuses) {
        mFree.push_back(frame->buffer);
        mFreed.notify_all();
    }
}

/// Of frames of the same media time, it is the first that has none.
void FrameAccount::reported(int64_t mediaUs, int64_t renderUs) {
    const std::lock_guard<std::mutex> guard(mLock);
    SentFrame* found = nullptr;
    for (auto& frame : mRecord.frames) {
        if (frame.mediaUs == mediaUs && (found == nullptr || found->reports > 0)) {
            found = found == nullptr || frame.reports == 0 ? &frame : found;
        }
    }
    if (found == nullptr || renderUs > tv::nowNs() / 1000) {
        ++mRecord.brokenReports;
        return;
    }
    ++found->reports;
}

void FrameAccount::beginFlush() {
    const std::lock_guard<std::mutex> guard(mLock);
    ++mFlushing;
    ++mRecord.flushes;
    mAnchorRealUs = -1;
    for (auto& frame : mRecord.frames) {
        frame.flushed = frame.flushed || frame.backNs < 0;
    }
}

void FrameAccount::endFlush() {
    const std::lock_guard<std::mutex> guard(mLock);
    --mFlushing;
}

void FrameAccount::anchored(int64_t mediaUs, int64_t realUs) {
    const std::lock_guard<std::mutex> guard(mLock);
    mAnchorRealUs = realUs;
    mAnchorMediaUs = mediaUs;
}

void FrameAccount::started() {
    const std::lock_guard<std::mutex> guard(mLock);
    mRuns = true;
    mStopped = false;
}

void FrameAccount::beginStop() {
    const std::lock_guard<std::mutex> guard(mLock);
    mStopBeganNs = tv::nowNs();
    if (mRuns) {
        mRecord.stopBeganNs = std::min(mRecord.stopBeganNs, mStopBeganNs);
    }
}

void FrameAccount::stopped(bool deleted) {
    const std::lock_guard<std::mutex> guard(mLock);
    mRecord.stopTookNs = std::max(mRecord.stopTookNs, tv::nowNs() - mStopBeganNs);
    mStopped = true;
    mDeleted = deleted;
    mRuns = false;
}

bool FrameAccount::runs() {
    const std::lock_guard<std::mutex> guard(mLock);
    return mRuns;
}

void FrameAccount::calledBack(bool insideOwnCall) {
    const std::lock_guard<std::mutex> guard(mLock);
    mRecord.lateCallbacks += mDeleted || (mStopped && !insideOwnCall) ? 1 : 0;
}

bool FrameAccount::settled(int held) {
    const std::lock_guard<std::mutex> guard(mLock);
    const auto out = std::count_if(mRecord.frames.begin(), mRecord.frames.end(),
                                   [](const SentFrame& frame) { return frame.backNs < 0; });
    return out <= std::min(held, 2);
}

std::string FrameAccount::missing(const std::vector<tv::BufferRecord>& tunnel) {
    const std::lock_guard<std::mutex> guard(mLock);
    if (mRecord.refuses || mRecord.stopBeganNs < INT64_MAX) {
        return "";
    }
    std::set<int64_t> inTunnel;
    for (const auto& buffer : tunnel) {
        if (buffer.takenBackNs == 0 || mRecord.keeps) {
            inTunnel.insert(buffer.frameNo - mRecord.firstFrame);
        }
    }
    std::string text;
    for (size_t i = 0; i < mRecord.frames.size(); ++i) {
        if (mRecord.frames[i].backNs < 0 && inTunnel.count(static_cast<int64_t>(i)) == 0) {
            text += fmt::format(" {}", i);
        }
    }
    return text;
}

void FrameAccount::note(Fault fault) {
    const std::lock_guard<std::mutex> guard(mLock);
    mRecord.noted.push_back(std::move(fault));
}

RunRecord FrameAccount::take() {
    const std::lock_guard<std::mutex> guard(mLock);
    return std::move(mRecord);
}

}  // namespace korvane::player
