// SPDX-License-Identifier: Apache-2.0
// Shared by the cadence tracker's tests: access to its state, and its log.
#pragma once

#include <string>

#include "frac/CadenceState.h"
#include "frac/VideoSyncFRAC.h"
#include "tests/support/LogCapture.h"

struct VideoSyncFRACPeer {
    static videoSyncFrac_priv& state(VideoSyncFRAC& tracker) { return *tracker.mPriv; }
};

namespace korvane::test {

inline videoSyncFrac_priv& stateOf(VideoSyncFRAC& tracker) {
    return VideoSyncFRACPeer::state(tracker);
}

/// The pattern in force, such as "[3:2]"; "-" for none.
inline std::string inForce(VideoSyncFRAC& tracker) {
    static constexpr const char* kNames[] = {"-", "[3:2]", "[2:2]", "[4:1]", "[1:1]"};
    return kNames[stateOf(tracker).curPattern + 1];
}

/// The tracker's lines.
struct FracLog : LogCapture {
    FracLog() : LogCapture("VideoSyncFRAC") {}
};

}  // namespace korvane::test
