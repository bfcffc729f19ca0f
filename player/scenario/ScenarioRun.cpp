// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/ScenarioRun.h"

#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "player/base/Errors.h"
#include "player/base/Units.h"
#include "player/media/SoundStore.h"
#include "player/media/SyntheticContent.h"
#include "player/media/VideoReader.h"
#include "player/page/Page.h"
#include "player/playback/Playback.h"
#include "player/report/EventLine.h"
#include "player/report/EventLog.h"
#include "player/report/EventRecorder.h"
#include "player/report/Report.h"
#include "player/report/ReportBuilder.h"
#include "player/report/TraceRecorder.h"
#include "player/scenario/Expectation.h"
#include "player/scenario/LogWatch.h"
#include "player/scenario/RunLimits.h"
#include "player/screen/Recording.h"
#include "player/screen/ScreenQueue.h"
#include "tv/Properties.h"
#include "tv/Trace.h"
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

/// @param sound  receives the decoded sound of a file; may be null
Sources openSources(const Scenario& scenario, const std::shared_ptr<SoundStore>& sound) {
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
    request.sound = sound;
    auto reader = std::make_unique<VideoReader>(request);
    sources.audio = reader->openAudio();
    sources.video = std::move(reader);
    return sources;
}

/// Refuses what could never happen, as ScenarioFile does for synthetic content.
void refusePastEnd(const PlaybackPlan& plan, const MediaInfo& media) {
    const auto refuse = [&](const char* key, int64_t us) {
        if (media.durationUs > 0 && us >= media.durationUs) {
            throw InputError(std::string(key) + ": " + seconds(us) + " is past the end of '" +
                             media.path + "', " + seconds(media.durationUs));
        }
    };
    for (const auto& seek : plan.seeks) {
        refuse("player.seek.to", seek.toUs);
    }
    for (const auto& underflow : plan.audio.underflows) {
        refuse("audio.underflow.at", underflow.atMediaUs);
    }
    for (const auto& step : plan.audio.stepBacks) {
        refuse("audio.step_back.at", step.atMediaUs);
    }
}

/// The scenario's plan, completed by its seed and its content.
PlaybackPlan planOf(const Scenario& scenario, const Sources& sources) {
    PlaybackPlan plan = scenario.plan;
    plan.tv.display.seed = scenario.seed;
    plan.withAudio = sources.audio != nullptr;
    if (!plan.toldFrameRate) {
        plan.toldFrameRate = rateInHundredths(sources.video->info().frameRateHz);
    }
    return plan;
}

/// What a scenario writes beside its timeline: its event log, the page with event log and summary,
/// the film.
struct Files {
    Files(const ScenarioRunOptions& options, const std::string& scenario) {
        open(&events, options.eventsFile);
        open(&film, options.recordFile);
        if (!options.reportFolder.empty()) {
            open(&page, options.reportFolder + "/report.html");
            open(&pageEvents, options.reportFolder + "/events.txt");
            open(&pageJson, options.reportFolder + "/summary.json");
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
            if (file == &events || file == &pageEvents) {
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
    std::ofstream film;
    std::ofstream page;
    std::ofstream pageEvents;
    std::ofstream pageJson;
    std::vector<std::pair<std::ofstream*, std::string>> opened;
};

/// The film of a scenario. In virtual time the display waits for it.
class Film {
public:
    Film(const Scenario& scenario, const MediaInfo& media, std::shared_ptr<SoundStore> sound,
         const ScenarioRunOptions& options, std::ostream* out)
        : mPath(options.recordFile),
          mRecording(specOf(scenario, media, std::move(sound), options), out) {
        if (!options.virtualClock) {
            mQueue.emplace(std::vector<ScreenListener*>{&mRecording});
        }
    }
    ScreenListener* listener() {
        return mQueue ? static_cast<ScreenListener*>(&*mQueue) : &mRecording;
    }
    void finish(std::vector<std::string>* failures) const {
        if (!mRecording.failure().empty()) {
            failures->push_back("'" + mPath + "': " + mRecording.failure());
        }
    }

private:
    static RecordingSpec specOf(const Scenario& scenario, const MediaInfo& media,
                                std::shared_ptr<SoundStore> sound,
                                const ScenarioRunOptions& options) {
        const tv::DisplayConfig& display = scenario.plan.tv.display;
        RecordingSpec spec;
        spec.film = {filmFormat(options.recordFile),
                     trueRate(nominalRate(display.rateHz), display.driftPpm), sound != nullptr,
                     !options.virtualClock};
        const bool synthetic = scenario.content.file.empty();
        spec.width = synthetic ? kTestWidth : media.width;
        spec.height = synthetic ? kTestHeight : media.height;
        spec.bar = true;
        spec.sound = std::move(sound);
        return spec;
    }

    static constexpr int kTestWidth = 640;
    static constexpr int kTestHeight = 360;
    const std::string mPath;
    Recording mRecording;
    std::optional<ScreenQueue> mQueue;
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
    const bool recorded = !options.recordFile.empty();
    const auto sound = recorded && scenario.plan.withAudio && !scenario.content.file.empty()
                           ? std::make_shared<SoundStore>()
                           : nullptr;
    Sources sources = openSources(scenario, sound);
    const PlaybackPlan plan = planOf(scenario, sources);
    if (!scenario.content.file.empty()) {
        refusePastEnd(plan, sources.video->info());
    }
    if (!options.traceFile.empty()) {
        tv::setProperty(tv::kLogMaskProperty, std::to_string(tv::kTraceLogMask));
    }
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
    std::optional<Film> film;
    if (recorded) {
        film.emplace(scenario, sources.video->info(), sources.audio ? sound : nullptr, options,
                     &files.film);
        hooks.screens = {film->listener()};
    }
    Origin origin{options.version, options.repeat, options.virtualClock, scenario.seed, ""};
    std::optional<TraceRecorder> timeline;
    std::string traceFailure;
    if (!options.traceFile.empty() && tv::startTrace(options.traceFile, &traceFailure)) {
        hooks.listeners.push_back(&timeline.emplace(origin));
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
    if (timeline) {
        timeline->finish(record, summary);
        traceFailure = tv::stopTrace().failure;
    }
    if (options.report) {
        printReport(std::cerr, record, summary, {}, false);
    }
    ScenarioResult result = resultOf(record, summary);
    result.failures = failures(scenario.expect, record, summary, watch.counts(record.startNs));
    for (auto& line : neverHappened(scenario.actions, record)) {
        result.failures.push_back(std::move(line));
    }
    events.finish();
    result.eventsHash = events.hash();
    if (!traceFailure.empty()) {
        result.failures.push_back("'" + options.traceFile + "': " + traceFailure);
    }
    if (film && files.film) {
        film->finish(&result.failures);
    }
    origin.eventHash = result.eventsHash;
    if (page) {
        files.page.seekp(0);
        writePage(files.page, {scenario.name, scenario.title, result.failures}, origin, record,
                  summary, {}, page.get());
        writeJson(files.pageJson, origin, record, summary, {});
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
        if (scenario.preempt.value_or(false)) {
            limits.preemptions = kPreemptions;
            limits.longestPreemptionNs = kLongestPreemptionNs;
            limits.spuriousWakeups = kSpuriousWakeups;
        }
        clock.emplace(scenario.seed, limits);
    }
    return playScenario(scenario, options);
}

}  // namespace korvane::player
