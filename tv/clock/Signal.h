// SPDX-License-Identifier: Apache-2.0
// A descriptor that signals once, as a release fence does: a pipe's read end, opened for reading
// only and without flags, which belongs to whoever takes it.
//
// In real time each signal has a pipe of its own; closing its write end signals. A pipe costs the
// kernel more than all else that becomes of a frame, so in virtual time pipes serve again: takers
// get duplicates of a read end that stays here, and a byte in the pipe signals. Once the taker has
// closed, the byte is read out and the pipe is free. The virtual gear sees every close and every
// duplication (Interpose.cpp); when a taker's descriptor was duplicated, the pipe is given up
// instead, and whoever holds a duplicate sees it signalled for good.
#pragma once

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
    int taken = -1;           ///< the taker's descriptor; -1: closed
    bool toCome = false;      ///< not signalled yet
    bool holdsByte = false;   ///< signalled so that the kernel shows it
    bool duplicated = false;  ///< somebody duplicated the taker's descriptor
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

// What the virtual gear notices of the process's descriptors.

/// The pipe whose taker has this descriptor, or null.
SignalPipe* signalTakenAs(int descriptor);
void noteClosed(int descriptor);
void noteDuplicated(int descriptor);
/// From here on nothing will be noticed.
void forgetSignalTakers();

}  // namespace korvane::tv
