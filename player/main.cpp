// SPDX-License-Identifier: Apache-2.0
// korvane-tv: the command line. Exit status 0 when every frame is accounted for and every buffer
// came back; 1 when not, or when an output could not be written; 2 for wrong usage or input, which
// leaves every output as it was.
#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "player/command/OutputFile.h"
#include "player/command/PlayOptions.h"
#include "player/command/Progress.h"
#include "player/command/RunCommand.h"
#include "player/media/VideoReader.h"
#include "player/playback/Playback.h"
#include "player/report/EventRecorder.h"
#include "player/report/ReportBuilder.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::player {
namespace {

constexpr int kExitOk = 0;
constexpr int kExitUnaccounted = 1;
constexpr int kExitUsage = 2;

/// Android's log priorities.
constexpr int kLogDebug = 3;
constexpr int kLogWarn = 5;

/// The system property from which the library takes its log mask.
constexpr char kLogMaskProperty[] = "vendor.korvane.loglevels";

/// Descriptors of standard input, output and error.
constexpr int kStandardFiles = 3;

std::atomic<bool> gInterrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set in a signal handler");

/// The first signal asks playback to stop; from then on they kill as usual.
void onSignal(int) {
    gInterrupted = true;
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

void catchSignals() {
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
}

/// A standard file that is closed stays unwritable, but none that is opened later takes its number
/// and then what was meant for the screen.
void holdStandardFiles() {
    for (int fd = 0; fd < kStandardFiles; ++fd) {
        if (fcntl(fd, F_GETFD) < 0) {
            open("/dev/null", O_RDONLY);  // takes the lowest free number
        }
    }
}

/// The one form in which anything that went wrong is told.
void say(const std::string& message) {
    clearProgress();
    std::string text = message;
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::fprintf(stderr, "korvane-tv: %s\n", text.c_str());
}

/// Of what is logged, what comes to standard error.
int lowestPriority(const PlayOptions& options) {
    return options.logMask ? kLogDebug : kLogWarn;
}

void setProperties(const PlayOptions& options) {
    auto properties = options.properties;
    if (options.logMask) {
        properties.emplace_back(kLogMaskProperty, std::to_string(*options.logMask));
    }
    for (const auto& [name, value] : properties) {
        if (!tv::setProperty(name, value)) {
            throw UsageError("property " + name + ": a value has at most 91 bytes, this one has " +
                             std::to_string(value.size()) + "; give a shorter one");
        }
    }
}

/// The trace's thread ends with this, however playback ends: virtual time waits for every thread.
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

/// The clock that was asked for, or the virtual one where this build has it.
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

int playAndReport(const PlayOptions& options) {
    // Before anything makes a thread.
    const auto clock = startClock(options);
    MediaRequest request = requestOf(options);
    request.interrupted = [] { return gInterrupted.load(); };
    VideoReader reader(request);
    const PlaybackPlan plan = planOf(options, reader.info());
    auto audio = reader.openAudio();
    OutputFile csv("--csv", options.csvFile);
    OutputFile json("--json", options.jsonFile);
    OutputFile eventsFile("--events", options.eventsFile);
    OutputFile traceFile("--trace", options.traceFile);
    checkApart(options.file, {&csv, &json, &eventsFile, &traceFile});
    setProperties(options);
    // All is accepted; what the files held before goes now.
    for (OutputFile* output : {&csv, &json, &eventsFile}) {
        output->begin();
    }
    Trace trace(options.traceFile);
    traceFile.release();
    catchSignals();
    ReportBuilder report(reader.info().frameRateHz, plan);
    EventLog events(eventsFile.wanted() ? &eventsFile.stream() : nullptr);
    EventRecorder recorder(&events);
    PlaybackPorts ports;
    ports.listeners = {&report, &recorder};
    std::optional<CsvWriter> frames;
    if (csv.wanted()) {
        ports.listeners.push_back(&frames.emplace(csv.stream()));
    }
    ports.interrupted = [] { return gInterrupted.load(); };
    ports.onLogLine = [lowest = lowestPriority(options)](const tv::LogLine& line) {
        if (line.priority >= lowest) {
            clearProgress();
        }
    };
    for (const auto& note : withoutEffect(options, reader.info())) {
        say(note);
    }
    for (const auto& note : inputNotes(options, reader.info())) {
        say(note);
    }
    if (!clock && !options.virtualClock) {
        say("this build has no virtual clock; playing in real time");
    }
    Progress progress(!options.quiet);
    ports.onProgress = [&progress](const PlaybackProgress& state, int64_t nowNs) {
        progress.update(state, nowNs);
    };
    const PlaybackRecord record = play(plan, reader, std::move(audio), ports);
    clearProgress();
    const tv::TraceReport traceReport = trace.stop();
    const Summary summary = report.finish(record);
    if (record.end == EndCause::BrokenOff) {
        say("'" + options.file + "' breaks off in the middle; it was played up to there");
    }
    events.finish();
    printReport(std::cout, record, summary, traceReport, options.quiet);
    if (clock && !options.quiet) {
        std::cout << "repeat    events " << events.hash() << " from " << options.repeat << "\n";
    }
    std::cout.flush();
    if (json.wanted()) {
        writeJson(json.stream(), record, summary, traceReport);
    }
    bool written = traceReport.failure.empty();
    if (!written) {
        say("--trace: " + traceReport.failure +
            "; the trace is not whole, playback and summary are");
    }
    for (OutputFile* output : {&csv, &json, &eventsFile}) {
        if (const std::string failure = output->finish(); !failure.empty()) {
            say(failure);
            written = false;
        }
    }
    return summary.ok() && written ? kExitOk : kExitUnaccounted;
}

int runAll(RunOptions options) {
    if (options.virtualClock && !tv::VirtualTime::available()) {
        say("this build has no virtual clock; scenarios are played in real time");
        options.virtualClock = false;
    }
    return runScenarios(options, std::cout);
}

/// Reads the command line and lets through as much of the log as it asks for. What the library
/// logged while it was being loaded waits until here.
CommandLine readCommandLine(int argc, char** argv) {
    const std::string version = "korvane-tv " KORVANE_VERSION " (" + ffmpegVersions() + ")";
    try {
        CommandLine line = parseCommandLine(argc, argv, version);
        tv::openLog(lowestPriority(line.play));
        return line;
    } catch (const UsageError&) {
        tv::openLog(kLogWarn);
        throw;
    }
}

int carryOut(const CommandLine& line) {
    if (!line.text.empty()) {
        std::cout << line.text;
        return kExitOk;
    }
    switch (line.command) {
        case Command::Run:
            return runAll(line.run);
        case Command::List:
            return listScenarios(line.list, std::cout);
        case Command::Play:
            break;
    }
    return playAndReport(line.play);
}

int run(int argc, char** argv) {
    try {
        const int status = carryOut(readCommandLine(argc, argv));
        if (!std::cout.flush()) {
            say("standard output could not be written whole; free some space and try again");
            return std::max(status, kExitUnaccounted);
        }
        return status;
    } catch (const UsageError& error) {
        say(error.what());
        return kExitUsage;
    } catch (const InputError& error) {
        say(error.what());
        return kExitUsage;
    } catch (const std::exception& error) {
        say(error.what());
        return kExitUnaccounted;
    }
}

}  // namespace
}  // namespace korvane::player

#if defined(__SANITIZE_THREAD__)
/// FFmpeg is not built with the thread sanitizer, which sees the memory that its decoder threads
/// hand round but not the atomics by which they do.
extern "C" const char* __tsan_default_suppressions();   // NOLINT(bugprone-reserved-identifier)
extern "C" const char* __tsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
    return "called_from_lib:libavcodec.so\n"
           "called_from_lib:libavformat.so\n"
           "called_from_lib:libavutil.so\n";
}
#endif

int main(int argc, char** argv) {
    korvane::player::holdStandardFiles();
    return korvane::player::run(argc, argv);
}
