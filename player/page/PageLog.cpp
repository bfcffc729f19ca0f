// SPDX-License-Identifier: Apache-2.0
#include "player/page/PageLog.h"

#include "player/report/EventLine.h"
#include "player/report/PatternLog.h"

namespace korvane::player {
namespace {

/// Lines kept of each kind, of all kinds, and changes of the pattern.
constexpr int64_t kKeptOfKind = 100;
constexpr size_t kKeptLines = 5'000;
constexpr size_t kKeptPatterns = 100'000;

}  // namespace

void PageLog::add(const tv::LogLine& line, int64_t nowNs) {
    const auto pattern = patternFromLog(line);
    const std::string kind =
        std::to_string(line.priority) + line.tag + ' ' + withoutNumbers(line.text);
    const std::lock_guard<std::mutex> guard(mLock);
    if (pattern) {
        setPattern(nowNs, *pattern);
    }
    if (mLines.size() >= kKeptLines && mKinds.count(kind) == 0) {
        ++mLeft;
        return;
    }
    Kind& of = mKinds[kind];
    if (of.lines++ < kKeptOfKind && mLines.size() < kKeptLines) {
        of.last = mLines.size();
        mLines.push_back({nowNs, line, 0});
    } else {
        ++mLines[of.last].more;
    }
}

void PageLog::restartPattern(int64_t nowNs) {
    const std::lock_guard<std::mutex> guard(mLock);
    setPattern(nowNs, "");
}

void PageLog::setPattern(int64_t nowNs, const std::string& name) {
    const std::string now = mPatterns.empty() ? "" : mPatterns.back().name;
    if (name != now && mPatterns.size() < kKeptPatterns) {
        mPatterns.push_back({nowNs, name});
    }
}

std::vector<KeptLine> PageLog::lines() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mLines;
}

std::vector<PatternInForce> PageLog::patterns() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mPatterns;
}

int64_t PageLog::left() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mLeft;
}

}  // namespace korvane::player
