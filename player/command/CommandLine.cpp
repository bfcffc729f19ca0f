// SPDX-License-Identifier: Apache-2.0
#include "player/command/CommandLine.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string_view>

#include "player/base/Limits.h"
#include "player/base/Text.h"
#include "player/base/Units.h"
#include "player/scenario/ScenarioFile.h"

namespace korvane::player {
namespace {

using Words = std::vector<std::string>;

std::string programNames() {
    std::string names;
    for (const char* const name : kProgramNames) {
        names += std::string(names.empty() ? "" : ", ") + name;
    }
    return names;
}

bool startsWith(const std::string& text, std::string_view start) {
    return text.compare(0, start.size(), start) == 0;
}

/// A kind of value: its name in the help, its parser, and the end of the message about a text that
/// the parser does not accept: "'5x' is not " + wanted.
template <typename Value>
struct Kind {
    std::string name;
    std::function<std::optional<Value>(const std::string&)> parse;
    std::string wanted;
    /// Whether the parser refuses a text for its length alone; null: no length is too long.
    std::function<bool(const std::string&)> tooLong = nullptr;
};

template <typename Parse>
auto bounded(Parse parse, double least, double most) {
    return [=](const std::string& text) {
        auto value = parse(text);
        return value && *value >= least && *value <= most ? value : std::nullopt;
    };
}

/// Of a negative duration its sign is wrong before its length.
bool exceedsLongest(const std::string& text) {
    return !startsWith(text, "-") && isTooLong(text);
}

const Kind<int64_t> kDuration{"TIME", bounded(parseDuration, 0, kLongestUs),
                              "a duration; write for example 2s or 200ms", exceedsLongest};
const Kind<int64_t> kLength{"TIME", bounded(parseDuration, 1, kLongestUs),
                            "a duration of more than 0; write for example 10s", exceedsLongest};
const Kind<int64_t> kJitter{"TIME", bounded(parseDuration, 0, kMostVsyncJitterUs),
                            "a duration of at most 5ms; write for example 500us"};

Kind<DurationPair> durationPair(const std::string& name) {
    return {name, parseDurationPair, "a pair of durations; write for example 5s:800ms",
            [](const std::string& text) {
                const size_t colon = text.find(':');
                return colon != text.npos && (exceedsLongest(text.substr(0, colon)) ||
                                              exceedsLongest(text.substr(colon + 1)));
            }};
}

Kind<FrameRate> rateBetween(double lowestHz, double highestHz) {
    return {"HZ",
            [=](const std::string& text) {
                const auto rate = parseRate(text);
                const bool taken = rate && rate->hz() >= lowestHz && rate->hz() <= highestHz;
                return taken ? rate : std::nullopt;
            },
            fmt::format("between {} and {} Hz; write for example 60, 59.94 or 60000/1001", lowestHz,
                        highestHz)};
}

const Kind<FrameRate> kDisplayRate = rateBetween(kLowestDisplayHz, kHighestDisplayHz);
const Kind<FrameRate> kContentRate = rateBetween(kLowestContentHz, kHighestContentHz);

const Kind<double> kDrift{
    "PPM", parseDrift,
    fmt::format("between -{0} and {0} parts per million; write for example 50ppm", kMostDriftPpm)};

Kind<int64_t> count(int64_t least, int64_t most, const std::string& unit) {
    return {"N", bounded(parseCount, static_cast<double>(least), static_cast<double>(most)),
            fmt::format("a whole number of {} between {} and {}", unit, least, most)};
}

std::optional<uint64_t> parseSeed(const std::string& text) {
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    const bool whole = result.ec == std::errc() && result.ptr == end;
    return whole ? std::optional(value) : std::nullopt;
}

const Kind<uint64_t> kSeed{"N", parseSeed, "a seed; write a whole number of 0 or more"};

constexpr uint64_t kMostSeeds = 100'000;

const Kind<SeedRange> kSeeds{
    "N..M",
    [](const std::string& text) -> std::optional<SeedRange> {
        const size_t dots = text.find("..");
        const auto first = parseSeed(text.substr(0, dots));
        const auto last = dots == text.npos ? first : parseSeed(text.substr(dots + 2));
        const bool valid = first && last && *first <= *last && *last - *first < kMostSeeds;
        return valid ? std::optional(SeedRange{*first, *last}) : std::nullopt;
    },
    "a range of seeds, 100000 at most; write for example 1..50"};

const Kind<int32_t> kLogMask{
    "MASK",
    [](const std::string& text) {
        char* end = nullptr;
        const long value = std::strtol(text.c_str(), &end, 0);
        const bool number = text[0] >= '0' && text[0] <= '9' && *end == '\0';
        return number && value <= INT32_MAX ? std::optional(static_cast<int32_t>(value))
                                            : std::nullopt;
    },
    "a log mask; add up 1 (lifecycle), 2 (frames), 4 (detail), 16 (trace counters), for example 3"};

using Property = std::pair<std::string, std::string>;
const Kind<Property> kProperty{
    "NAME=VALUE",
    [](const std::string& text) {
        const size_t equals = text.find('=');
        return equals == text.npos || equals == 0
                   ? std::nullopt
                   : std::optional(Property(text.substr(0, equals), text.substr(equals + 1)));
    },
    "a property; write NAME=VALUE"};

const Kind<std::string> kExpectation{
    "KEY[=VALUE]",
    [](const std::string& text) { return text.empty() ? std::nullopt : std::optional(text); },
    "an expectation; write for example even or dropped=0"};

const Kind<std::string> kLibraryFile{
    "PATH",
    [](const std::string& text) { return text.empty() ? std::nullopt : std::optional(text); },
    "a library; write the path of a libkorvane_tunnelrenderer.so"};

const Kind<StrategyKind> kStrategy{
    "NAME",
    [](const std::string& text) {
        for (const auto kind :
             {StrategyKind::Random, StrategyKind::Pct, StrategyKind::Exhaustive}) {
            if (text == toString(kind)) {
                return std::optional(kind);
            }
        }
        return std::optional<StrategyKind>();
    },
    "a strategy; write random, pct or exhaustive"};

const Kind<std::string> kScheduleText{"SCHEDULE", kLibraryFile.parse,
                                      "a schedule; write what explore printed"};

/// Whether the clock is virtual.
const Kind<bool> kClock{"MODE",
                        [](const std::string& text) {
                            const bool known = text == "virtual" || text == "real";
                            return known ? std::optional(text == "virtual") : std::nullopt;
                        },
                        "a clock; write virtual or real"};

const Kind<PictureSize> kPictureSize{
    "WxH",
    [](const std::string& text) {
        const size_t by = text.find('x');
        const auto side = [](const std::string& number) {
            const auto value = parseCount(number);
            return value && kPictureSide.holds(*value) ? static_cast<int>(*value) : 0;
        };
        const PictureSize size{side(text.substr(0, by)),
                               by == text.npos ? 0 : side(text.substr(by + 1))};
        return size.width > 0 && size.height > 0 ? std::optional(size) : std::nullopt;
    },
    "a size; write for example 960x540"};

const Kind<StripTarget> kStripTarget{"AT", parseStripTarget,
                                     "a moment; write break, frame:500 or a time such as 12.5s"};

const Kind<std::string> kOutputFile{
    "FILE",
    [](const std::string& text) {
        return text.empty() || text == "-" ? std::nullopt : std::optional(text);
    },
    "a file; standard output gets the report, write the name of a file"};

const Kind<std::string> kOutputFolder{"DIR", kOutputFile.parse, "a folder; write its name"};

/// Adds an option that may be repeated; `take` gets each value.
template <typename Value, typename Take>
CLI::Option* addEach(CLI::App* app, const std::string& name, const Kind<Value>& kind,
                     const std::string& help, Take take) {
    const auto check = [kind](const std::string& text) {
        return kind.parse(text) ? ""
               : kind.tooLong && kind.tooLong(text)
                   ? fmt::format("'{}' {}", text, kTooLong)
                   : fmt::format("'{}' is not {}", text, kind.wanted);
    };
    const auto takeAll = [kind, take](const Words& texts) {
        for (const auto& text : texts) {
            take(*kind.parse(text));
        }
    };
    return app->add_option_function<Words>(name, takeAll, help)
        ->check(check)
        ->type_name(kind.name)
        ->type_size(1)
        ->allow_extra_args(false)
        ->take_all();
}

/// Adds an option that is given at most once.
template <typename Value, typename Target>
CLI::Option* add(CLI::App* app, const std::string& name, const Kind<Value>& kind,
                 const std::string& help, Target* target) {
    const auto take = [target](const Value& value) { *target = static_cast<Target>(value); };
    return addEach(app, name, kind, help, take)
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::Throw);
}

CLI::Option* addFlag(CLI::App* app, const std::string& name, bool* value, const std::string& help) {
    return app->add_flag(name, *value, help)->disable_flag_override();
}

/// Which streams of the input are played.
void addStreamOptions(CLI::App* app, PlayOptions* options) {
    const Kind<int64_t> index = count(0, kMostStreams, "the streams that the report lists");
    add(app, "--video", index, "Index of the video stream, as FFmpeg counts them [the best one]",
        &options->videoStream);
    const Kind<std::string> indexOrNone{
        "N",
        [parse = index.parse](const std::string& text) {
            return text == "none" || parse(text) ? std::optional(text) : std::nullopt;
        },
        "none or " + index.wanted};
    addEach(app, "--audio", indexOrNone, "Index of the audio stream, or none [the best one]",
            [options, parse = index.parse](const std::string& text) {
                options->noAudio = options->noAudio || text == "none";
                if (const auto stream = parse(text)) {
                    options->audioStream = static_cast<int>(*stream);
                }
            })
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::Throw);
    add(app, "--program", index, "Number of the program, as the report lists them [the video's]",
        &options->program);
    add(app, "--input-rate", kContentRate,
        "Pictures per second of an input without times, such as an image sequence [25]",
        &options->inputRate);
}

void addDisplayOptions(CLI::App* app, PlayOptions* options) {
    add(app, "--rate", kDisplayRate,
        "Refresh rate [60]; broadcast rates mean exact fractions: 59.94 is 60000/1001",
        &options->rate);
    add(app, "--display-drift", kDrift,
        "How much faster than its nominal rate the display runs [0]", &options->displayDriftPpm);
    add(app, "--vsync-jitter", kJitter,
        "Largest error of the vsync times that the display reports, at most 5ms [0]",
        &options->vsyncJitterUs);
}

void addAudioOptions(CLI::App* app, PlayOptions* options) {
    add(app, "--audio-delay", kDuration,
        "Time from the first audio packet to the first sound [50ms]", &options->audioDelayUs);
    add(app, "--audio-drift", kDrift, "How much faster than the monotonic clock audio plays [0]",
        &options->audioDriftPpm);
    addEach(app, "--audio-underflow", durationPair("AT:TIME"),
            "At media time AT audio underflows for TIME (5s:800ms); may be repeated",
            [options](const DurationPair& pair) {
                options->underflows.push_back({pair.firstUs, pair.secondUs});
            });
    addFlag(app, "--no-audio", &options->noAudio, "Play the video only");
}

void addPlaybackOptions(CLI::App* app, PlayOptions* options) {
    add(app, "--seconds", kLength, "Play only this much of the file", &options->limitUs);
    addFlag(app, "--passthrough", &options->passthrough,
            "Tuner pass-through: the media-sync instance decides about each frame");
    addFlag(app, "--peek", &options->peek, "Show the first frame at once, before audio starts");
    addEach(app, "--flush-at",
            Kind<int64_t>{"AT", kDuration.parse, kDuration.wanted, kDuration.tooLong},
            "Flush audio and video once AT has been shown, then go on; may be repeated",
            [options](int64_t atUs) {
                options->seeks.push_back({atUs, 0, true, true});
            });
    addEach(app, "--seek", durationPair("AT:TO"),
            "Seek to TO once AT has been shown (2s:10s); may be repeated",
            [options](const DurationPair& pair) {
                options->seeks.push_back({pair.firstUs, pair.secondUs, false, true});
            });
    addEach(app, "--video-stall", durationPair("AT:TIME"),
            "At media time AT send no frame for TIME (2s:300ms); may be repeated",
            [options](const DurationPair& pair) {
                options->videoStalls.push_back({pair.firstUs, pair.secondUs});
            });
    add(app, "--buffers", count(kFewestBuffers, kMostBuffers, "buffers"),
        "Frame buffers of the player, 5 to 64 [16, or down to 8 beyond 512 MB]", &options->buffers);
}

void addLibraryOption(CLI::App* app, std::string* library) {
    add(app, "--library", kLibraryFile,
        "Play on this build of libkorvane_tunnelrenderer.so [the one linked with korvane-tv]",
        library);
}

void addPlatformOptions(CLI::App* app, PlayOptions* options) {
    add(app, "--log", kLogMask,
        "Print the library's log; add up 1 lifecycle, 2 frames, 4 detail, 16 trace counters (sets "
        "vendor.korvane.loglevels). Without it only warnings and errors are printed",
        &options->logMask);
    addEach(app, "--prop", kProperty, "Set a system property; may be repeated",
            [options](const Property& property) { options->properties.push_back(property); });
    addLibraryOption(app, &options->library);
    add(app, "--against", kLibraryFile,
        "Play on that build first, then on the present one, and compare the two; --report DIR "
        "keeps "
        "both and the comparison's page",
        &options->against);
}

void addClockOptions(CLI::App* app, PlayOptions* options) {
    add(app, "--clock", kClock,
        "virtual: simulated time, as fast as the machine can; real: real time [virtual]",
        &options->virtualClock);
    add(app, "--seed", kSeed,
        "Seed of all that is random: the order of threads and the vsync jitter. The same seed "
        "gives the same playback [1]",
        &options->seed);
}

void addCheckOptions(CLI::App* app, Words* expectations) {
    addEach(app, "--expect", kExpectation,
            "Fail unless this holds; takes what a scenario's [expect] does, such as even, "
            "pattern=[3:2] or dropped=..3; may be repeated",
            [expectations](const std::string& text) { expectations->push_back(text); });
}

void addOutputOptions(CLI::App* app, PlayOptions* options) {
    add(app, "--trace", kOutputFile,
        "Record a timeline for the Perfetto UI, say FILE.pftrace; switches the library's trace "
        "counters on, unless --log is given",
        &options->traceFile);
    add(app, "--csv", kOutputFile, "Write one line per frame, after a header line",
        &options->csvFile);
    add(app, "--json", kOutputFile, "Write the summary as one flat JSON object, one key per line",
        &options->jsonFile);
    add(app, "--events", kOutputFile,
        "Write one line per event: sent, queued, shown, returned, dropped, ...",
        &options->eventsFile);
    add(app, "--record", kOutputFile,
        "Record the screen at every vsync with the sound that was heard, as .mp4, .mkv or .webm",
        &options->recordFile);
    addFlag(app, "--record-bar", &options->recordBar,
            "Put a bar below the recording: frame, vsync, dwell, pattern, offset from the clock");
    add(app, "--record-size", kPictureSize, "Size of the recording's pictures [the film's]",
        &options->recordSize);
    add(app, "--strip", kOutputFile, "Write the vsyncs around a moment as one picture (PNG)",
        &options->stripFile);
    add(app, "--strip-at", kStripTarget,
        "The moment: break, the first unexpected dwell; frame:N; or a time since start [break]",
        &options->stripAt);
    add(app, "--ledger", kOutputFile,
        "Write one JSON object per line and frame, with the names of --csv", &options->ledgerFile);
    add(app, "--report", kOutputFolder,
        "Write report.html, a page with charts to look at, events.txt and summary.json into this "
        "folder",
        &options->reportFolder);
    addFlag(app, "--live", &options->live,
            "On a terminal, show dwells, pattern, offset, buffers and drops while playing");
    addFlag(app, "--window", &options->window,
            "Show the TV's screen in a window, in real time, with sound; space pauses, arrows "
            "seek, . steps a vsync, i shows the live figures, q quits");
    addFlag(app, "-q,--quiet", &options->quiet,
            "Print no progress, and only the verdict of the report");
}

CLI::App* addPlayCommand(CLI::App* app, PlayOptions* options, Words* expectations) {
    CLI::App* play = app->add_subcommand(
        "play",
        "Play a media file on the simulated TV and report what was on screen. Durations are "
        "written 2s, 200ms, 1h30m or 1.5 (seconds).");
    play->add_option("FILE", options->file,
                     "What to play: a media file; - for standard input; pictures img%03d.png; a "
                     "playlist concat:LIST or hls:LIST; a generator lavfi:GRAPH; any address that "
                     "FFmpeg reads")
        ->type_name("")
        ->required();
    const std::pair<const char*, void (*)(CLI::App*, PlayOptions*)> groups[] = {
        {"Streams", addStreamOptions},    {"Display", addDisplayOptions},
        {"Audio", addAudioOptions},       {"Playback", addPlaybackOptions},
        {"Platform", addPlatformOptions}, {"Clock", addClockOptions},
        {"Output", addOutputOptions}};
    for (const auto& [group, addOptions] : groups) {
        play->option_defaults()->group(group);
        addOptions(play, options);
    }
    play->option_defaults()->group("Expectations");
    addCheckOptions(play, expectations);
    play->footer(
        "Exit status: 0 played to its end, every frame is accounted for and every buffer was "
        "returned; 1 a frame or buffer is not, an expectation failed, or an output could not be "
        "written; 2 wrong usage or "
        "input, no output is touched; 3 the threads hang; 4 playback stalled or the film breaks "
        "off; 130 or 143 ended by SIGINT (Ctrl-C) or SIGTERM, the report and the outputs are "
        "whole.");
    return play;
}

CLI::App* addRunCommand(CLI::App* app, RunOptions* options) {
    CLI::App* run =
        app->add_subcommand("run", "Play scenarios, check what they expect, print a verdict each.");
    run->add_option("SCENARIO", options->paths,
                    "Scenario files (*.toml), folders of them, or names of installed ones")
        ->type_name("")
        ->required();
    add(run, "-j,--jobs", count(1, kMostJobs, "scenarios"),
        "Scenarios that play at a time, 1 to 256 [1]", &options->jobs);
    CLI::Option* const seed =
        add(run, "--seed", kSeed, "Seed of all scenarios, instead of their own", &options->seed);
    add(run, "--seeds", kSeeds,
        "Play each scenario with each of these seeds, as NAME-seedN; for example 1..50",
        &options->seeds)
        ->excludes(seed);
    addFlag(
        run, "--preempt", &options->preempt,
        "Let threads lose the processor at locks, waits and notifications, and waits end without "
        "cause; the seed determines where [only with another seed than the scenario's own, unless "
        "the scenario has preempt = false]");
    add(run, "--clock", kClock, "virtual or real [virtual]", &options->virtualClock);
    add(run, "--events", kOutputFolder,
        "Keep the event logs in this folder, as NAME.events; a second scenario of the same name "
        "is NAME-2",
        &options->eventsFolder);
    add(run, "--trace", kOutputFolder,
        "Write timelines for the Perfetto UI into this folder, as NAME.pftrace",
        &options->traceFolder);
    add(run, "--record", kOutputFolder,
        "Record the screens into this folder, as NAME.mp4, with the bar of --record-bar",
        &options->recordFolder);
    add(run, "--report", kOutputFolder,
        "Write into this folder index.html and, in a folder per scenario, report.html with charts "
        "to look at, events.txt and summary.json",
        &options->reportFolder);
    addLibraryOption(run, &options->library);
    addFlag(run, "-v,--verbose", &options->verbose, "Print each report and the library's log");
    run->footer(
        "A scenario says what is played, on which TV with which faults, and what is expected; "
        "docs/scenarios.md describes every key.\n"
        "Exit status: 0 all as expected; 1 an expectation failed; 2 wrong usage, or a file that is "
        "no scenario.");
    return run;
}

CLI::App* addListCommand(CLI::App* app, ListOptions* options) {
    CLI::App* list = app->add_subcommand("list", "Print what each scenario shows and expects.");
    list->add_option("DIR", options->path,
                     "A folder of scenarios, or one scenario [scenarios, else the installed ones]")
        ->type_name("");
    return list;
}

CLI::App* addCompareCommand(CLI::App* app, CompareOptions* options) {
    CLI::App* compare = app->add_subcommand(
        "compare",
        "Compare two playbacks frame by frame: is B as good as A? Frames of the same "
        "media time belong together.");
    for (const auto& [name, value] : {std::pair("A", &options->a), std::pair("B", &options->b)}) {
        compare
            ->add_option(name, *value, "A file of --events, or a folder that has one as events.txt")
            ->type_name("")
            ->required();
    }
    addFlag(compare, "--frames", &options->frames, "Print each frame that differs");
    add(compare, "--json", kOutputFile,
        "Write all figures, and all frames that differ, as one JSON object", &options->jsonFile);
    add(compare, "--report",
        Kind<std::string>{"DIR", kOutputFile.parse, "a folder; write its name"},
        "Write a page with both, compare.html, into this folder", &options->reportFolder);
    compare->footer(
        "Exit status: 0 B is the same, better or no worse; 1 B is worse, the films are not the "
        "same, or an output could not be written; 2 wrong usage, or no event log.");
    return compare;
}

CLI::App* addExploreCommand(CLI::App* app, ExploreCommandOptions* options) {
    CLI::App* explore = app->add_subcommand(
        "explore",
        "Play short programs under many schedules of their threads, and say what breaks.");
    explore
        ->add_option("SCENARIO", options->paths,
                     "Scenarios as for run, or names of built-in programs [all of these]")
        ->type_name("");
    add(explore, "--for", kLength, "Explore for this long [1m, or as --schedules says]",
        &options->forUs);
    add(explore, "--schedules", count(1, kMostSchedules, "schedules"), "Visit this many schedules",
        &options->schedules);
    addEach(explore, "--strategy", kStrategy,
            "random: a walk; pct: priorities that change at a few points; exhaustive: all with few "
            "preemptions [random and pct in turn]; may be repeated",
            [options](StrategyKind kind) { options->strategies.push_back(kind); });
    add(explore, "--preemptions", count(0, kMostPreemptions, "preemptions"),
        "Most preemptions of an exhaustive run [2]", &options->preemptions);
    add(explore, "-j,--jobs", count(1, kMostJobs, "processes"), "Processes at a time [1]",
        &options->jobs);
    add(explore, "--frames", count(1, kMostExploredFrames, "frames"),
        "Frames that a scenario or program sends at most [10]", &options->frames);
    add(explore, "--seed", kSeed, "Seed of the random strategies [1]", &options->seed);
    addFlag(explore, "--until-fault", &options->untilFault, "End with the first fault");
    add(explore, "--replay", kScheduleText,
        "Play this one schedule of the one SCENARIO, and list what the library did",
        &options->replay);
    add(explore, "--trace", kOutputFile, "Record a timeline of the replay for the Perfetto UI",
        &options->traceFile);
    addLibraryOption(explore, &options->library);
    explore->footer(
        "docs/exploring.md says what this finds and what not. Programs: " + programNames() +
        ".\nExit status: 0 no fault found; 1 a fault; 2 wrong usage, or a file that is no "
        "scenario.");
    return explore;
}

/// What CLI11 did not take, option first, as it was typed: of "-qz" CLI11 leaves "-z".
/// @return empty if there is none
std::string leftOver(const CLI::App& app, const Words& words) {
    const Words left = app.remaining(true);
    if (left.empty()) {
        return "";
    }
    auto first = std::find_if(left.begin(), left.end(),
                              [](const auto& word) { return startsWith(word, "-"); });
    first = first != left.end() ? first : left.begin();
    if (!startsWith(*first, "-") || std::count(words.begin(), words.end(), *first) > 0) {
        return *first;
    }
    const std::string tail = first->substr(1);
    const auto typed = std::find_if(words.begin(), words.end(), [&tail](const auto& word) {
        return startsWith(word, "-") && word.size() > tail.size() &&
               word.compare(word.size() - tail.size(), tail.size(), tail) == 0;
    });
    return typed != words.end() ? *typed : *first;
}

/// An option that has a value too many or too few, which CLI11 says in its text only.
std::string explainMismatch(const CLI::App& command, const Words& words) {
    for (const CLI::Option* option : command.get_options()) {
        const std::string name = option->get_name();
        const bool withValue = std::any_of(words.begin(), words.end(), [&name](const auto& word) {
            return startsWith(word, name + "=");
        });
        if (option->get_items_expected_max() == 0 && withValue) {
            return name + " takes no value";
        }
        if (option->get_items_expected_max() == 1 && option->count() > 1) {
            return name + " may be given once";
        }
    }
    // Options take the next word whatever it is: only the last one can lack it.
    return words.back().substr(0, words.back().find('=')) + " needs a value";
}

/// @param command  the one that was given; null: none
std::string explain(const CLI::ParseError& error, const CLI::App& app, const CLI::App* command,
                    const Words& words) {
    const std::string left = leftOver(app, words);
    const bool unknownOption = startsWith(left, "-");
    const std::string where =
        fmt::format(" (see korvane-tv {}--help)", command ? command->get_name() + " " : "");
    if (unknownOption) {
        return "unknown option '" + left + "'" + where;
    }
    if (command == nullptr) {
        return (left.empty() ? "no command given" : "'" + left + "' is no command") +
               "; write korvane-tv play FILE, run SCENARIO, list, compare A B or explore";
    }
    if (!left.empty()) {
        return "one argument too many: '" + left + "'" + where;
    }
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
        const std::string& name = command->get_name();
        return (name == "run"       ? "no scenario given; write korvane-tv run FILE"
                : name == "compare" ? "two playbacks are needed; write korvane-tv compare A B"
                                    : "no file given; write korvane-tv play FILE") +
               where;
    }
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) {
        return explainMismatch(*command, words) + where;
    }
    return error.what() + where;
}

/// The command line that repeats this playback, for people to copy.
std::string repeatLine(const Words& words, uint64_t seed) {
    std::string text = "korvane-tv";
    bool seedGiven = false;
    for (const auto& word : words) {
        seedGiven = seedGiven || word == "--seed" || startsWith(word, "--seed=");
        text += " " + shellWord(word);
    }
    return seedGiven ? text : fmt::format("{} --seed {}", text, seed);
}

std::optional<Expectations> readExpectations(const Words& expectations) {
    if (expectations.empty()) {
        return std::nullopt;
    }
    try {
        return parseExpectations(expectations);
    } catch (const ScenarioError& error) {
        throw UsageError(std::string("--expect: ") + error.what());
    }
}

/// A window shows the screen as it is seen.
void playInRealTimeFor(PlayOptions* options) {
    if (options->window && options->virtualClock.value_or(false)) {
        throw UsageError("--window plays in real time; leave --clock virtual out");
    }
    if (options->window) {
        options->virtualClock = false;
    }
}

void sortByTime(PlayOptions* options) {
    const auto byTime = [](const auto& left, const auto& right) { return left.atUs < right.atUs; };
    std::stable_sort(options->seeks.begin(), options->seeks.end(), byTime);
    std::stable_sort(options->videoStalls.begin(), options->videoStalls.end(), byTime);
}

}  // namespace

CommandLine parseCommandLine(int argc, const char* const* argv, const std::string& version) {
    CommandLine line;
    CLI::App app{"korvane-tv: plays media through the tunnel renderer on a simulated TV.",
                 "korvane-tv"};
    app.set_version_flag("--version", version, "Print versions and exit");
    app.require_subcommand(1);
    app.footer(
        "Examples: korvane-tv play film.mp4 --rate 59.94 --csv frames.csv\n"
        "          korvane-tv run scenarios/ --jobs 2");
    Words expectations;
    const std::pair<CLI::App*, Command> commands[] = {
        {addPlayCommand(&app, &line.play, &expectations), Command::Play},
        {addRunCommand(&app, &line.run), Command::Run},
        {addListCommand(&app, &line.list), Command::List},
        {addCompareCommand(&app, &line.compare), Command::Compare},
        {addExploreCommand(&app, &line.explore), Command::Explore}};
    const auto given = [&app] {
        const auto parsed = app.get_subcommands();
        return parsed.empty() ? nullptr : parsed.front();
    };
    const Words words(argv + std::min(argc, 1), argv + argc);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        line.text = given() != nullptr ? given()->help("korvane-tv") : app.help();
        return line;
    } catch (const CLI::CallForVersion&) {
        line.text = version + "\n";
        return line;
    } catch (const CLI::ParseError& error) {
        throw UsageError(explain(error, app, given(), words));
    }
    line.command = std::find_if(std::begin(commands), std::end(commands), [](const auto& command) {
                       return command.first->parsed();
                   })->second;
    line.play.expect = readExpectations(expectations);
    playInRealTimeFor(&line.play);
    sortByTime(&line.play);
    line.play.repeat = repeatLine(words, line.play.seed);
    return line;
}

}  // namespace korvane::player
