// SPDX-License-Identifier: Apache-2.0
// The log: this library's `__android_log_print` stands before liblog's. A line is formatted once,
// shown to the observer and passed to liblog when its priority is high enough. Libraries log while
// they are being loaded, before anybody could say what is to be written, and while they are being
// unloaded: the state is made by the first line and never destroyed, and the first lines are kept
// until `openLog` or the process's end.
#include <android/log.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "tv/Observer.h"
#include "tv/Platform.h"

namespace korvane::tv {
namespace {

/// liblog's own limit for a line, with the terminating zero.
constexpr size_t kLongestLine = 1024;
constexpr size_t kKeptLines = 256;
constexpr int kNotOpen = -1;

struct LogState {
    std::atomic<int> lowestPriority{kNotOpen};
    Observer<const LogLine&> observer;
    std::mutex lock;
    std::vector<LogLine> kept KORVANE_GUARDED_BY(lock);
    size_t notKept KORVANE_GUARDED_BY(lock) = 0;
};

void writeKeptAtExit();

LogState& state() {
    static LogState& instance = []() -> LogState& {
        std::atexit(writeKeptAtExit);
        return *new LogState;
    }();
    return instance;
}

void write(const LogLine& line) {
    // A line's own newline would leave an empty line on stderr; logcat, too, swallows it.
    const bool newline = !line.text.empty() && line.text.back() == '\n';
    const std::string text = newline ? line.text.substr(0, line.text.size() - 1) : line.text;
    __android_log_write(line.priority, line.tag.c_str(), text.c_str());
}

/// Keeps a line if the log is not open yet.
bool keep(LogState& log, const LogLine& line) {
    if (log.lowestPriority != kNotOpen) {
        return false;
    }
    const std::lock_guard<std::mutex> guard(log.lock);
    if (log.lowestPriority != kNotOpen) {
        return false;
    }
    if (log.kept.size() < kKeptLines) {
        log.kept.push_back(line);
    } else {
        ++log.notKept;
    }
    return true;
}

void writeKeptAtExit() {
    if (state().lowestPriority == kNotOpen) {
        openLog(ANDROID_LOG_DEBUG);
    }
}

int route(int priority, const char* tag, const char* text) {
    LogState& log = state();
    const LogLine line{priority, tag != nullptr ? tag : "", text};
    log.observer.call(line);
    if (!keep(log, line) && priority >= log.lowestPriority) {
        write(line);
    }
    return static_cast<int>(line.text.size());
}

/// Whether anybody wants a line of this priority.
bool wanted(int priority) {
    const LogState& log = state();
    return priority >= log.lowestPriority || log.observer.present();
}

}  // namespace

void openLog(int lowestPriority) {
    LogState& log = state();
    // liblog's own threshold, which is info on a host, must not hide what was asked for.
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    const std::lock_guard<std::mutex> guard(log.lock);
    for (const LogLine& line : log.kept) {
        if (line.priority >= lowestPriority) {
            write(line);
        }
    }
    if (log.notKept > 0 && lowestPriority <= ANDROID_LOG_INFO) {
        write({ANDROID_LOG_INFO, "tv",
               std::to_string(log.notKept) + " lines before the log was opened were not kept"});
    }
    log.kept.clear();
    log.notKept = 0;
    log.lowestPriority = lowestPriority;
}

void observeLog(std::function<void(const LogLine&)> observer) {
    state().observer.set(std::move(observer));
}

}  // namespace korvane::tv

extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...) {
    if (!korvane::tv::wanted(priority)) {
        return 0;
    }
    char text[korvane::tv::kLongestLine];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return korvane::tv::route(priority, tag, text);
}
