// SPDX-License-Identifier: Apache-2.0
// This library's `__android_log_print` takes precedence over liblog's. A line is formatted once,
// passed to the observer and, if its priority is high enough, to liblog. Libraries also log while
// they are being loaded, before `openLog` can be called, and while they are being unloaded. So the
// first line creates the state, which is never destroyed, and early lines are kept until `openLog`
// or exit.
#include "tv/Log.h"

#include <android/log.h>

#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "tv/Observer.h"
#include "tv/Trace.h"

namespace korvane::tv {
namespace {

/// liblog's limit for a line, the terminating zero included.
constexpr size_t kLongestLine = 1024;
constexpr size_t kKeptLines = 256;
constexpr int kNotOpen = -1;
/// Kinds of lines that are counted; lines of further kinds are written as they come.
constexpr size_t kSummedLines = 256;

/// Lines that differ only in numbers, counted as one kind.
struct Repeated {
    LogLine first;
    int64_t more = 0;  ///< after the first one
};

struct LogState {
    std::atomic<int> lowestPriority{kNotOpen};
    Observer<const LogLine&> observer;
    std::mutex lock;
    std::vector<LogLine> kept KORVANE_GUARDED_BY(lock);
    size_t notKept KORVANE_GUARDED_BY(lock) = 0;
    bool summing KORVANE_GUARDED_BY(lock) = false;
    std::map<std::string, Repeated> repeated KORVANE_GUARDED_BY(lock);
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
    // liblog adds a newline; as in logcat, a line that ends with one gets no second.
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

/// The line with each of its numbers as "#".
std::string withoutNumbers(const LogLine& line) {
    std::string text = line.tag + ' ';
    for (const char c : line.text) {
        const bool digit = std::isdigit(static_cast<unsigned char>(c)) != 0;
        if (!digit || text.back() != '#') {
            text += digit ? '#' : c;
        }
    }
    return text;
}

/// Counts a line like one that has been written, while lines are summed.
bool sumUp(LogState& log, const LogLine& line) {
    const std::lock_guard<std::mutex> guard(log.lock);
    if (!log.summing) {
        return false;
    }
    const std::string text = withoutNumbers(line);
    const auto found = log.repeated.find(text);
    if (found != log.repeated.end()) {
        ++found->second.more;
        return true;
    }
    if (log.repeated.size() < kSummedLines) {
        log.repeated.emplace(text, Repeated{line});
    }
    return false;
}

/// "17,782"
std::string grouped(int64_t count) {
    std::string text = std::to_string(count);
    for (size_t end = text.size(); end > 3; end -= 3) {
        text.insert(end - 3, ",");
    }
    return text;
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
    traceLog({line.priority, line.tag, line.text});
    if (!keep(log, line) && priority >= log.lowestPriority && !sumUp(log, line)) {
        write(line);
    }
    return static_cast<int>(line.text.size());
}

/// Whether a line of this priority is written, observed or recorded.
bool wanted(int priority) {
    const LogState& log = state();
    return priority >= log.lowestPriority || log.observer.present() || recordingTrace();
}

}  // namespace

void openLog(int lowestPriority) {
    LogState& log = state();
    // liblog's own threshold, info on a host, must not hide lines below it.
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

void beginSums() {
    LogState& log = state();
    const std::lock_guard<std::mutex> guard(log.lock);
    log.summing = true;
}

void endSums() {
    LogState& log = state();
    const std::lock_guard<std::mutex> guard(log.lock);
    for (const auto& [text, repeated] : log.repeated) {
        if (repeated.more > 0) {
            const LogLine& line = repeated.first;
            write({line.priority, line.tag,
                   "... " + grouped(repeated.more) + " more like this: " + line.text});
        }
    }
    log.repeated.clear();
    log.summing = false;
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
