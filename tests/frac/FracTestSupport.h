// What the cadence tracker's tests share: a look at its state, and its log.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "frac/CadenceState.h"
#include "frac/VideoSyncFRAC.h"
#include "tv/Platform.h"

struct VideoSyncFRACPeer {
    static videoSyncFrac_priv& state(VideoSyncFRAC& tracker) { return *tracker.mPriv; }
};

namespace korvane::test {

inline videoSyncFrac_priv& stateOf(VideoSyncFRAC& tracker) {
    return VideoSyncFRACPeer::state(tracker);
}

/// The pattern in force in the usual notation; "-" for none.
inline std::string inForce(VideoSyncFRAC& tracker) {
    static constexpr const char* kNames[] = {"-", "[3:2]", "[2:2]", "[4:1]", "[1:1]"};
    return kNames[stateOf(tracker).curPattern + 1];
}

using Lines = std::vector<std::string>;

/// Collects the tracker's lines while it exists, each as priority letter and text: "D text".
struct FracLog {
    FracLog() {
        tv::openLog(8);  // to nobody else
        tv::observeLog([this](const tv::LogLine& line) {
            if (line.tag == "VideoSyncFRAC") {
                lines.push_back("??VDIWEFS"[line.priority] + (" " + line.text));
            }
        });
    }
    ~FracLog() { tv::observeLog(nullptr); }
    FracLog(const FracLog&) = delete;
    FracLog& operator=(const FracLog&) = delete;

    /// What was logged since the last call.
    Lines take() { return std::exchange(lines, {}); }

    Lines lines;
};

/// The mask that trackers built from now on read from the property.
inline void setLogMask(int32_t mask) {
    tv::setProperty("vendor.korvane.loglevels", std::to_string(mask));
}

}  // namespace korvane::test
