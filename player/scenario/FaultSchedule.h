// SPDX-License-Identifier: Apache-2.0
// Which faults the TV has at which playback time. Pure: spans in, states with their times out.
//
//   refuse          |--------|
//   report_fails         |--------|
//   state           1    2   3    none
#pragma once

#include <cstdint>
#include <vector>

#include "player/base/Range.h"
#include "player/playback/PlaybackPlan.h"

namespace korvane::player {

/// Each fault with the spans of playback time during which it lasts.
struct FaultSpans {
    std::vector<Span> queryFails;   ///< the tunnel does not answer, the display adapter does
    std::vector<Span> reportFails;  ///< neither answers
    struct FalsePeriod {
        Span span;
        int32_t periodNs = 0;
    };
    std::vector<FalsePeriod> falsePeriods;
    std::vector<Span> refuse;      ///< the tunnel refuses buffers
    std::vector<Span> fenceNever;  ///< fences of buffers replaced now never signal
    std::vector<Span> pauses;      ///< the player pauses
    int64_t fenceDelayUs = 0;      ///< all the time
    bool noFences = false;         ///< all the time
};

/// The state at one playback time.
TvFaults faultsAt(const FaultSpans& spans, int64_t timeUs);

/// Each state with the time at which it begins, ascending; empty without faults.
std::vector<TimedFaults> faultSchedule(const FaultSpans& spans);

}  // namespace korvane::player
