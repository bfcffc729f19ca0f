// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/ScenarioRun.h"

#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "player/base/Units.h"
#include "player/media/SyntheticContent.h"
#include "player/media/VideoReader.h"
#include "player/page/Page.h"
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

// How a scenario preempts: one of 16 locks, unlocks, waits and notifications, for up to 0.1 ms,
// which is far below a vsync: what is expected must hold all the same.
constexpr uint32_t kPreemptions = 4096;
constexpr int64_t kLongestPreemptionNs = 100'000;
constexpr uint32_t kSpuriousWakeups = 1024;

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

/// What a scenario writes: its event log, and the page with the event log beside it.
struct Files {
    Files(const ScenarioRunOptions& options, const std::string& scenario) {
        open(&events, options.eventsFile);
        if (!options.reportFolder.empty()) {
            open(&page, options.reportFolder + "/report.html");
            open(&pageEvents, options.reportFolder + "/events.txt");
            writeUnfinishedPage(page, scenario);
            page.flush();
        }
    }
    void open(std::ofstream* file, const std::string& path) {
        if (!path.empty()) {
            file->open(path);
            opened.push_back({file, path});
        }
    }
    std::vector<std::ostream*> eventStreams() {
        std::vector<std::ostream*> streams;
        for (const auto& [file, path] : opened) {
            if (file != &page) {
                streams.push_back(file);
            }
        }
        return streams;
    }
    void finish(std::vector<std::string>* failures) {
        for (const auto& [file, path] : opened) {
            if (!file->flush()) {
                failures->push_back("'" + path + "' could not be written whole; free some space");
            }
        }
    }

    std::ofstream events;
    std::ofstream page;
    std::ofstream pageEvents;
    std::vector<std::pair<std::ofstream*, std::string>> opened;
};

ScenarioResult resultOf(const PlaybackRecord& record, const Summary& summary) {
    ScenarioResult result;
    result.shown = summary.count(Outcome::Shown);
    result.dropped = summary.count(Outcome::Dropped);
    result.grade = toString(summary.grade);
    result.sentence = summary.verdict;
    result.playedUs = (record.stopNs - record.startNs) / 1000;
    for (const auto& stretch : summary.stretches) {
        result.pattern += (result.pattern.empty() ? "" : " ") +
                          (stretch.cadence.held ? stretch.seen : std::string("-"));
    }
    return result;
}

ScenarioResult playScenario(const Scenario& scenario, const ScenarioRunOptions& options) {
    Files files(options, scenario.name);
    EventLog events(files.eventStreams());
    LogWatch watch(scenario.expect.log, &events);
    Sources sources = openSources(scenario);
    const PlaybackPlan plan = planOf(scenario, sources);
    for (const auto& [name, value] : scenario.properties) {
        tv::setProperty(name, value);
    }

    const auto page = options.reportFolder.empty() ? nullptr : std::make_unique<PageRecorder>();
    std::vector<CadenceListener*> rows;
    if (page) {
        rows.push_back(page.get());
    }
    ReportBuilder report(sources.video->info().frameRateHz, plan, std::move(rows));
    EventRecorder recorder(&events);
    PlaybackHooks hooks;
    hooks.listeners = {&report, &recorder};
    if (page) {
        hooks.listeners.push_back(page.get());
    }
    hooks.onLogLine = [&](const tv::LogLine& line) {
        report.seeLog(line, tv::nowNs() / 1000);
        watch.see(line);
        if (page) {
            page->onLogLine(line);
        }
    };
    const PlaybackRecord record = play(plan, *sources.video, std::move(sources.audio), hooks);
    const Summary summary = report.finish(record);
    if (options.report) {
        printReport(std::cerr, record, summary, {}, false);
    }
    ScenarioResult result = resultOf(record, summary);
    result.failures = failures(scenario.expect, record, summary, watch.counts(record.startNs));
    events.finish();
    result.eventsHash = events.hash();
    if (page) {
        const Origin origin{options.version, options.repeat, options.virtualClock, scenario.seed,
                            result.eventsHash};
        files.page.seekp(0);
        writePage(files.page, {scenario.name, scenario.title, result.failures}, origin, record,
                  summary, {}, page.get());
    }
    files.finish(&result.failures);
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
        if (scenario.preempt) {
            limits.preemptions = kPreemptions;
            limits.longestPreemptionNs = kLongestPreemptionNs;
            limits.spuriousWakeups = kSpuriousWakeups;
        }
        clock.emplace(scenario.seed, limits);
    }
    return playScenario(scenario, options);
}

}  // namespace korvane::player
