// SPDX-License-Identifier: Apache-2.0
// Watches the log of a playback: counts the lines that a scenario expects, and puts errors into the
// event log. Lines come on any thread.
#pragma once

#include <mutex>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "player/report/EventLog.h"
#include "player/scenario/Expectation.h"
#include "player/scenario/Scenario.h"
#include "tv/Log.h"

namespace korvane::player {

class LogWatch {
public:
    /// Both must outlive it.
    /// @param events  null: errors go into no event log
    LogWatch(const std::vector<LogExpectation>& wanted, EventLog* events)
        : mWanted(wanted), mEvents(events), mCounts(wanted.size()) {}

    void see(const tv::LogLine& line);
    /// One count for each expectation, with times since `start`.
    std::vector<LogCount> counts(int64_t startNs) const;

private:
    const std::vector<LogExpectation>& mWanted;
    EventLog* const mEvents;
    mutable std::mutex mLock;
    std::vector<LogCount> mCounts KORVANE_GUARDED_BY(mLock);
};

}  // namespace korvane::player
