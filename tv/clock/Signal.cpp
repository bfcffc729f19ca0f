// SPDX-License-Identifier: Apache-2.0
#include "tv/clock/Signal.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "tv/clock/VirtualTime.h"

namespace korvane::tv {
namespace {

/// By the taker's descriptor. Never destroyed: descriptors are closed until the process has ended.
std::vector<SignalPipe*>& takers() {
    static auto& pipes = *new std::vector<SignalPipe*>;
    return pipes;
}

void setTaker(int descriptor, SignalPipe* pipe) {
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

void takeBackIfOver(SignalPipe* pipe) {
    if (!pipe->toCome && pipe->taken < 0) {
        pipe->home.takeBack(pipe);
    }
}

}  // namespace

Signal::~Signal() {
    if (mPipe == nullptr) {
        return;  // the write end, if there is one, is closed
    }
    mPipe->toCome = false;
    if (mPipe->shown) {
        mPipe->writeEnd.reset();
    }
    if (mPipe->taken >= 0) {
        wakePollers();
    }
    takeBackIfOver(mPipe);
}

SignalPipes::~SignalPipes() {
    for (const auto& pipe : mPipes) {
        if (pipe->taken >= 0) {
            setTaker(pipe->taken, nullptr);
        }
    }
}

int SignalPipes::make(Signal* signal, int* taken) {
    if (!VirtualTime::active()) {
        UniqueFd readEnd;
        UniqueFd writeEnd;
        const int result = makePipe(&readEnd, &writeEnd);
        *signal = Signal(std::move(writeEnd));
        *taken = readEnd.release();
        return result;
    }
    if (mFree.empty()) {
        auto pipe = std::make_unique<SignalPipe>(SignalPipe{*this, {}, {}});
        if (const int result = makePipe(&pipe->readEnd, &pipe->writeEnd); result < 0) {
            return result;
        }
        mFree.push_back(pipe.get());
        mPipes.push_back(std::move(pipe));
    }
    SignalPipe* const pipe = mFree.back();
    const int descriptor = fcntl(pipe->readEnd.get(), F_DUPFD_CLOEXEC, 0);
    if (descriptor < 0) {
        return -errno;
    }
    noteClosed(descriptor);  // if a taker of this number closed it unseen
    mFree.pop_back();
    setTaker(descriptor, pipe);
    pipe->taken = descriptor;
    pipe->toCome = true;
    *signal = Signal(pipe);
    *taken = descriptor;
    return 0;
}

void SignalPipes::takeBack(SignalPipe* pipe) {
    if (!pipe->shown) {
        mFree.push_back(pipe);
        return;
    }
    mPipes.erase(std::find_if(mPipes.begin(), mPipes.end(),
                              [pipe](const auto& other) { return other.get() == pipe; }));
}

SignalPipe* signalTakenAs(int descriptor) {
    const auto index = static_cast<size_t>(descriptor);
    return index < takers().size() ? takers()[index] : nullptr;
}

void noteClosed(int descriptor) {
    if (SignalPipe* const pipe = signalTakenAs(descriptor)) {
        setTaker(descriptor, nullptr);
        pipe->taken = -1;
        takeBackIfOver(pipe);
    }
}

void noteKernelAsked(int descriptor) {
    SignalPipe* const pipe = signalTakenAs(descriptor);
    if (pipe == nullptr) {
        return;
    }
    pipe->shown = true;
    if (!pipe->toCome) {
        pipe->writeEnd.reset();
    }
}

void noteKernelAsked(pollfd* descriptors, nfds_t count) {
    for (nfds_t i = 0; i < count; ++i) {
        noteKernelAsked(descriptors[i].fd);
    }
}

void forgetSignalTakers() {
    for (size_t i = 0; i < takers().size(); ++i) {
        noteKernelAsked(static_cast<int>(i));
        noteClosed(static_cast<int>(i));
    }
}

}  // namespace korvane::tv
