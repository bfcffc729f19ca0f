// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/FaultSchedule.h"

#include <algorithm>
#include <set>

namespace korvane::player {
namespace {

bool anyCovers(const std::vector<Span>& spans, int64_t timeUs) {
    return std::any_of(spans.begin(), spans.end(),
                       [timeUs](const Span& span) { return span.covers(timeUs); });
}

}  // namespace

TvFaults faultsAt(const FaultSpans& spans, int64_t timeUs) {
    TvFaults faults;
    faults.tunnel.queueFails = anyCovers(spans.refuse, timeUs);
    faults.tunnel.fenceNeverSignals = anyCovers(spans.fenceNever, timeUs);
    faults.tunnel.fenceDelayNs = spans.fenceDelayUs * 1000;
    faults.tunnel.noFences = spans.noFences;
    faults.tunnel.vsyncQueryFails = anyCovers(spans.queryFails, timeUs);
    faults.reportFails = anyCovers(spans.reportFails, timeUs);
    faults.audioPaused = anyCovers(spans.pauses, timeUs);
    for (const auto& period : spans.falsePeriods) {
        if (period.span.covers(timeUs)) {
            faults.reportedPeriodNs = period.periodNs;
        }
    }
    return faults;
}

std::vector<TimedFaults> faultSchedule(const FaultSpans& spans) {
    std::set<int64_t> changes;
    const auto note = [&changes](const std::vector<Span>& fault) {
        for (const auto& span : fault) {
            changes.insert({span.atUs, span.atUs + span.forUs});
        }
    };
    for (const auto* fault :
         {&spans.queryFails, &spans.reportFails, &spans.refuse, &spans.fenceNever, &spans.pauses}) {
        note(*fault);
    }
    for (const auto& period : spans.falsePeriods) {
        note({period.span});
    }
    if (spans.fenceDelayUs > 0 || spans.noFences) {
        changes.insert(0);
    }
    std::vector<TimedFaults> schedule;
    schedule.reserve(changes.size());
    for (const int64_t timeUs : changes) {
        schedule.push_back({timeUs, faultsAt(spans, timeUs)});
    }
    return schedule;
}

}  // namespace korvane::player
