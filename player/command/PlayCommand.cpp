// SPDX-License-Identifier: Apache-2.0
#include "player/command/PlayCommand.h"

#include <android/log.h>
#include <fmt/format.h>

#include <initializer_list>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "player/base/Errors.h"
#include "player/base/Text.h"
#include "player/command/ExitStatus.h"
#include "player/command/Interrupt.h"
#include "player/command/LibraryChoice.h"
#include "player/command/Message.h"
#include "player/command/OutputFile.h"
#include "player/command/OutputFolder.h"
#include "player/command/Progress.h"
#include "player/command/ScreenOutputs.h"
#include "player/media/VideoReader.h"
#include "player/page/Page.h"
#include "player/page/PageAssets.h"
#include "player/playback/Playback.h"
#include "player/report/EventRecorder.h"
#include "player/report/Report.h"
#include "player/report/ReportBuilder.h"
#include "player/report/TraceRecorder.h"
#include "player/scenario/Expectation.h"
#include "player/scenario/LogWatch.h"
#include "player/screen/LiveView.h"
#include "tv/Log.h"
#include "tv/Properties.h"
#include "tv/Trace.h"
#include "tv/Tv.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::player {
namespace {

/// What --csv, --ledger, --json, --events, --report, --trace, --record and --strip write.
struct Outputs {
    Outputs(const PlayOptions& options, std::shared_ptr<const SoundStore> sound)
        : csv("--csv", options.csvFile),
          ledger("--ledger", options.ledgerFile),
          json("--json", options.jsonFile),
          events("--events", options.eventsFile),
          folder("--report", options.reportFolder),
          page("--report", inFolder(options.reportFolder, "report.html")),
          pageEvents("--report", inFolder(options.reportFolder, "events.txt")),
          pageJson("--report", inFolder(options.reportFolder, "summary.json")),
          trace("--trace", options.traceFile),
          screen(options, std::move(sound)) {
        std::vector<const OutputFile*> all{&csv,  &ledger,     &json,     &events,
                                           &page, &pageEvents, &pageJson, &trace};
        const auto screenFiles = screen.files();
        all.insert(all.end(), screenFiles.begin(), screenFiles.end());
        claim(options.file, all);
    }

    /// Empties the files; the trace's recorder does so itself.
    void begin() {
        folder.keep();
        for (OutputFile* output : written()) {
            output->begin();
        }
        trace.keep();
    }

    /// @return whether all are whole; says which is not
    bool finish() {
        bool whole = true;
        for (OutputFile* output : written()) {
            if (const std::string failure = output->finish(); !failure.empty()) {
                say(failure);
                whole = false;
            }
        }
        return whole;
    }

    std::vector<OutputFile*> written() {
        return {&csv, &ledger, &json, &events, &page, &pageEvents, &pageJson};
    }
    /// Where the event log goes.
    std::vector<std::ostream*> eventStreams() {
        std::vector<std::ostream*> streams;
        for (OutputFile* output : {&events, &pageEvents}) {
            if (output->wanted()) {
                streams.push_back(&output->stream());
            }
        }
        return streams;
    }

    OutputFile csv;
    OutputFile ledger;
    OutputFile json;
    OutputFile events;
    OutputFolder folder;
    OutputFile page;
    OutputFile pageEvents;
    OutputFile pageJson;
    OutputFile trace;
    ScreenOutputs screen;
};

/// Records a trace while it lives. Its thread must end with playback, however that ends: virtual
/// time waits for every thread.
class Trace {
public:
    explicit Trace(const std::string& path) {
        std::string error;
        if (!path.empty() && !tv::startTrace(path, &error)) {
            throw UsageError("--trace: " + error + "; give a file that can be written");
        }
    }
    ~Trace() { tv::stopTrace(); }
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    tv::TraceReport stop() { return tv::stopTrace(); }
};

/// Sums the library's repeated lines while it lives, unless its log is asked for.
class LogSums {
public:
    explicit LogSums(bool wanted) {
        if (wanted) {
            tv::beginSums();
        }
    }
    ~LogSums() { tv::endSums(); }
    LogSums(const LogSums&) = delete;
    LogSums& operator=(const LogSums&) = delete;
};

/// @return null for real time
std::unique_ptr<tv::VirtualTime> startClock(const PlayOptions& options) {
    const bool available = tv::VirtualTime::available();
    if (!options.virtualClock.value_or(available)) {
        return nullptr;
    }
    if (!available) {
        throw UsageError("--clock virtual: this build has no virtual clock; use --clock real");
    }
    tv::VirtualTimeOptions virtualTime;
    virtualTime.onHang = [](const std::string&) { clearProgress(); };
    return std::make_unique<tv::VirtualTime>(options.seed, virtualTime);
}

void setProperties(const PlayOptions& options) {
    auto properties = options.properties;
    if (!options.traceFile.empty()) {
        // First, so that any other that is asked for holds.
        properties.emplace(properties.begin(), tv::kLogMaskProperty,
                           std::to_string(tv::kTraceLogMask));
    }
    if (options.logMask) {
        properties.emplace_back(tv::kLogMaskProperty, std::to_string(*options.logMask));
    }
    for (const auto& [name, value] : properties) {
        if (!tv::setProperty(name, value)) {
            throw UsageError(fmt::format(
                "property {}: a value has at most 91 bytes, this one has {}; give a shorter one",
                name, value.size()));
        }
    }
}

void sayNotes(const PlayOptions& options, const MediaInfo& media) {
    for (const auto& note : withoutEffect(options, media)) {
        say(note);
    }
    for (const auto& note : inputNotes(options, media)) {
        say(note);
    }
    if (!options.virtualClock && !tv::VirtualTime::available()) {
        say("this build has no virtual clock; playing in real time");
    }
}

/// What listens to a playback: the report, and those outputs that are written while it plays.
struct Listeners {
    Listeners(const PlayOptions& options, const MediaInfo& media, const PlaybackPlan& plan,
              const Origin& origin, Outputs* outputs)
        : frames(outputs->csv.wanted() ? std::make_unique<CsvWriter>(outputs->csv.stream())
                                       : nullptr),
          ledger(outputs->ledger.wanted() ? std::make_unique<LedgerWriter>(outputs->ledger.stream())
                                          : nullptr),
          page(outputs->page.wanted() ? std::make_unique<PageRecorder>() : nullptr),
          report(media.frameRateHz, plan, wanted<CadenceListener>()),
          events(outputs->eventStreams()),
          recorder(&events),
          progress(!options.quiet, options.live ? &live : nullptr) {
        hooks.listeners = {&report, &recorder};
        if (options.live) {
            hooks.screens.push_back(&live);
        }
        for (auto* listener : wanted<PlaybackListener>()) {
            hooks.listeners.push_back(listener);
        }
        if (outputs->trace.wanted()) {
            hooks.listeners.push_back(&trace.emplace(origin));
        }
        hooks.interrupted = interrupted;
        if (options.expect) {
            watch.emplace(options.expect->log, nullptr);
        }
        hooks.onLogLine = [this, lowest = lowestLogPriority(options)](const tv::LogLine& line) {
            if (line.priority >= lowest) {
                clearProgress();
            }
            report.seeLog(line, tv::nowNs() / 1000);
            if (watch) {
                watch->see(line);
            }
            if (page) {
                page->onLogLine(line);
            }
        };
        hooks.onProgress = [this](const PlaybackProgress& state, int64_t nowNs) {
            progress.update(state, nowNs);
        };
    }

    /// Those of the ledger's readers that are wanted.
    template <typename Listener>
    std::vector<Listener*> wanted() const {
        std::vector<Listener*> listeners;
        for (LedgerListener* listener :
             std::initializer_list<LedgerListener*>{frames.get(), ledger.get(), page.get()}) {
            if (listener != nullptr) {
                listeners.push_back(listener);
            }
        }
        return listeners;
    }

    std::unique_ptr<CsvWriter> frames;
    std::unique_ptr<LedgerWriter> ledger;
    std::unique_ptr<PageRecorder> page;  ///< null: not asked for
    ReportBuilder report;
    EventLog events;
    EventRecorder recorder;
    std::optional<TraceRecorder> trace;
    std::optional<LogWatch> watch;  ///< counts the lines that --expect names
    LiveView live;
    Progress progress;
    PlaybackHooks hooks;
};

/// What --expect wants and does not hold.
std::vector<std::string> unmet(const PlayOptions& options, const PlaybackRecord& record,
                               const Summary& summary, const Listeners& listeners) {
    return options.expect
               ? failures(*options.expect, record, summary, listeners.watch->counts(record.startNs))
               : std::vector<std::string>();
}

/// Writes everything that is known only after playback.
/// @return whether all outputs are whole
bool writeResults(const PlayOptions& options, const PlaybackRecord& record, const Summary& summary,
                  const tv::TraceReport& trace, const std::vector<std::string>& failed,
                  const Origin& origin, PageRecorder* page, Outputs* outputs) {
    if (record.end == EndCause::BrokenOff) {
        say("'" + options.file + "' breaks off in the middle; it was played up to there");
    }
    printReport(std::cout, record, summary, trace, options.quiet);
    for (const auto& failure : failed) {
        std::cout << "FAILED    " << printable(failure) << "\n";
    }
    if (!origin.library.empty() && !options.quiet) {
        std::cout << fmt::format("library   {}, hash {}\n", printable(origin.library),
                                 origin.libraryHash);
    }
    if (origin.virtualTime && !options.quiet) {
        std::cout << fmt::format("repeat    events {} from {}\n", origin.eventHash,
                                 origin.commandLine);
    }
    std::cout << std::flush;
    for (OutputFile* json : {&outputs->json, &outputs->pageJson}) {
        if (json->wanted()) {
            writeJson(json->stream(), origin, record, summary, trace);
        }
    }
    if (page != nullptr) {
        const std::string name = options.file.substr(options.file.find_last_of('/') + 1);
        outputs->page.stream().seekp(0);
        writePage(outputs->page.stream(), {name, "", failed}, origin, record, summary, trace, page);
    }
    if (!trace.failure.empty()) {
        say("--trace: " + trace.failure + "; the trace is not whole, playback and summary are");
    }
    const bool seen = outputs->screen.finish(summary);
    return outputs->finish() && seen && trace.failure.empty();
}

/// Unaccounted frames take precedence over how playback ended. Expectations come last:
/// where playback was cut short, that is why they fail.
int statusOf(const PlayOptions& options, const PlaybackRecord& record, const Summary& summary,
             bool expected, bool written) {
    if (!summary.accounted() || record.overwrittenOnScreen > 0 || !written) {
        return kExitFailed;
    }
    if (record.end == EndCause::Interrupted) {
        return 128 + interruptingSignal();
    }
    const bool complete = record.end == EndCause::Complete;
    const bool quit = options.window && record.end == EndCause::Stopped;
    if (!complete && !quit && !(options.expect && options.expect->end == record.end)) {
        return kExitCutShort;
    }
    const bool blank = complete && summary.count(Outcome::Shown) == 0;
    return expected && !blank ? kExitOk : kExitFailed;
}

}  // namespace

int lowestLogPriority(const PlayOptions& options) {
    return options.logMask ? ANDROID_LOG_DEBUG : ANDROID_LOG_WARN;
}

int playFile(const PlayOptions& options) {
    // Virtual time has to begin before anything starts a thread.
    const auto clock = startClock(options);
    MediaRequest request = requestOf(options);
    request.interrupted = interrupted;
    if (!options.recordFile.empty() || options.window) {
        request.sound = std::make_shared<SoundStore>();
    }
    if (!options.reportFolder.empty() && !pageLacks().empty()) {
        throw std::runtime_error("--report: " + std::string(pageLacks()));
    }
    VideoReader video(request);
    const PlaybackPlan plan = planOf(options, video.info());
    auto audio = video.openAudio();
    Outputs outputs(options, request.sound);
    setProperties(options);
    outputs.begin();
    if (outputs.page.wanted()) {
        writeUnfinishedPage(outputs.page.stream(), options.file);
        outputs.page.stream().flush();
    }
    Trace trace(options.traceFile);
    catchInterrupts();
    sayNotes(options, video.info());

    Origin origin{
        options.version, options.repeat, clock != nullptr, options.seed, "", options.library, ""};
    if (!options.library.empty()) {
        origin.libraryHash = hashOfFile(options.library);
    }
    Listeners listeners(options, video.info(), plan, origin, &outputs);
    std::optional<LogSums> sums(!options.logMask);
    outputs.screen.begin(video.info(), clock != nullptr, listeners.report, &listeners.hooks);
    const PlaybackRecord record = play(plan, video, std::move(audio), listeners.hooks);
    listeners.progress.end();
    sums.reset();
    const Summary summary = listeners.report.finish(record);
    if (listeners.trace) {
        listeners.trace->finish(record, summary);
    }
    const tv::TraceReport traceReport = trace.stop();
    listeners.events.finish();
    origin.eventHash = listeners.events.hash();
    const auto failed = unmet(options, record, summary, listeners);
    const bool written = writeResults(options, record, summary, traceReport, failed, origin,
                                      listeners.page.get(), &outputs);
    return statusOf(options, record, summary, failed.empty(), written);
}

}  // namespace korvane::player
