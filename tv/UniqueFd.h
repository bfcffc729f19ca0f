// SPDX-License-Identifier: Apache-2.0
// Owns a descriptor and closes it at destruction.
#pragma once

#include <unistd.h>

#include <utility>

namespace korvane::tv {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : mFd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(mFd, other.mFd);
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return mFd; }
    int release() { return std::exchange(mFd, -1); }
    void reset() {
        if (mFd >= 0) {
            close(std::exchange(mFd, -1));
        }
    }

private:
    int mFd = -1;
};

}  // namespace korvane::tv
