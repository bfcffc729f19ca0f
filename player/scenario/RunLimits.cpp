// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/RunLimits.h"

#include <algorithm>
#include <cstdlib>

#include "player/media/SyntheticContent.h"

namespace korvane::player {
namespace {

/// For the time that player and library take themselves.
constexpr int64_t kReserveUs = int64_t{3600} * 1'000'000;
/// Callbacks for one frame, with one to spare.
constexpr int64_t kCallbacks = 4;

/// The media time that jumps and steps add, in either direction.
int64_t jumpsUs(const ContentPlan& content, const PlaybackPlan& plan) {
    int64_t us = 0;
    for (const auto& jump : content.jumps) {
        us += std::abs(jump.byUs);
    }
    for (const auto& step : plan.audio.stepBacks) {
        us += step.byUs;
    }
    return us;
}

/// The length of the way through a list of media times from 0 on, back and forth.
int64_t listUs(const std::vector<int64_t>& times) {
    int64_t us = 0;
    int64_t last = 0;
    for (const int64_t time : times) {
        us += std::abs(time - last);
        last = time;
    }
    return us;
}

/// Media time from one delivered frame to the next, at most.
int64_t gapUs(const ContentPlan& content) {
    auto frames = static_cast<int64_t>(1 + content.missing.size());
    for (const auto& bunch : content.bunches) {
        frames += bunch.frames;
    }
    const int64_t frameUs = 1'000'000 * content.rate.seconds / content.rate.frames + 1;
    return content.times.empty() ? frames * frameUs : listUs(content.times);
}

/// Media time on a clock that is up to 5 % slow (kMostDriftPpm), with a reserve.
int64_t withDrift(int64_t us) {
    return us + us / 10;
}

/// The time for which clock or decoder stand still.
int64_t stillUs(const PlaybackPlan& plan) {
    int64_t us = 0;
    for (size_t i = 1; i < plan.faults.size(); ++i) {
        const auto& from = plan.faults[i - 1];
        us += from.faults.audioPaused ? plan.faults[i].atUs - from.atUs : 0;
    }
    for (const auto& underflow : plan.audio.underflows) {
        us += underflow.durationUs;
    }
    for (const auto& gap : plan.gaps) {
        us += gap.untilUs - gap.atUs;
    }
    return us + std::abs(plan.audio.latencyJumpUs);
}

int64_t startDelayUs(const PlaybackPlan& plan) {
    return plan.withAudio ? plan.audio.startDelayUs : 0;
}

int64_t frameTakesUs(const PlaybackPlan& plan) {
    return plan.decodeUs + kCallbacks * plan.callbackTakesUs;
}

}  // namespace

int64_t longestWaitUs(const ContentPlan& content, const PlaybackPlan& plan) {
    const int64_t mediaUs = withDrift(gapUs(content) + jumpsUs(content, plan));
    return std::max(startDelayUs(plan), mediaUs) + stillUs(plan) + frameTakesUs(plan);
}

int64_t longestRunUs(const ContentPlan& content, const PlaybackPlan& plan) {
    const bool list = !content.times.empty();
    const int64_t mediaUs =
        (list ? listUs(content.times) : content.durationUs) + jumpsUs(content, plan);
    const int64_t frames = ContentTimes(content).frames();
    // The last action can play all of the content once more, with a start of audio of its own.
    int64_t lastActionUs = plan.restartAtUs.value_or(0);
    for (const auto& seek : plan.seeks) {
        lastActionUs = std::max(lastActionUs, seek.atUs);
    }
    const auto starts = static_cast<int64_t>(2 + plan.seeks.size());
    return lastActionUs + 2 * withDrift(mediaUs) + starts * startDelayUs(plan) +
           plan.longestWaitUs + 2 * frames * frameTakesUs(plan) + kReserveUs;
}

}  // namespace korvane::player
