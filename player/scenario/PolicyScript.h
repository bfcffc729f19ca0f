// SPDX-License-Identifier: Apache-2.0
// A script of pass-through decisions: "hold 20", "render", "drop 3", "render at +30ms", "exit",
// "auto". Each entry answers once, or as often as its number says; the last one answers for ever.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/MediaSync.h"
#include "player/scenario/Scenario.h"

namespace korvane::player {

/// Reads one entry. @return nothing for a text that is none
std::optional<PolicyStep> parsePolicyStep(const std::string& text);

/// What the script needs to know of the clock.
struct PolicyClock {
    /// Monotonic microseconds at which a media time is due; negative without an anchor.
    std::function<int64_t(int64_t mediaTimeUs, int64_t nowUs)> realTimeFor;
    /// The TV's own decision.
    std::function<mediasync_video_policy(int64_t mediaTimeUs, int64_t nowUs)> automatic;
};

/// Answers from the first entry on. One thread at a time.
class PolicyScript {
public:
    PolicyScript(std::vector<PolicyStep> steps, PolicyClock clock);
    mediasync_video_policy decide(int64_t mediaTimeUs, int64_t nowUs);

private:
    const std::vector<PolicyStep> mSteps;
    const PolicyClock mClock;
    size_t mStep = 0;
    int64_t mAnswered = 0;  ///< by the current step
};

}  // namespace korvane::player
