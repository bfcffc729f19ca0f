// SPDX-License-Identifier: Apache-2.0
#include "player/media/PipeInput.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "player/base/Errors.h"

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

namespace korvane::player {
namespace {

constexpr int kBufferBytes = 64 * 1024;
/// How often a wait for data checks whether playback is interrupted.
constexpr timespec kLookAgain{0, 50'000'000};

/// Waits in the kernel. In virtual time `poll` as libc's would let simulated time pass, and
/// playback would depend on how fast the data arrive.
/// @return false when it is time to look again
bool hasData(int descriptor) {
    pollfd wanted{descriptor, POLLIN, 0};
    timespec wait = kLookAgain;
    return syscall(SYS_ppoll, &wanted, 1, &wait, nullptr, 0) > 0;
}

}  // namespace

PipeInput::PipeInput(const std::string& name, std::function<bool()> interrupted,
                     std::function<int64_t()> patienceUs)
    : mInterrupted(std::move(interrupted)), mPatienceUs(std::move(patienceUs)) {
    const bool standardInput = name == "-" || name.rfind("pipe:", 0) == 0;
    if (standardInput && isatty(STDIN_FILENO) != 0) {
        throw InputError("standard input is a terminal; write a film into it: cat FILM | ...");
    }
    // Without blocking: a named pipe without a writer would keep the player from being interrupted.
    mFd = standardInput ? STDIN_FILENO : open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (mFd < 0) {
        throw InputError("cannot open '" + name + "': " + std::generic_category().message(errno) +
                         "; give a file or a pipe that can be read");
    }
    mOwned = !standardInput;
    auto* buffer = static_cast<unsigned char*>(av_malloc(kBufferBytes));
    mContext = avio_alloc_context(buffer, kBufferBytes, 0, this, read, nullptr, nullptr);
    mContext->seekable = 0;
}

PipeInput::~PipeInput() {
    av_freep(&mContext->buffer);
    avio_context_free(&mContext);
    if (mOwned) {
        close(mFd);
    }
}

int PipeInput::read(void* self, uint8_t* data, int bytes) {
    auto& input = *static_cast<PipeInput*>(self);
    const int64_t patienceUs = input.mPatienceUs();
    for (int64_t waitedUs = 0;;) {
        if (input.mInterrupted && input.mInterrupted()) {
            return AVERROR_EXIT;
        }
        if (input.mFellSilent) {
            return AVERROR_EOF;
        }
        if (!hasData(input.mFd)) {
            waitedUs += kLookAgain.tv_nsec / 1000;
            input.mFellSilent = waitedUs > patienceUs;
            continue;
        }
        const ssize_t count = ::read(input.mFd, data, static_cast<size_t>(bytes));
        if (count > 0) {
            input.mSomethingCame = true;
            return static_cast<int>(count);
        }
        if (count == 0) {
            return AVERROR_EOF;
        }
        if (errno != EAGAIN && errno != EINTR) {
            return AVERROR(errno);
        }
    }
}

}  // namespace korvane::player
