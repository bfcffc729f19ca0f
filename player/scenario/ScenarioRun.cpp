// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/ScenarioRun.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>

#include "include/ThreadAnnotations.h"
#include "player/base/Units.h"
#include "player/media/SyntheticContent.h"
#include "player/media/VideoReader.h"
#include "player/playback/Playback.h"
#include "player/report/EventLog.h"
#include "player/report/EventRecorder.h"
#include "player/report/ReportBuilder.h"
#include "player/scenario/Expectation.h"
#include "player/scenario/FaultSchedule.h"
#include "player/scenario/PolicyScript.h"
#include "tv/Platform.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::player {
namespace {

constexpr char kLogMaskProperty[] = "vendor.korvane.loglevels";
constexpr char kFreeRunProperty[] = "vendor.tunerpassthrough.renderfreeRun";

tv::AudioConfig audioConfig(const AudioPlan& plan) {
    tv::AudioConfig config;
    config.startDelayUs = plan.startDelayUs;
    config.stepUs = plan.stepUs;
    config.driftPpm = plan.driftPpm;
    config.neverStarts = plan.neverStarts;
    for (const auto& span : plan.underflows) {
        config.underflows.push_back({span.atUs, span.forUs});
    }
    for (const auto& step : plan.stepBacks) {
        config.stepBacks.push_back({step.atUs, step.byUs});
    }
    config.latencyJumpUs = plan.latencyJumpUs;
    config.latencyJumpForUs = plan.latencyJumpForUs;
    config.drainUs = plan.drainUs;
    return config;
}

/// A policy that is the TV's own all along needs no script.
void putPolicy(const PassthroughPlan& plan, const std::shared_ptr<tv::SyncInstance>& clock) {
    const auto isAuto = [](const PolicyStep& step) { return step.kind == PolicyStep::Kind::Auto; };
    if (std::all_of(plan.policy.begin(), plan.policy.end(), isAuto)) {
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
    const auto script = std::make_shared<PolicyScript>(plan.policy, policyClock);
    clock->setVideoPolicy([script](int64_t mediaTimeUs, int64_t, int64_t nowUs) {
        return script->decide(mediaTimeUs, nowUs);
    });
}

void planDisplay(const Scenario& scenario, PlaybackPlan* plan) {
    const DisplayPlan& display = scenario.display;
    plan->tv.display.rateHz = display.rate.hz();
    plan->tv.display.driftPpm = display.driftPpm;
    plan->tv.display.reportJitterNs = display.jitterUs * 1000;
    plan->tv.display.seed = scenario.seed;
    for (const auto& change : display.modeChanges) {
        plan->modeChanges.push_back({change.atUs, change.rate.hz()});
    }
    plan->tv.tunnel.capacity = scenario.tunnel.capacity;
}

void planPlayer(const Scenario& scenario, PlaybackPlan* plan) {
    const PlayerPlan& player = scenario.player;
    plan->buffers = player.buffers;
    plan->prebufferFrames = player.prebufferFrames;
    plan->peek = player.peekCall ? Peek::Called : player.peek ? Peek::Marked : Peek::None;
    for (const auto& seek : player.seeks) {
        plan->seeks.push_back({seek.atUs, seek.toUs, seek.inPlace, false});
    }
    for (const auto& late : player.late) {
        plan->gaps.push_back({late.atUs, late.atUs + late.forUs});
    }
    plan->decodeUs = player.slowUs;
    plan->callbackTakesUs = player.callbackTakesUs;
    plan->callbackAnswers = player.callbackAnswers;
    plan->stopAtUs = player.stopAtUs;
    plan->restartAtUs = player.restartAtUs;
    plan->reuseRenderer = player.reuse;
}

/// The longest time for which the scenario itself keeps everything still.
int64_t longestWaitUs(const Scenario& scenario) {
    int64_t longestUs = scenario.audio.enabled ? scenario.audio.startDelayUs : 0;
    for (const auto* spans :
         {&scenario.audio.underflows, &scenario.audio.pauses, &scenario.player.late}) {
        for (const auto& span : *spans) {
            longestUs = std::max(longestUs, span.forUs);
        }
    }
    for (const auto& jump : scenario.content.jumps) {
        longestUs = std::max(longestUs, jump.byUs);
    }
    const auto& times = scenario.content.times;
    for (size_t i = 1; i < times.size(); ++i) {
        longestUs = std::max(longestUs, times[i] - times[i - 1]);
    }
    return longestUs + scenario.player.slowUs;
}

/// What setFrameRate is told; a list of times has no rate to tell.
std::optional<int> toldRate(const Scenario& scenario, const MediaInfo& media) {
    if (!scenario.player.setFrameRate) {
        return std::nullopt;
    }
    if (scenario.player.toldFps) {
        return rateInHundredths(*scenario.player.toldFps);
    }
    return media.frameRateHz > 0.0 ? std::optional(rateInHundredths(media.frameRateHz))
                                   : std::nullopt;
}

/// Counts the lines that the scenario has expectations of.
class LogWatch {
public:
    LogWatch(const std::vector<LogExpectation>& wanted, EventLog* events)
        : mWanted(wanted), mEvents(events), mCounts(wanted.size()) {}

    void see(const tv::LogLine& line) {
        const int64_t nowNs = tv::nowNs();
        if (line.priority >= kErrorPriority) {
            mEvents->add({nowNs, EventKind::Log, -1, line.priority, 0, withoutNumbers(line.text)});
        }
        const std::lock_guard<std::mutex> guard(mLock);
        for (size_t i = 0; i < mWanted.size(); ++i) {
            const bool loud = !mWanted[i].minimum || line.priority >= *mWanted[i].minimum;
            if (!loud || line.text.find(mWanted[i].text) == std::string::npos) {
                continue;
            }
            if (mCounts[i].lines++ == 0) {
                mCounts[i].first = line.text.substr(0, line.text.find_last_not_of('\n') + 1);
                mCounts[i].firstAtUs = nowNs;
            }
        }
    }

    /// Counts with their times since `start`.
    std::vector<LogCount> counts(int64_t startNs) const {
        const std::lock_guard<std::mutex> guard(mLock);
        std::vector<LogCount> counts = mCounts;
        for (auto& count : counts) {
            count.firstAtUs = count.lines > 0 ? (count.firstAtUs - startNs) / 1000 : -1;
        }
        return counts;
    }

private:
    static constexpr int kErrorPriority = 6;
    const std::vector<LogExpectation>& mWanted;
    EventLog* const mEvents;
    mutable std::mutex mLock;
    std::vector<LogCount> mCounts KORVANE_GUARDED_BY(mLock);
};

struct Sources {
    std::unique_ptr<FrameSource> video;
    std::unique_ptr<PacketSource> audio;
};

Sources openSources(const Scenario& scenario) {
    const ContentPlan& content = scenario.content;
    Sources sources;
    const bool audio = scenario.audio.enabled;
    if (content.file.empty()) {
        sources.video = std::make_unique<SyntheticVideo>(content, audio);
        sources.audio = audio ? std::make_unique<SyntheticAudio>(content) : nullptr;
        return sources;
    }
    MediaRequest request;
    request.name = content.file;
    request.withoutAudio = !audio;
    auto reader = std::make_unique<VideoReader>(request);
    sources.audio = reader->openAudio();
    sources.video = std::move(reader);
    return sources;
}

void setProperties(const Scenario& scenario) {
    if (scenario.logMask) {
        tv::setProperty(kLogMaskProperty, std::to_string(*scenario.logMask));
    }
    if (scenario.passthrough.freeRun) {
        tv::setProperty(kFreeRunProperty, "1");
    }
}

ScenarioResult resultOf(const PlaybackRecord& record, const Summary& summary) {
    ScenarioResult result;
    result.shown = summary.count(Outcome::Shown);
    result.dropped = summary.count(Outcome::Dropped);
    result.playedUs = (record.stopNs - record.startNs) / 1000;
    for (const auto& section : summary.sections) {
        result.pattern += (result.pattern.empty() ? "" : " ") +
                          (section.cadence.held ? section.seen : std::string("-"));
    }
    return result;
}

ScenarioResult playScenario(const Scenario& scenario, const ScenarioRunOptions& options) {
    std::ofstream eventsFile;
    if (!options.eventsFile.empty()) {
        eventsFile.open(options.eventsFile);
    }
    EventLog events(options.eventsFile.empty() ? nullptr : &eventsFile);
    LogWatch watch(scenario.expect.log, &events);
    Sources sources = openSources(scenario);
    PlaybackPlan plan = planOf(scenario);
    plan.toldFrameRate = toldRate(scenario, sources.video->info());
    plan.withAudio = sources.audio != nullptr;
    setProperties(scenario);

    ReportBuilder report(sources.video->info().frameRateHz, plan);
    EventRecorder recorder(&events);
    PlaybackPorts ports;
    ports.listeners = {&report, &recorder};
    ports.onLogLine = [&watch](const tv::LogLine& line) { watch.see(line); };
    const PlaybackRecord record = play(plan, *sources.video, std::move(sources.audio), ports);
    const Summary summary = report.finish(record);
    if (options.report) {
        printReport(std::cerr, record, summary, {}, false);
    }
    ScenarioResult result = resultOf(record, summary);
    result.failures = failures(scenario.expect, record, summary, watch.counts(record.startNs));
    events.finish();
    eventsFile.flush();
    if (!eventsFile) {
        result.failures.push_back("events: '" + options.eventsFile + "' could not be written");
    }
    result.eventsHash = events.hash();
    return result;
}

}  // namespace

PlaybackPlan planOf(const Scenario& scenario) {
    PlaybackPlan plan;
    planDisplay(scenario, &plan);
    planPlayer(scenario, &plan);
    plan.withAudio = scenario.audio.enabled;
    plan.audio = audioConfig(scenario.audio);
    plan.faults = faultSchedule(scenario);
    plan.longestWaitUs = longestWaitUs(scenario);
    plan.passthrough = scenario.passthrough.enabled;
    if (plan.passthrough) {
        plan.prepareClock = [passthrough = scenario.passthrough](const auto& clock) {
            putPolicy(passthrough, clock);
        };
    }
    return plan;
}

ScenarioResult runScenario(const Scenario& scenario, const ScenarioRunOptions& options) {
    std::optional<tv::VirtualTime> clock;
    if (options.virtualClock) {
        // Twice the content and an hour: more than any wait that a scenario can ask for, and soon
        // enough to tell a run that polls for good from one that is long.
        constexpr int64_t kHourNs = 3'600'000'000'000;
        tv::VirtualTimeOptions limits;
        if (scenario.content.file.empty()) {
            limits.longestRunNs = 2 * scenario.content.durationUs * 1000 + kHourNs;
        }
        clock.emplace(scenario.seed, limits);
    }
    return playScenario(scenario, options);
}

}  // namespace korvane::player
