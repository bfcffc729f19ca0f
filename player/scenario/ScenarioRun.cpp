// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/ScenarioRun.h"

#include <fstream>
#include <iostream>
#include <memory>
#include <optional>

#include "player/base/Units.h"
#include "player/media/SyntheticContent.h"
#include "player/media/VideoReader.h"
#include "player/playback/Playback.h"
#include "player/report/EventLine.h"
#include "player/report/EventLog.h"
#include "player/report/EventRecorder.h"
#include "player/report/Report.h"
#include "player/report/ReportBuilder.h"
#include "player/scenario/Expectation.h"
#include "player/scenario/LogWatch.h"
#include "player/scenario/RunLimits.h"
#include "tv/Properties.h"
#include "tv/Tv.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::player {
namespace {

struct Sources {
    std::unique_ptr<FrameSource> video;
    std::unique_ptr<PacketSource> audio;
};

Sources openSources(const Scenario& scenario) {
    const ContentPlan& content = scenario.content;
    const bool audio = scenario.plan.withAudio;
    Sources sources;
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

/// The scenario's plan with what its seed and its content add.
PlaybackPlan planOf(const Scenario& scenario, const Sources& sources) {
    PlaybackPlan plan = scenario.plan;
    plan.tv.display.seed = scenario.seed;
    plan.withAudio = sources.audio != nullptr;
    if (!plan.toldFrameRate) {
        plan.toldFrameRate = rateInHundredths(sources.video->info().frameRateHz);
    }
    return plan;
}

ScenarioResult resultOf(const PlaybackRecord& record, const Summary& summary) {
    ScenarioResult result;
    result.shown = summary.count(Outcome::Shown);
    result.dropped = summary.count(Outcome::Dropped);
    result.playedUs = (record.stopNs - record.startNs) / 1000;
    for (const auto& stretch : summary.stretches) {
        result.pattern += (result.pattern.empty() ? "" : " ") +
                          (stretch.cadence.held ? stretch.seen : std::string("-"));
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
    const PlaybackPlan plan = planOf(scenario, sources);
    for (const auto& [name, value] : scenario.properties) {
        tv::setProperty(name, value);
    }

    ReportBuilder report(sources.video->info().frameRateHz, plan);
    EventRecorder recorder(&events);
    PlaybackHooks hooks;
    hooks.listeners = {&report, &recorder};
    hooks.onLogLine = [&](const tv::LogLine& line) {
        report.seeLog(line, tv::nowNs() / 1000);
        watch.see(line);
    };
    const PlaybackRecord record = play(plan, *sources.video, std::move(sources.audio), hooks);
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

ScenarioResult runScenario(const Scenario& scenario, const ScenarioRunOptions& options) {
    std::optional<tv::VirtualTime> clock;
    if (options.virtualClock) {
        tv::VirtualTimeOptions limits;
        if (scenario.content.file.empty()) {
            limits.longestRunNs = longestRunUs(scenario.content, scenario.plan) * 1000;
        }
        clock.emplace(scenario.seed, limits);
    }
    return playScenario(scenario, options);
}

}  // namespace korvane::player
