// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/PolicyScript.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "player/base/Limits.h"
#include "player/base/Units.h"

namespace korvane::player {
namespace {

constexpr std::pair<const char*, PolicyStep::Kind> kKinds[] = {{"auto", PolicyStep::Kind::Auto},
                                                               {"render", PolicyStep::Kind::Render},
                                                               {"hold", PolicyStep::Kind::Hold},
                                                               {"drop", PolicyStep::Kind::Drop},
                                                               {"exit", PolicyStep::Kind::Exit}};

constexpr char kForms[] =
    "is not \"auto\", \"render\", \"render at +30ms\", \"hold\", \"drop\" or \"exit\", with one "
    "count at most, as in \"hold 20\"";

/// How long the renderer waits before it asks again about a frame on hold, with a reserve.
constexpr int64_t kHoldPollUs = 10'000;

}  // namespace

std::optional<PolicyStep> parsePolicyStep(const std::string& text, std::string* wrong) {
    *wrong = kForms;
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
    bool counted = false;
    bool placed = false;
    while (words >> word) {
        if (word == "at" && step.kind == PolicyStep::Kind::Render && !placed && words >> word) {
            const auto offset = parseDuration(word);
            if (!offset) {
                *wrong = isTooLong(word) ? kTooLong : kForms;
                return std::nullopt;
            }
            step.offsetUs = *offset;
            placed = true;
            continue;
        }
        const bool digits = word.find_first_not_of("0123456789") == std::string::npos;
        if (counted || !digits) {
            return std::nullopt;
        }
        step.times = parseCount(word).value_or(0);
        if (step.times < 1 || step.times > kMostFrames) {
            *wrong = "has a count that is not from 1 to " + std::to_string(kMostFrames);
            return std::nullopt;
        }
        counted = true;
    }
    return step;
}

int64_t policyWaitUs(const std::vector<PolicyStep>& steps) {
    int64_t us = 0;
    for (const auto& step : steps) {
        us += std::max<int64_t>(step.offsetUs, 0) +
              (step.kind == PolicyStep::Kind::Hold ? step.times * kHoldPollUs : 0);
    }
    return us;
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

void installPolicy(const std::vector<PolicyStep>& steps,
                   const std::shared_ptr<tv::SyncInstance>& clock) {
    const auto isAuto = [](const PolicyStep& step) { return step.kind == PolicyStep::Kind::Auto; };
    if (std::all_of(steps.begin(), steps.end(), isAuto)) {
        return;
    }
    // The instance owns the policy: a strong reference back would keep both for ever.
    const std::weak_ptr<tv::SyncInstance> instance = clock;
    PolicyClock policyClock;
    policyClock.realTimeFor = [instance](int64_t mediaTimeUs, int64_t nowUs) {
        const auto strong = instance.lock();
        return strong ? strong->realTimeFor(mediaTimeUs, nowUs) : -1;
    };
    policyClock.automatic = [instance](int64_t mediaTimeUs, int64_t nowUs) {
        const auto strong = instance.lock();
        return strong ? strong->automaticPolicy(mediaTimeUs, nowUs) : mediasync_video_policy{};
    };
    const auto script = std::make_shared<PolicyScript>(steps, policyClock);
    clock->setVideoPolicy([script](int64_t mediaTimeUs, int64_t, int64_t nowUs) {
        return script->decide(mediaTimeUs, nowUs);
    });
}

}  // namespace korvane::player
