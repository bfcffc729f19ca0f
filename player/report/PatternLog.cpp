// SPDX-License-Identifier: Apache-2.0
#include "player/report/PatternLog.h"

#include <algorithm>

namespace korvane::player {

std::optional<std::string> patternFromLog(const tv::LogLine& line) {
    const std::string& text = line.text;
    const auto has = [&text](const char* part) { return text.find(part) != std::string::npos; };
    if (line.tag != "VideoSyncFRAC") {
        return std::nullopt;
    }
    if (has(" broken") || has("hdmi frequency changed") || has("reset FRAC")) {
        return "";
    }
    // "[detectPattern]3:2 pattern detected"
    const size_t name = text.find(']') + 1;
    const size_t detected = text.find(" pattern detected");
    if (detected != std::string::npos && name <= detected) {
        return "[" + text.substr(name, detected - name) + "]";
    }
    // "[checkPattern] pattern [3:2] here may need ..."
    const size_t from = text.find("pattern [");
    const size_t to = from == std::string::npos ? from : text.find(']', from);
    if (to != std::string::npos && has("here may need")) {
        return text.substr(from + 8, to + 1 - (from + 8));
    }
    return std::nullopt;
}

void PatternLog::see(const tv::LogLine& line, int64_t nowUs) {
    const auto pattern = patternFromLog(line);
    if (!pattern) {
        return;
    }
    const bool correction = line.text.find("here may need") != std::string::npos;
    const std::lock_guard<std::mutex> guard(mLock);
    if (!correction || mChanges.empty() || mChanges.back().pattern != *pattern) {
        mChanges.push_back({nowUs, *pattern});
    }
}

std::string PatternLog::inForceAt(int64_t timeUs, int64_t sinceUs) const {
    const std::lock_guard<std::mutex> guard(mLock);
    const auto after =
        std::upper_bound(mChanges.begin(), mChanges.end(), timeUs,
                         [](int64_t time, const Change& change) { return time < change.atUs; });
    return after == mChanges.begin() || std::prev(after)->atUs < sinceUs
               ? ""
               : std::prev(after)->pattern;
}

}  // namespace korvane::player
