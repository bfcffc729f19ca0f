// What the process logs under one tag while this object lives, as "I text" with the priority's
// letter (D, I, E) and the text as formatted. One at a time: the TV has one observer. From the
// first one on the process writes no log to stderr.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tv/Platform.h"

namespace korvane::test {

class LogCapture {
public:
    explicit LogCapture(std::string tag) : mTag(std::move(tag)) {
        constexpr int kNothing = 8;
        tv::openLog(kNothing);
        tv::observeLog([this](const tv::LogLine& line) {
            if (line.tag == mTag) {
                add(std::string(1, "??VDIWEF?"[line.priority]) + " " + line.text);
            }
        });
    }
    ~LogCapture() { tv::observeLog(nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Adds a line of the test's own, to see what came before and after it.
    void add(std::string line) {
        const std::lock_guard<std::mutex> lock(mLock);
        mLines.push_back(std::move(line));
    }
    /// The lines since the last call.
    std::vector<std::string> take() {
        const std::lock_guard<std::mutex> lock(mLock);
        return std::exchange(mLines, {});
    }

private:
    const std::string mTag;
    std::mutex mLock;
    std::vector<std::string> mLines;
};

/// Sets the log mask that the next wrapper to be constructed reads.
inline void setLogMaskProperty(int mask) {
    tv::setProperty("vendor.korvane.loglevels", std::to_string(mask));
}

}  // namespace korvane::test
