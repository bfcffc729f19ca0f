// SPDX-License-Identifier: Apache-2.0
// A descriptor that signals once, as a release fence does: a pipe's read end, opened for reading
// only and without flags, which belongs to whoever takes it.
//
// It signals when the write end is closed. A pipe of its own for each signal costs the kernel more
// than all else that becomes of a frame, so in virtual time pipes serve again, and takers get
// duplicates of a read end that stays here. Whoever polls there is told by the virtual gear; the
// kernel, which knows nothing of it, is shown the signal only from when it is asked: by a read, by
// a poll of several descriptors, through a duplicate (Interpose.cpp sees these, and every close).
// Such a pipe does not serve again.
#pragma once

#include <poll.h>

#include <memory>
#include <utility>
#include <vector>

#include "tv/UniqueFd.h"

namespace korvane::tv {

class SignalPipes;

/// A pipe of the virtual gear. Free while it has neither a taker nor a signal to come.
struct SignalPipe {
    SignalPipes& home;
    UniqueFd readEnd;
    UniqueFd writeEnd;
    int taken = -1;       ///< the taker's descriptor; -1: closed
    bool toCome = false;  ///< not signalled yet
    bool shown = false;   ///< to the kernel, which signals when the write end is closed
};

/// The sender's end. It signals when it goes.
class Signal {
public:
    Signal() = default;
    explicit Signal(UniqueFd writeEnd) : mWriteEnd(std::move(writeEnd)) {}
    explicit Signal(SignalPipe* pipe) : mPipe(pipe) {}
    Signal(Signal&& other) noexcept
        : mWriteEnd(std::move(other.mWriteEnd)), mPipe(std::exchange(other.mPipe, nullptr)) {}
    Signal& operator=(Signal&& other) noexcept {
        std::swap(mWriteEnd, other.mWriteEnd);
        std::swap(mPipe, other.mPipe);
        return *this;
    }
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;
    ~Signal();

private:
    UniqueFd mWriteEnd;
    SignalPipe* mPipe = nullptr;
};

/// Makes signals, and keeps the virtual gear's pipes for them; outlives its signals. One thread at
/// a time.
class SignalPipes {
public:
    SignalPipes() = default;
    ~SignalPipes();
    SignalPipes(const SignalPipes&) = delete;
    SignalPipes& operator=(const SignalPipes&) = delete;

    /// @param taken  receives the descriptor, the taker's from here on
    /// @return 0, or an error number negated
    int make(Signal* signal, int* taken);

    void takeBack(SignalPipe* pipe);

private:
    std::vector<std::unique_ptr<SignalPipe>> mPipes;
    std::vector<SignalPipe*> mFree;
};

/// The virtual gear's: whoever polls looks again.
void wakePollers();

// What the virtual gear notices of the process's descriptors.

/// The pipe whose taker has this descriptor, or null.
SignalPipe* signalTakenAs(int descriptor);
void noteClosed(int descriptor);
/// The kernel's view of it matters from here on.
void noteKernelAsked(int descriptor);
void noteKernelAsked(pollfd* descriptors, nfds_t count);
/// From here on nothing will be noticed.
void forgetSignalTakers();

}  // namespace korvane::tv
