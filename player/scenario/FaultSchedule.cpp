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

TvFaults faultsAt(const Scenario& scenario, int64_t timeUs) {
    const DisplayPlan& display = scenario.display;
    const TunnelPlan& tunnel = scenario.tunnel;
    TvFaults faults;
    faults.tunnel.queueFails = anyCovers(tunnel.refuse, timeUs);
    faults.tunnel.fenceNeverSignals = anyCovers(tunnel.fenceNever, timeUs);
    faults.tunnel.fenceDelayNs = tunnel.fenceDelayUs * 1000;
    faults.tunnel.noFences = tunnel.noFences;
    faults.reportFails = anyCovers(display.reportFails, timeUs);
    faults.tunnel.vsyncQueryFails = anyCovers(display.queryFails, timeUs);
    faults.audioPaused = anyCovers(scenario.audio.pauses, timeUs);
    for (const auto& period : display.falsePeriods) {
        if (period.span.covers(timeUs)) {
            faults.reportedPeriodNs = static_cast<int32_t>(period.periodNs);
        }
    }
    return faults;
}

std::vector<TimedFaults> faultSchedule(const Scenario& scenario) {
    std::set<int64_t> changes;
    const auto note = [&changes](const std::vector<Span>& spans) {
        for (const auto& span : spans) {
            changes.insert({span.atUs, span.atUs + span.forUs});
        }
    };
    note(scenario.display.queryFails);
    note(scenario.display.reportFails);
    note(scenario.tunnel.refuse);
    note(scenario.tunnel.fenceNever);
    note(scenario.audio.pauses);
    for (const auto& period : scenario.display.falsePeriods) {
        note({period.span});
    }
    if (scenario.tunnel.fenceDelayUs > 0 || scenario.tunnel.noFences) {
        changes.insert(0);
    }
    std::vector<TimedFaults> schedule;
    schedule.reserve(changes.size());
    for (const int64_t timeUs : changes) {
        schedule.push_back({timeUs, faultsAt(scenario, timeUs)});
    }
    return schedule;
}

}  // namespace korvane::player
