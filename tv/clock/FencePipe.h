// SPDX-License-Identifier: Apache-2.0
// A release fence's pipe: the taker gets the read end, opened for reading only and without flags;
// the fence signals when the write end is closed.
//
// In virtual time pipes are pooled, because a new one for each fence costs the kernel more than the
// rest of a frame. Measured with scenarios/soak-24h.toml: 28 s of CPU time with the pool, 35 s
// without. A taker gets a duplicate of a read end that stays in the pool. The scheduler's `poll`
// reads the fence's state from the pool; the write end is closed only once the kernel is asked: by
// a read, by a poll of several descriptors, through a duplicate. InterposeDescriptors.cpp reports
// these, and every close, through the functions at the end of this file; the rest of the clock
// knows nothing else of the pool. A pipe whose write end is closed is not used again.
#pragma once

#include <poll.h>

#include <memory>
#include <utility>
#include <vector>

#include "tv/UniqueFd.h"

namespace korvane::tv {

class FencePipes;

/// A pipe of the pool. Free while it has neither a taker nor a pending fence.
struct PooledPipe {
    FencePipes& pool;
    UniqueFd readEnd;
    UniqueFd writeEnd;
    int taken = -1;            ///< the taker's descriptor; -1: closed
    bool pending = false;      ///< not signalled yet
    bool kernelAsked = false;  ///< the fence signals by closing the write end
};

/// The signalling end of a fence. Its destructor signals.
class FencePipe {
public:
    FencePipe() = default;
    explicit FencePipe(UniqueFd writeEnd) : mWriteEnd(std::move(writeEnd)) {}
    explicit FencePipe(PooledPipe* pooled) : mPooled(pooled) {}
    FencePipe(FencePipe&& other) noexcept
        : mWriteEnd(std::move(other.mWriteEnd)), mPooled(std::exchange(other.mPooled, nullptr)) {}
    FencePipe& operator=(FencePipe&& other) noexcept {
        std::swap(mWriteEnd, other.mWriteEnd);
        std::swap(mPooled, other.mPooled);
        return *this;
    }
    FencePipe(const FencePipe&) = delete;
    FencePipe& operator=(const FencePipe&) = delete;
    ~FencePipe();

private:
    UniqueFd mWriteEnd;
    PooledPipe* mPooled = nullptr;
};

/// Makes fence pipes and owns the pool; outlives its pipes. One thread at a time.
class FencePipes {
public:
    FencePipes() = default;
    ~FencePipes();
    FencePipes(const FencePipes&) = delete;
    FencePipes& operator=(const FencePipes&) = delete;

    /// @param taken  receives the read end, which the taker owns
    /// @return 0, or an error number negated
    int make(FencePipe* pipe, int* taken);

    void takeBack(PooledPipe* pooled);

private:
    std::vector<std::unique_ptr<PooledPipe>> mPipes;
    std::vector<PooledPipe*> mFree;
};

/// Every fiber that polls looks again. Nothing in real time.
void wakePollers();

// Virtual time's reports about the process's descriptors.

/// The pooled pipe whose taker has this descriptor, or null.
PooledPipe* pooledPipeAt(int descriptor);
void noteClosed(int descriptor);
/// From here on the kernel must know whether the fence has signalled.
void noteKernelAsked(int descriptor);
void noteKernelAsked(const pollfd* descriptors, nfds_t count);
/// Virtual time ends: nothing is reported any more.
void forgetPooledPipes();

}  // namespace korvane::tv
