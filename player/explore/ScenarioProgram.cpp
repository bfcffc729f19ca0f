// SPDX-License-Identifier: Apache-2.0
#include "player/explore/ScenarioProgram.h"

#include <algorithm>
#include <utility>

#include "player/media/SyntheticContent.h"

namespace korvane::player {
namespace {

constexpr int kMostProgramBuffers = 6;
constexpr int64_t kBackUs = 100'000;
/// After the last frame is due.
constexpr int64_t kGraceUs = 1'000'000;
/// A program whose frames need not come to their end stops this long after them.
constexpr int64_t kRunOutUs = 60'000;

class Translator {
public:
    Translator(const Scenario& scenario, int frames)
        : mScenario(scenario),
          mPlan(scenario.plan),
          mTimes(content(scenario.content), scenario.plan.withAudio),
          mFrames(std::min<int64_t>(frames, mTimes.frames())),
          mFrameUs(std::max<int64_t>(mTimes.endUs() - scenario.content.startUs, 1) /
                   std::max<int64_t>(mTimes.frames(), 1)),
          mSpanUs(mFrames * mFrameUs),
          mLengthUs(std::max(mTimes.frames() * mFrameUs, mSpanUs)) {}

    Program translate() {
        Program program;
        program.name = mScenario.path;
        program.shows = mScenario.title;
        program.tv = mPlan.tv;
        program.tv.display.seed = mScenario.seed;
        program.buffers = std::min(mPlan.buffers, kMostProgramBuffers);
        program.audio = audio();
        program.prepareClock = mPlan.prepareClock;
        Session session;
        session.withAudio = mPlan.withAudio;
        session.passthrough = mPlan.passthrough;
        session.answers = mPlan.callbackAnswers;
        session.callbackTakesUs = mPlan.callbackTakesUs;
        for (const auto& timed : mPlan.faults) {
            program.faults.push_back(timed.faults);
        }
        player();
        session.threads.push_back(std::move(mSteps));
        if (auto steps = faults(); !steps.empty()) {
            session.threads.push_back(std::move(steps));
        }
        program.players.push_back({std::move(session)});
        return program;
    }

private:
    /// A file's pictures are not needed.
    static ContentPlan content(ContentPlan plan) {
        if (!plan.file.empty()) {
            plan.file.clear();
            plan.rate = FrameRate{24, 1};
        }
        return plan;
    }

    int64_t scaled(int64_t us) const {
        return static_cast<int64_t>(static_cast<double>(us) * static_cast<double>(mSpanUs) /
                                    static_cast<double>(mLengthUs));
    }

    tv::AudioConfig audio() const {
        tv::AudioConfig config = mPlan.audio;
        for (auto& underflow : config.underflows) {
            underflow = {scaled(underflow.atMediaUs), scaled(underflow.durationUs)};
        }
        for (auto& back : config.stepBacks) {
            back.atMediaUs = scaled(back.atMediaUs);
        }
        return config;
    }

    /// The player's thread.
    void player() {
        std::vector<SeekAction> seeks = mPlan.seeks;
        const auto prebuffer = std::min<int64_t>(
            {mPlan.prebufferFrames, mFrames, std::min(mPlan.buffers, kMostProgramBuffers)});
        bool started = false;
        const auto start = [&] {
            if (!std::exchange(started, true)) {
                if (!mPlan.withAudio) {
                    add(Act::Anchor, mTimes.deliveredUs(0));
                }
                add(Act::Start);
            }
        };
        for (int64_t i = 0; i < mFrames; ++i) {
            if (i >= prebuffer) {
                start();
            }
            for (; started && !seeks.empty() && scaled(seeks.front().atUs) <= i * mFrameUs;
                 seeks.erase(seeks.begin())) {
                seek(seeks.front(), i);
            }
            send(i);
        }
        start();
        for (const auto& seek : seeks) {
            this->seek(seek, mFrames);
        }
        if (!seeks.empty()) {
            send(mFrames);
        }
        end();
    }

    void seek(const SeekAction& action, int64_t frame) {
        add(Act::Until, scaled(action.atUs));
        add(Act::Flush);
        add(Act::AwaitBack, kBackUs);
        mShiftUs = action.inPlace ? mShiftUs : action.toUs - mTimes.deliveredUs(frame);
        mFirst = true;
        if (!mPlan.withAudio) {
            add(Act::Anchor, mTimes.deliveredUs(frame) + mShiftUs);
        }
    }

    void send(int64_t frame) {
        const int64_t us = mTimes.deliveredUs(frame);
        const auto inStall = [&](const VideoStall& stall) {
            return scaled(stall.atUs) <= us && scaled(stall.atUs) > us - mFrameUs;
        };
        for (const auto& stall : mPlan.stalls) {
            if (inStall(stall)) {
                add(Act::Sleep, scaled(stall.durationUs));
            }
        }
        if (mPlan.decodeUs > 0) {
            add(Act::Sleep, mPlan.decodeUs);
        }
        for (int i = 0; i < mTimes.deliveries(frame); ++i) {
            const bool first = std::exchange(mFirst, false);
            add(first && mPlan.peek == Peek::Marked ? Act::SendPeek : Act::Send, us + mShiftUs);
            if (first && mPlan.peek == Peek::Called) {
                add(Act::PeekFirst);
            }
        }
    }

    void end() {
        const bool healthy = mPlan.faults.empty() && !mPlan.audio.neverStarts &&
                             !mPlan.passthrough && !mPlan.prepareClock && !mPlan.stopAtUs &&
                             !mPlan.reuseRenderer && mFrames > 1 &&
                             mPlan.tv.tunnel.capacity == tv::TunnelConfig().capacity;
        if (healthy) {
            add(Act::Settle, mSpanUs + mPlan.audio.startDelayUs + kGraceUs);
        } else {
            add(Act::Until, mPlan.stopAtUs ? scaled(*mPlan.stopAtUs) : mSpanUs + kRunOutUs);
        }
        add(Act::Join);
        add(Act::Stop);
    }

    Steps faults() const {
        Steps steps;
        for (size_t i = 0; i < mPlan.faults.size(); ++i) {
            steps.push_back({Act::Until, scaled(mPlan.faults[i].atUs)});
            steps.push_back({Act::Faults, 0, static_cast<int>(i)});
        }
        return steps;
    }

    void add(Act act, int64_t us = 0) { mSteps.push_back({act, us}); }

    const Scenario& mScenario;
    const PlaybackPlan& mPlan;
    const ContentTimes mTimes;
    const int64_t mFrames;
    const int64_t mFrameUs;
    const int64_t mSpanUs;    ///< of the frames that are played
    const int64_t mLengthUs;  ///< of the scenario's content
    Steps mSteps;
    int64_t mShiftUs = 0;  ///< by seeks
    bool mFirst = true;    ///< of its section
};

}  // namespace

Program programOf(const Scenario& scenario, int frames) {
    return Translator(scenario, frames).translate();
}

}  // namespace korvane::player
