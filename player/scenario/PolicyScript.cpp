// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/PolicyScript.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <utility>

#include "player/base/Units.h"

namespace korvane::player {
namespace {

constexpr std::pair<const char*, PolicyStep::Kind> kKinds[] = {{"auto", PolicyStep::Kind::Auto},
                                                               {"render", PolicyStep::Kind::Render},
                                                               {"hold", PolicyStep::Kind::Hold},
                                                               {"drop", PolicyStep::Kind::Drop},
                                                               {"exit", PolicyStep::Kind::Exit}};

std::optional<int64_t> parseDurations(const std::string& word) {
    int64_t times = 0;
    const char* end = word.data() + word.size();
    const auto result = std::from_chars(word.data(), end, times);
    return result.ec == std::errc() && result.ptr == end && times >= 1 ? std::optional(times)
                                                                       : std::nullopt;
}

}  // namespace

std::optional<PolicyStep> parsePolicyStep(const std::string& text) {
    std::istringstream words(text);
    std::string name;
    std::string word;
    words >> name;
    const auto* kind = std::find_if(std::begin(kKinds), std::end(kKinds),
                                    [&name](const auto& entry) { return name == entry.first; });
    if (kind == std::end(kKinds)) {
        return std::nullopt;
    }
    PolicyStep step;
    step.kind = kind->second;
    while (words >> word) {
        if (word == "at" && step.kind == PolicyStep::Kind::Render && words >> word) {
            const auto offset = parseDuration(word);
            if (!offset) {
                return std::nullopt;
            }
            step.offsetUs = *offset;
            continue;
        }
        const auto times = parseDurations(word);
        if (!times) {
            return std::nullopt;
        }
        step.times = *times;
    }
    return step;
}

PolicyScript::PolicyScript(std::vector<PolicyStep> steps, PolicyClock clock)
    : mSteps(std::move(steps)), mClock(std::move(clock)) {}

mediasync_video_policy PolicyScript::decide(int64_t mediaTimeUs, int64_t nowUs) {
    if (mAnswered == mSteps[mStep].times && mStep + 1 < mSteps.size()) {
        ++mStep;
        mAnswered = 0;
    }
    const PolicyStep& step = mSteps[mStep];
    mAnswered = std::min(mAnswered + 1, step.times);
    mediasync_video_policy policy{};
    switch (step.kind) {
        case PolicyStep::Kind::Auto:
            return mClock.automatic(mediaTimeUs, nowUs);
        case PolicyStep::Kind::Render: {
            const int64_t realUs = mClock.realTimeFor(mediaTimeUs, nowUs);
            policy.videopolicy = MEDIASYNC_VIDEO_NORMAL_OUTPUT;
            policy.realtimeUs = (realUs < 0 ? nowUs : realUs) + step.offsetUs;
            break;
        }
        case PolicyStep::Kind::Hold:
            policy.videopolicy = MEDIASYNC_VIDEO_HOLD;
            break;
        case PolicyStep::Kind::Drop:
            policy.videopolicy = MEDIASYNC_VIDEO_DROP;
            break;
        case PolicyStep::Kind::Exit:
            policy.videopolicy = MEDIASYNC_VIDEO_EXIT;
            break;
    }
    return policy;
}

}  // namespace korvane::player
