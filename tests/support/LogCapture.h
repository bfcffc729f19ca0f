// SPDX-License-Identifier: Apache-2.0
// Captures what the process logs while this object exists, each line as "I text": the priority's
// letter (D, I, E) and the formatted text. Only one at a time, because the TV has one observer.
// After the first one the process writes no log to stderr any more.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tv/Log.h"
#include "tv/Properties.h"

namespace korvane::test {

using Lines = std::vector<std::string>;

class LogCapture {
public:
    /// @param tag  captures only lines with this tag; empty: all lines
    explicit LogCapture(const std::string& tag = "") {
        constexpr int kNothing = 8;
        tv::openLog(kNothing);
        tv::observeLog([this, tag](const tv::LogLine& line) {
            if (tag.empty() || line.tag == tag) {
                add("??VDIWEF?"[line.priority] + (" " + line.text));
            }
        });
    }
    ~LogCapture() { tv::observeLog(nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Adds a line of the test's own, to see which lines came before and after it.
    void add(std::string line) {
        const std::lock_guard<std::mutex> guard(mLock);
        mLines.push_back(std::move(line));
    }
    /// The lines since the last call.
    Lines take() {
        const std::lock_guard<std::mutex> guard(mLock);
        return std::exchange(mLines, {});
    }
    /// How many lines not yet taken contain a text.
    int64_t count(const std::string& text) const {
        const std::lock_guard<std::mutex> guard(mLock);
        return std::count_if(mLines.begin(), mLines.end(), [&](const std::string& line) {
            return line.find(text) != std::string::npos;
        });
    }

private:
    mutable std::mutex mLock;
    Lines mLines;
};

/// Sets the log mask that objects constructed from now on read.
inline void setLogMask(int mask) {
    tv::setProperty("vendor.korvane.loglevels", std::to_string(mask));
}

}  // namespace korvane::test
