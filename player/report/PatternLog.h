// SPDX-License-Identifier: Apache-2.0
// Which pattern the renderer has in force, by its own log: it says when ten frames have put one in
// force, when a frame breaks it, and, of a pattern that must be corrected, each time which it is. A
// flush ends a pattern without a word.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "tv/Log.h"

namespace korvane::player {

/// What a line says is in force from now on, "[3:2]" or "" for none; nothing: it says nothing of
/// it.
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
