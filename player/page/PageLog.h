// SPDX-License-Identifier: Apache-2.0
// What the page keeps of the library's log, in bounded memory: the first lines of each kind, and
// how many more came. Lines that differ only in numbers are of one kind. The patterns that the
// library announces are kept apart. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "tv/Log.h"

namespace korvane::player {

struct KeptLine {
    int64_t timeNs = 0;
    tv::LogLine line;
    int64_t more = 0;  ///< further lines of this kind that were not kept
};

/// From `timeNs` on the library has this pattern in force.
struct PatternInForce {
    int64_t timeNs = 0;
    std::string name;  ///< "[3:2]"; empty: none
};

class PageLog {
public:
    void add(const tv::LogLine& line, int64_t nowNs);
    /// The library has reset its tracker: it has no pattern until it logs one.
    void restartPattern(int64_t nowNs);

    std::vector<KeptLine> lines() const;
    std::vector<PatternInForce> patterns() const;
    /// Lines whose kind came too late to be kept at all.
    int64_t left() const;

private:
    void setPattern(int64_t nowNs, const std::string& name) KORVANE_REQUIRES(mLock);

    struct Kind {
        int64_t lines = 0;
        size_t last = 0;  ///< index of the last one kept
    };
    mutable std::mutex mLock;
    std::map<std::string, Kind> mKinds KORVANE_GUARDED_BY(mLock);
    std::vector<KeptLine> mLines KORVANE_GUARDED_BY(mLock);
    std::vector<PatternInForce> mPatterns KORVANE_GUARDED_BY(mLock);
    int64_t mLeft KORVANE_GUARDED_BY(mLock) = 0;
};

}  // namespace korvane::player
