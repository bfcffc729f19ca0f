// SPDX-License-Identifier: Apache-2.0
// Which pattern the renderer has in force, by its own log: it logs when ten frames have put one in
// force, when a frame breaks it, and, each time that it corrects a frame, for which pattern. A
// flush ends a pattern without a log line.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "tv/Log.h"

namespace korvane::player {

/// The pattern that a line puts in force, "[3:2]" or "" for none; nothing: the line is about
/// something else.
std::optional<std::string> patternFromLog(const tv::LogLine& line);

/// Any thread.
class PatternLog {
public:
    /// Takes any line that was logged at a monotonic time.
    void see(const tv::LogLine& line, int64_t nowUs);
    /// "[3:2]"; empty: none, by what was logged from `sinceUs` on.
    std::string inForceAt(int64_t timeUs, int64_t sinceUs) const;

private:
    struct Change {
        int64_t atUs;
        std::string pattern;
    };
    mutable std::mutex mLock;
    std::vector<Change> mChanges KORVANE_GUARDED_BY(mLock);
};

}  // namespace korvane::player
