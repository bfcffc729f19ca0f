// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/LogWatch.h"

#include "player/report/EventLine.h"
#include "tv/Tv.h"

namespace korvane::player {
namespace {

/// ANDROID_LOG_ERROR.
constexpr int kErrorPriority = 6;

}  // namespace

void LogWatch::see(const tv::LogLine& line) {
    const int64_t nowNs = tv::nowNs();
    if (line.priority >= kErrorPriority) {
        mEvents->add({nowNs, EventKind::Log, -1, line.priority, 0, withoutNumbers(line.text)});
    }
    const std::lock_guard<std::mutex> guard(mLock);
    for (size_t i = 0; i < mWanted.size(); ++i) {
        const bool loud = !mWanted[i].minimum || line.priority >= *mWanted[i].minimum;
        if (!loud || line.text.find(mWanted[i].text) == std::string::npos) {
            continue;
        }
        if (mCounts[i].lines++ == 0) {
            mCounts[i].first = line.text.substr(0, line.text.find_last_not_of('\n') + 1);
            mCounts[i].firstAtUs = nowNs;
        }
    }
}

std::vector<LogCount> LogWatch::counts(int64_t startNs) const {
    const std::lock_guard<std::mutex> guard(mLock);
    std::vector<LogCount> counts = mCounts;
    for (auto& count : counts) {
        count.firstAtUs = count.lines > 0 ? (count.firstAtUs - startNs) / 1000 : -1;
    }
    return counts;
}

}  // namespace korvane::player
