// SPDX-License-Identifier: Apache-2.0
// A script of pass-through decisions: "hold 20", "render", "drop 3", "render at +30ms", "exit",
// "auto". Each entry answers once, or as often as its number says; the last one answers all further
// questions.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/MediaSync.h"
#include "tv/MediaSyncService.h"

namespace korvane::player {

/// One entry of a script.
struct PolicyStep {
    enum class Kind { Auto, Render, Hold, Drop, Exit };
    Kind kind = Kind::Auto;
    int64_t times = 1;
    int64_t offsetUs = 0;  ///< Render: added to the clock's time for the frame
};

/// Reads one entry.
/// @param wrong  gets what is wrong with any other text: "is not ..."
/// @return nothing for any other text
std::optional<PolicyStep> parsePolicyStep(const std::string& text, std::string* wrong);

/// The longest time for which a script keeps a frame off the screen.
int64_t policyWaitUs(const std::vector<PolicyStep>& steps);

/// What the script may ask of the clock.
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

/// Lets a script decide for a clock. The TV's own policy stays where the script is "auto" alone.
void installPolicy(const std::vector<PolicyStep>& steps,
                   const std::shared_ptr<tv::SyncInstance>& clock);

}  // namespace korvane::player
