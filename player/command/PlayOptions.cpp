// SPDX-License-Identifier: Apache-2.0
#include "player/command/PlayOptions.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "player/base/Limits.h"
#include "player/base/Units.h"
#include "player/playback/BufferPool.h"

namespace korvane::player {
namespace {

constexpr char kDurationHelp[] = "Durations are written 2s, 200ms, 1h30m or 1.5 (seconds).";

// Each reader takes the option's text and throws CLI::ValidationError with what is wanted.

CLI::ValidationError wanted(const std::string& option, const std::string& text,
                            const std::string& what) {
    return CLI::ValidationError(option, "'" + text + "' is not " + what);
}

int64_t readDuration(const std::string& option, const std::string& text) {
    const auto us = parseDuration(text);
    if (!us || *us < 0) {
        throw wanted(option, text, "a duration; write for example 2s or 200ms");
    }
    return *us;
}

DurationPair readPair(const std::string& option, const std::string& text) {
    const auto pair = parseDurationPair(text);
    if (!pair) {
        throw wanted(option, text, "a pair of durations; write for example 5s:800ms");
    }
    return *pair;
}

double readNumber(const std::string& option, const std::string& text, double lowest, double highest,
                  const std::string& unit) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    // strtod alone would also take spaces and hexadecimal.
    const bool decimal = text.find_first_not_of("+-.0123456789") == text.npos;
    if (text.empty() || !decimal || *end != '\0' || !(value >= lowest && value <= highest)) {
        throw wanted(option, text, "between " + rate(lowest) + " and " + rate(highest) + unit);
    }
    return value;
}

FrameRate readRate(const std::string& option, const std::string& text) {
    const auto taken = parseRate(text);
    if (!taken || !(taken->hz() >= kLowestDisplayHz && taken->hz() <= kHighestDisplayHz)) {
        throw wanted(option, text,
                     "between " + rate(kLowestDisplayHz) + " and " + rate(kHighestDisplayHz) +
                         " Hz; try 60, 59.94 or 60000/1001");
    }
    return *taken;
}

bool onlyDigits(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == text.npos;
}

int readCount(const std::string& option, const std::string& text, int fewest, int most,
              const std::string& unit) {
    const double count = readNumber(option, text, fewest, most, unit);
    if (!onlyDigits(text)) {
        throw wanted(option, text, "a whole number of" + unit);
    }
    return static_cast<int>(count);
}

std::string readFileName(const std::string& option, const std::string& text) {
    if (text.empty() || text == "-") {
        throw wanted(option, text, "a file; standard output has the summary, write a file's name");
    }
    return text;
}

int32_t readMask(const std::string& option, const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 0);
    const bool number = !text.empty() && std::isdigit(static_cast<unsigned char>(text[0])) != 0;
    if (!number || *end != '\0' || errno != 0 || value > INT32_MAX) {
        throw wanted(option, text,
                     "a log mask; add up 1 (lifecycle), 2 (frames), 4 (detail), "
                     "16 (trace counters), for example 3");
    }
    return static_cast<int32_t>(value);
}

std::pair<std::string, std::string> readProperty(const std::string& option,
                                                 const std::string& text) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0) {
        throw wanted(option, text, "a property; write NAME=VALUE");
    }
    return {text.substr(0, equals), text.substr(equals + 1)};
}

/// Adds an option whose text goes through one of the readers above.
template <typename Take>
CLI::Option* addText(CLI::App* app, const std::string& name, const std::string& type,
                     const std::string& help, Take take) {
    return app
        ->add_option_function<std::string>(
            name, [name, take](const std::string& text) { take(name, text); }, help)
        ->type_name(type);
}

/// The same for an option that may be given more than once.
template <typename Take>
CLI::Option* addTexts(CLI::App* app, const std::string& name, const std::string& type,
                      const std::string& help, Take take) {
    return app
        ->add_option_function<std::vector<std::string>>(
            name,
            [name, take](const std::vector<std::string>& texts) {
                for (const auto& text : texts) {
                    take(name, text);
                }
            },
            help)
        ->type_name(type)
        ->type_size(1)
        ->allow_extra_args(false)
        ->take_all();
}

CLI::Option* addFlag(CLI::App* app, const std::string& name, bool* value, const std::string& help) {
    return app->add_flag(name, *value, help)->disable_flag_override();
}

void addDisplayOptions(CLI::App* app, PlayOptions* options) {
    addText(app, "--rate", "HZ",
            "Vsyncs per second of the display [60]; broadcast rates mean their exact fractions, "
            "59.94 is 60000/1001",
            [options](const std::string& name, const std::string& text) {
                options->rate = readRate(name, text);
            })
        ->group("Display");
    addText(app, "--display-drift", "PPM", "How much faster than it says the display runs [0]",
            [options](const std::string& name, const std::string& text) {
                options->displayDriftPpm =
                    readNumber(name, text, -kMostDriftPpm, kMostDriftPpm, " parts per million");
            })
        ->group("Display");
    addText(app, "--vsync-jitter", "TIME",
            "Largest error of the vsync times that the display reports, at most 5ms [0]",
            [options](const std::string& name, const std::string& text) {
                options->vsyncJitterUs = readDuration(name, text);
                if (options->vsyncJitterUs > kMostVsyncJitterUs) {
                    throw wanted(name, text, "at most 5ms; give a smaller jitter");
                }
            })
        ->group("Display");
}

void addAudioOptions(CLI::App* app, PlayOptions* options) {
    addText(app, "--audio-delay", "TIME",
            "From the first audio packet until sound comes out [50ms]",
            [options](const std::string& name, const std::string& text) {
                options->audioDelayUs = readDuration(name, text);
            })
        ->group("Audio");
    addText(app, "--audio-drift", "PPM", "How much faster than the monotonic clock audio plays [0]",
            [options](const std::string& name, const std::string& text) {
                options->audioDriftPpm =
                    readNumber(name, text, -kMostDriftPpm, kMostDriftPpm, " parts per million");
            })
        ->group("Audio");
    addTexts(app, "--audio-underflow", "AT:TIME",
             "At media time AT, audio runs dry for TIME (5s:800ms); may be repeated",
             [options](const std::string& name, const std::string& text) {
                 const DurationPair pair = readPair(name, text);
                 options->underflows.push_back({pair.firstUs, pair.secondUs});
             })
        ->group("Audio");
    addFlag(app, "--no-audio", &options->noAudio, "Play the video alone")->group("Audio");
}

void addPlaybackOptions(CLI::App* app, PlayOptions* options) {
    addText(app, "--seconds", "TIME", "Play only this much of the file",
            [options](const std::string& name, const std::string& text) {
                options->limitUs = readDuration(name, text);
                if (*options->limitUs == 0) {
                    throw wanted(name, text, "more than 0; say how long to play");
                }
            })
        ->group("Playback");
    addFlag(app, "--passthrough", &options->passthrough,
            "Tuner pass-through: the sync instance decides for each frame")
        ->group("Playback");
    addFlag(app, "--peek", &options->peek, "Show the first frame at once, before audio starts")
        ->group("Playback");
    addTexts(app, "--flush-at", "AT",
             "Flush audio and video once AT has been shown, then go on; may be repeated",
             [options](const std::string& name, const std::string& text) {
                 options->seeks.push_back({readDuration(name, text), 0, true, true});
             })
        ->group("Playback");
    addTexts(app, "--seek", "AT:TO",
             "Once AT has been shown, flush and go on at TO (2s:10s); may be repeated",
             [options](const std::string& name, const std::string& text) {
                 const DurationPair pair = readPair(name, text);
                 options->seeks.push_back({pair.firstUs, pair.secondUs, false, true});
             })
        ->group("Playback");
    addTexts(app, "--video-stall", "AT:TIME",
             "At media time AT, no picture is handed in for TIME (2s:300ms); may be repeated",
             [options](const std::string& name, const std::string& text) {
                 const DurationPair pair = readPair(name, text);
                 options->videoStalls.push_back({pair.firstUs, pair.secondUs});
             })
        ->group("Playback");
    addText(app, "--buffers", "N",
            "Frame buffers of the player, 5 to 64 [16, or down to 8 beyond 512 MB]",
            [options](const std::string& name, const std::string& text) {
                options->buffers =
                    readCount(name, text, kFewestBuffers, kMostBuffers, " buffers; try 16");
            })
        ->group("Playback");
}

void addPlatformOptions(CLI::App* app, PlayOptions* options) {
    addText(app, "--log", "MASK",
            "Show what the library logs: add up 1 lifecycle, 2 frames, 4 detail, 16 trace "
            "counters (sets vendor.korvane.loglevels); without it only warnings and errors",
            [options](const std::string& name, const std::string& text) {
                options->logMask = readMask(name, text);
            })
        ->group("Platform");
    addTexts(app, "--prop", "NAME=VALUE", "Set a system property; may be repeated",
             [options](const std::string& name, const std::string& text) {
                 options->properties.push_back(readProperty(name, text));
             })
        ->group("Platform");
}

bool readClock(const std::string& option, const std::string& text) {
    if (text != "virtual" && text != "real") {
        throw wanted(option, text, "a clock; write virtual or real");
    }
    return text == "virtual";
}

uint64_t readSeed(const std::string& option, const std::string& text) {
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    if (!onlyDigits(text) || errno != 0) {
        throw wanted(option, text, "a seed; write a whole number of 0 or more");
    }
    return value;
}

void addClockOptions(CLI::App* app, std::optional<bool>* virtualClock, uint64_t* seed) {
    addText(app, "--clock", "GEAR",
            "virtual: threads take turns in simulated time, as fast as the machine can; real: in "
            "real time [virtual]",
            [virtualClock](const std::string& name, const std::string& text) {
                *virtualClock = readClock(name, text);
            })
        ->group("Clock");
    addText(
        app, "--seed", "N",
        "Order of threads that are ready at the same virtual instant; same seed, same playback "
        "[1]",
        [seed](const std::string& name, const std::string& text) { *seed = readSeed(name, text); })
        ->group("Clock");
}

void addOutputOptions(CLI::App* app, PlayOptions* options) {
    const auto addFile = [app](const char* option, std::string* path, const char* help) {
        addText(app, option, "OUT", help, [path](const std::string& name, const std::string& text) {
            *path = readFileName(name, text);
        })->group("Output");
    };
    addFile("--trace", &options->traceFile,
            "Record a trace (Chrome trace-event JSON, for the Perfetto UI)");
    addFile("--csv", &options->csvFile, "Write one line per frame, after a header line");
    addFile("--json", &options->jsonFile,
            "Write the summary as one flat JSON object, one key per line");
    addFile("--events", &options->eventsFile,
            "Write one line per event: sent, queued, shown, returned, dropped, ...");
    addFlag(app, "-q,--quiet", &options->quiet, "No progress, and of the summary only the verdict")
        ->group("Output");
}

/// Which streams of the input are played.
void addStreamOptions(CLI::App* app, PlayOptions* options) {
    const auto readIndex = [](const std::string& name, const std::string& text) {
        return readCount(name, text, 0, kMostStreams, "; the report lists them");
    };
    addText(app, "--video", "N", "Index of the video stream, as FFmpeg counts them [the best one]",
            [options, readIndex](const std::string& name, const std::string& text) {
                options->videoStream = readIndex(name, text);
            })
        ->group("Streams");
    addText(app, "--audio", "N", "Index of the audio stream, or none [the best one]",
            [options, readIndex](const std::string& name, const std::string& text) {
                options->noAudio = options->noAudio || text == "none";
                if (text != "none") {
                    options->audioStream = readIndex(name, text);
                }
            })
        ->group("Streams");
    addText(app, "--program", "N", "Number of the program, as the report lists them [the video's]",
            [options, readIndex](const std::string& name, const std::string& text) {
                options->program = readIndex(name, text);
            })
        ->group("Streams");
}

CLI::App* addPlayCommand(CLI::App* app, PlayOptions* options) {
    CLI::App* play = app->add_subcommand(
        "play",
        std::string("Play a media file on the simulated TV and report what was on screen. ") +
            kDurationHelp);
    play->add_option("FILE", options->file,
                     "What to play: a media file; - for standard input; pictures img%03d.png; a "
                     "playlist concat:LIST or hls:LIST; a generator lavfi:GRAPH; any address that "
                     "FFmpeg reads")
        ->type_name("")
        ->required();
    addStreamOptions(play, options);
    addDisplayOptions(play, options);
    addAudioOptions(play, options);
    addPlaybackOptions(play, options);
    addPlatformOptions(play, options);
    addClockOptions(play, &options->virtualClock, &options->seed);
    addOutputOptions(play, options);
    play->footer(
        "Exit status: 0 every buffer came back and every frame is accounted for; 1 not so, or an "
        "output could not be written whole; 2 wrong usage or input, and no output is touched; 3 "
        "the threads hang.");
    return play;
}

CLI::App* addRunCommand(CLI::App* app, RunOptions* options) {
    CLI::App* run = app->add_subcommand(
        "run", "Play scenarios and check what must hold; one verdict line each.");
    run->add_option("SCENARIO", options->paths,
                    "Scenario files (*.toml), folders of them, or names of installed ones")
        ->type_name("")
        ->required();
    addText(run, "-j,--jobs", "N", "Scenarios to play at a time, 1 to 256 [1]",
            [options](const std::string& name, const std::string& text) {
                options->jobs = readCount(name, text, 1, kMostJobs, " scenarios; try 2");
            });
    addText(run, "--seed", "N", "Seed of all of them, instead of each one's own",
            [options](const std::string& name, const std::string& text) {
                options->seed = readSeed(name, text);
            });
    addText(run, "--clock", "GEAR", "virtual or real [virtual]",
            [options](const std::string& name, const std::string& text) {
                options->virtualClock = readClock(name, text);
            });
    run->add_option("--events", options->eventsFolder,
                    "Keep each scenario's event log in this folder, as NAME.events")
        ->type_name("DIR");
    addFlag(run, "-v,--verbose", &options->verbose,
            "Show each playback's report and what the library logs");
    run->footer(
        "A scenario says what is played, on which TV with which faults, and what must hold; "
        "docs/scenarios.md describes every key.\n"
        "Exit status: 0 all held; 1 one did not; 2 wrong usage, or a file that is no scenario.");
    return run;
}

CLI::App* addListCommand(CLI::App* app, ListOptions* options) {
    CLI::App* list = app->add_subcommand("list", "Say what each scenario shows and must hold.");
    list->add_option("DIR", options->path,
                     "A folder of scenarios, or one [scenarios, else the installed ones]")
        ->type_name("");
    return list;
}

/// What stands behind or before the first ": " of CLI11's message: the arguments, or the option.
std::string behindColon(const std::string& text) {
    const size_t colon = text.find(": ");
    return colon == std::string::npos ? text : text.substr(colon + 2);
}
std::string beforeColon(const std::string& text) {
    return text.substr(0, text.find(": "));
}

/// What is wrong with a command line, on one line.
/// @param command  the one that was given; empty: none
std::string explain(const CLI::ParseError& error, const std::string& command,
                    const std::string& firstArgument) {
    const std::string text = error.what();
    const std::string commands = "; write korvane-tv play FILE, run SCENARIO or list";
    if (command.empty()) {
        return firstArgument.empty() ? "no command given" + commands
                                     : "'" + firstArgument + "' is no command" + commands;
    }
    const std::string where = " (see korvane-tv " + command + " --help)";
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) {
        return "unknown option or one argument too many: " + behindColon(text) + where;
    }
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
        const std::string what = command == "run" ? "no scenario given; write korvane-tv run FILE"
                                                  : "no file given; write korvane-tv play FILE";
        return what + where;
    }
    if (const size_t given = text.find(" was given a disallowed flag"); given != text.npos) {
        return "--" + text.substr(0, given) + " takes no value" + where;
    }
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) {
        return beforeColon(text) + " takes one value and may be given once" + where;
    }
    return text + where;
}

void sortByTime(PlayOptions* options) {
    const auto byTime = [](const auto& left, const auto& right) { return left.atUs < right.atUs; };
    std::stable_sort(options->seeks.begin(), options->seeks.end(), byTime);
    std::stable_sort(options->videoStalls.begin(), options->videoStalls.end(), byTime);
}

}  // namespace

CommandLine parseCommandLine(int argc, const char* const* argv, const std::string& version) {
    CommandLine line;
    CLI::App app{"korvane-tv: plays media through the tunnel renderer onto a simulated TV.",
                 "korvane-tv"};
    app.set_version_flag("--version", version);
    app.require_subcommand(1);
    app.footer(
        "Examples: korvane-tv play film.mp4 --rate 59.94 --csv frames.csv\n"
        "          korvane-tv run scenarios/ --jobs 2");
    const std::pair<CLI::App*, Command> commands[] = {
        {addPlayCommand(&app, &line.play), Command::Play},
        {addRunCommand(&app, &line.run), Command::Run},
        {addListCommand(&app, &line.list), Command::List}};
    const auto given = [&commands] {
        return std::find_if(std::begin(commands), std::end(commands),
                            [](const auto& command) { return command.first->parsed(); });
    };
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        const auto* command = given();
        line.text = command != std::end(commands) ? command->first->help("korvane-tv") : app.help();
        return line;
    } catch (const CLI::CallForAllHelp&) {
        line.text = app.help("", CLI::AppFormatMode::All);
        return line;
    } catch (const CLI::CallForVersion&) {
        line.text = version + "\n";
        return line;
    } catch (const CLI::ParseError& error) {
        const auto* command = given();
        throw UsageError(explain(error,
                                 command != std::end(commands) ? command->first->get_name() : "",
                                 argc > 1 ? argv[1] : ""));
    }
    line.command = given()->second;
    sortByTime(&line.play);
    line.play.repeat = repeatLine(argc, argv, line.play.seed);
    return line;
}

std::string repeatLine(int argc, const char* const* argv, uint64_t seed) {
    const std::string plain = "-_./:=,+@%";
    std::string text = "korvane-tv";
    bool seedGiven = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        seedGiven = seedGiven || word == "--seed" || word.rfind("--seed=", 0) == 0;
        const bool bare = !word.empty() && std::all_of(word.begin(), word.end(), [&](char c) {
            return std::isalnum(static_cast<unsigned char>(c)) != 0 || plain.find(c) != plain.npos;
        });
        std::string quoted = word;
        for (size_t at = quoted.find('\''); at != quoted.npos; at = quoted.find('\'', at + 4)) {
            quoted.replace(at, 1, "'\\''");
        }
        text += bare ? " " + word : " '" + quoted + "'";
    }
    return seedGiven ? text : text + " --seed " + std::to_string(seed);
}

std::vector<std::string> withoutEffect(const PlayOptions& options, const MediaInfo& media) {
    std::vector<std::string> notes;
    const auto note = [&notes](bool idle, const std::string& what, const std::string& why) {
        if (idle) {
            notes.push_back(what + " has no effect: " + why);
        }
    };
    const PlayOptions usual;
    const bool silent = options.noAudio || !media.hasAudio;
    const std::string whySilent = options.noAudio ? "--no-audio is given" : "the film has no audio";
    note(silent && options.audioDelayUs != usual.audioDelayUs, "--audio-delay", whySilent);
    note(silent && options.audioDriftPpm != usual.audioDriftPpm, "--audio-drift", whySilent);
    note(silent && !options.underflows.empty(), "--audio-underflow", whySilent);
    const auto noteBeyond = [&](const char* option, int64_t atUs) {
        note(media.durationUs > 0 && atUs >= media.durationUs,
             std::string(option) + " " + seconds(atUs),
             "the film ends at " + seconds(media.durationUs));
    };
    for (const auto& underflow : options.underflows) {
        if (!silent) {
            noteBeyond("--audio-underflow", underflow.atMediaUs);
        }
    }
    for (const auto& seek : options.seeks) {
        noteBeyond(seek.inPlace ? "--flush-at" : "--seek", seek.atUs);
    }
    for (const auto& stall : options.videoStalls) {
        noteBeyond("--video-stall", stall.atUs);
    }
    return notes;
}

MediaRequest requestOf(const PlayOptions& options) {
    MediaRequest request;
    request.name = options.file;
    request.video = options.videoStream;
    request.audio = options.audioStream;
    request.program = options.program;
    request.withoutAudio = options.noAudio;
    return request;
}

std::vector<std::string> inputNotes(const PlayOptions& options, const MediaInfo& media) {
    /// A TV's player takes about as much for its largest ordinary pictures.
    constexpr int64_t kOrdinaryBytes = 256 * 1000 * 1000;
    std::vector<std::string> notes;
    for (const auto& seek : options.seeks) {
        if (!seek.inPlace && !media.canSeek) {
            notes.push_back("--seek " + seconds(seek.atUs) +
                            " only flushes: the input cannot seek");
        }
    }
    const int buffers = planOf(options, media).buffers;
    const int64_t bytes = buffers * media.pictureBytes;
    if (bytes > kOrdinaryBytes) {
        notes.push_back(std::to_string(buffers) + " frame buffers of " +
                        std::to_string(media.width) + "x" + std::to_string(media.height) +
                        " will take " + std::to_string(bytes / 1'000'000) +
                        " MB; give --buffers for more or fewer");
    }
    return notes;
}

PlaybackPlan planOf(const PlayOptions& options, const MediaInfo& media) {
    PlaybackPlan plan;
    plan.tv.display.rateHz = options.rate.hz();
    plan.tv.display.driftPpm = options.displayDriftPpm;
    plan.tv.display.reportJitterNs = options.vsyncJitterUs * 1000;
    plan.withAudio = media.hasAudio && !options.noAudio;
    plan.audio.startDelayUs = options.audioDelayUs;
    plan.audio.driftPpm = options.audioDriftPpm;
    plan.audio.underflows = options.underflows;
    plan.passthrough = options.passthrough;
    plan.buffers = options.buffers.value_or(usualBuffers(media.pictureBytes));
    plan.peek = options.peek ? Peek::Marked : Peek::None;
    plan.toldFrameRate = rateInHundredths(media.frameRateHz);
    plan.seeks = options.seeks;
    plan.stalls = options.videoStalls;
    plan.limitUs = options.limitUs;
    plan.longestWaitUs = plan.withAudio ? options.audioDelayUs : 0;
    for (const auto& underflow : options.underflows) {
        plan.longestWaitUs = std::max(plan.longestWaitUs, underflow.durationUs);
    }
    for (const auto& stall : options.videoStalls) {
        plan.longestWaitUs = std::max(plan.longestWaitUs, stall.durationUs);
    }
    return plan;
}

}  // namespace korvane::player
