// SPDX-License-Identifier: Apache-2.0
#include "tv/clock/FencePipe.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "tv/clock/VirtualTime.h"

namespace korvane::tv {
namespace {

/// By the taker's descriptor. Never destroyed: descriptors are closed until the process has ended.
std::vector<PooledPipe*>& takers() {
    static auto& pipes = *new std::vector<PooledPipe*>;
    return pipes;
}

void setTaker(int descriptor, PooledPipe* pipe) {
    const auto index = static_cast<size_t>(descriptor);
    if (index >= takers().size()) {
        takers().resize(index + 1);
    }
    takers()[index] = pipe;
}

int makePipe(UniqueFd* readEnd, UniqueFd* writeEnd) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return -errno;
    }
    *readEnd = UniqueFd(ends[0]);
    *writeEnd = UniqueFd(ends[1]);
    return 0;
}

void takeBackIfFree(PooledPipe* pipe) {
    if (!pipe->pending && pipe->taken < 0) {
        pipe->pool.takeBack(pipe);
    }
}

}  // namespace

FencePipe::~FencePipe() {
    if (mPooled == nullptr) {
        return;  // the member's destructor closes the write end
    }
    mPooled->pending = false;
    if (mPooled->kernelAsked) {
        mPooled->writeEnd.reset();
    }
    if (mPooled->taken >= 0) {
        wakePollers();
    }
    takeBackIfFree(mPooled);
}

FencePipes::~FencePipes() {
    for (const auto& pipe : mPipes) {
        if (pipe->taken >= 0) {
            setTaker(pipe->taken, nullptr);
        }
    }
}

int FencePipes::make(FencePipe* pipe, int* taken) {
    if (!VirtualTime::active()) {
        UniqueFd readEnd;
        UniqueFd writeEnd;
        const int result = makePipe(&readEnd, &writeEnd);
        *pipe = FencePipe(std::move(writeEnd));
        *taken = readEnd.release();
        return result;
    }
    if (mFree.empty()) {
        auto made = std::make_unique<PooledPipe>(PooledPipe{*this, {}, {}});
        if (const int result = makePipe(&made->readEnd, &made->writeEnd); result < 0) {
            return result;
        }
        mFree.push_back(made.get());
        mPipes.push_back(std::move(made));
    }
    PooledPipe* const pooled = mFree.back();
    const int descriptor = fcntl(pooled->readEnd.get(), F_DUPFD_CLOEXEC, 0);
    if (descriptor < 0) {
        return -errno;
    }
    noteClosed(descriptor);  // in case an earlier taker of this number closed it unseen
    mFree.pop_back();
    setTaker(descriptor, pooled);
    pooled->taken = descriptor;
    pooled->pending = true;
    *pipe = FencePipe(pooled);
    *taken = descriptor;
    return 0;
}

void FencePipes::takeBack(PooledPipe* pooled) {
    if (!pooled->kernelAsked) {
        mFree.push_back(pooled);
        return;
    }
    mPipes.erase(std::find_if(mPipes.begin(), mPipes.end(),
                              [pooled](const auto& other) { return other.get() == pooled; }));
}

PooledPipe* pooledPipeAt(int descriptor) {
    const auto index = static_cast<size_t>(descriptor);
    return index < takers().size() ? takers()[index] : nullptr;
}

void noteClosed(int descriptor) {
    if (PooledPipe* const pipe = pooledPipeAt(descriptor)) {
        setTaker(descriptor, nullptr);
        pipe->taken = -1;
        takeBackIfFree(pipe);
    }
}

void noteKernelAsked(int descriptor) {
    PooledPipe* const pipe = pooledPipeAt(descriptor);
    if (pipe == nullptr) {
        return;
    }
    pipe->kernelAsked = true;
    if (!pipe->pending) {
        pipe->writeEnd.reset();
    }
}

void noteKernelAsked(const pollfd* descriptors, nfds_t count) {
    for (nfds_t i = 0; i < count; ++i) {
        noteKernelAsked(descriptors[i].fd);
    }
}

void forgetPooledPipes() {
    for (size_t i = 0; i < takers().size(); ++i) {
        noteKernelAsked(static_cast<int>(i));
        noteClosed(static_cast<int>(i));
    }
}

}  // namespace korvane::tv
