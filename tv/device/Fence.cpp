// SPDX-License-Identifier: Apache-2.0
// A wait is a poll, restarted with the remaining time when a signal interrupts it.
#include "ui/Fence.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace android {
namespace {

using Clock = std::chrono::steady_clock;

/// Milliseconds until a time, rounded up so that a wait never ends early.
int millisecondsUntil(Clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

const sp<Fence> Fence::NO_FENCE(new Fence);

Fence::Fence() = default;

Fence::Fence(int fenceFd) : mFenceFd(fenceFd) {}

Fence::~Fence() {
    if (isValid()) {
        ::close(mFenceFd);
    }
}

status_t Fence::wait(int timeoutMs) {
    if (!isValid()) {
        return NO_ERROR;
    }
    const bool forever = timeoutMs < 0;
    const auto end = Clock::now() + std::chrono::milliseconds(forever ? 0 : timeoutMs);
    pollfd poll{mFenceFd, POLLIN, 0};
    int leftMs = timeoutMs;
    int result = ::poll(&poll, 1, leftMs);
    while (result < 0 && (errno == EINTR || errno == EAGAIN)) {
        leftMs = forever ? TIMEOUT_NEVER : millisecondsUntil(end);
        result = ::poll(&poll, 1, leftMs);
    }
    if (result < 0) {
        return -errno;
    }
    if (result == 0) {
        return -ETIME;
    }
    return (poll.revents & (POLLERR | POLLNVAL)) != 0 ? -EINVAL : NO_ERROR;
}

int Fence::dup() const {
    return isValid() ? ::fcntl(mFenceFd, F_DUPFD_CLOEXEC, 0) : -1;
}

}  // namespace android
