// SPDX-License-Identifier: Apache-2.0
// The file of a trace: takes whole packets, so that it can be read at any moment. On a full disk
// the file keeps only whole ones; a kill may cut the last, which readers leave out.
#pragma once

#include <cstdint>
#include <string>

#include "tv/UniqueFd.h"

namespace korvane::tv {

/// One thread at a time.
class TraceFile {
public:
    /// Creates or empties the file.
    void open(const std::string& path);
    /// Writes packets that hold so many events. After a failure the file keeps what was written
    /// before, and later events are only counted.
    void write(const std::string& packets, int64_t events);
    void close();

    int64_t written() const { return mWritten; }
    /// Events that are not in the file because of a failure.
    int64_t lost() const { return mLost; }
    /// Empty, or one line on what failed.
    const std::string& failure() const { return mFailure; }

private:
    void fail(const char* action, int error);

    std::string mPath;
    UniqueFd mFd;
    int64_t mFileBytes = 0;
    int64_t mWritten = 0;
    int64_t mLost = 0;
    std::string mFailure;
};

}  // namespace korvane::tv
