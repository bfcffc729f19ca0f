// SPDX-License-Identifier: Apache-2.0
#include "tv/TraceFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace korvane::tv {

void TraceFile::open(const std::string& path) {
    mPath = path;
    mFd = UniqueFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (mFd.get() < 0) {
        fail("cannot create trace file", errno);
    }
}

void TraceFile::write(const std::string& packets, int64_t events) {
    size_t done = 0;
    while (mFd.get() >= 0 && done < packets.size()) {
        const ssize_t count = ::write(mFd.get(), packets.data() + done, packets.size() - done);
        if (count >= 0) {
            done += static_cast<size_t>(count);
        } else if (errno != EINTR) {
            fail("cannot write", errno);
        }
    }
    mFileBytes += static_cast<int64_t>(done);
    (mFd.get() >= 0 ? mWritten : mLost) += events;
}

void TraceFile::close() {
    if (mFd.get() >= 0 && ::close(mFd.release()) != 0) {
        fail("cannot close trace file", errno);
    }
}

void TraceFile::fail(const char* action, int error) {
    if (mFd.get() >= 0) {
        // Cuts off a half-written packet. A pipe cannot be cut, and has no contents to keep whole.
        [[maybe_unused]] const int result = ftruncate(mFd.get(), mFileBytes);
        mFd = UniqueFd();
    }
    mFailure = std::string(action) + " " + mPath + ": " + std::generic_category().message(error);
}

}  // namespace korvane::tv
