// SPDX-License-Identifier: Apache-2.0
// A trace file in Chrome's trace-event JSON: an array, one event per line, written as it goes, so
// that memory stays bounded. The format allows the array's end to be missing: the file is readable
// at any moment, even after a kill or a full disk.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>

#include "tv/TraceRing.h"

namespace korvane::tv {

/// One thread at a time.
class TraceFile {
public:
    TraceFile() = default;
    ~TraceFile();
    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    /// Creates or empties the file.
    void open(const std::string& path);
    /// Formats an event into memory.
    void add(const TraceEvent& event);
    /// Names a track of slices; call it before its first slice.
    void addTrack(int32_t track, const std::string& name);
    /// Writes what was added. After a failure the file keeps the complete lines written before, and
    /// later events are only counted.
    void write();
    /// Writes, ends the array and closes.
    void finish();

    int64_t written() const { return mWritten; }
    /// Events that were added but are not in the file because of a failure.
    int64_t lost() const { return mLost; }
    /// Empty, or one line on what failed.
    const std::string& failure() const { return mFailure; }

private:
    void addLine(const nlohmann::ordered_json& event);
    void nameThread(int32_t thread, const std::string& name);
    void fail(const char* action, int error);

    std::string mPath;
    int mFd = -1;
    std::string mPending;
    int64_t mPendingEvents = 0;
    int64_t mWritten = 0;
    int64_t mLost = 0;
    std::string mFailure;
    int64_t mFileBytes = 0;
    bool mFirstLine = true;
    std::set<int32_t> mNamed;
};

}  // namespace korvane::tv
