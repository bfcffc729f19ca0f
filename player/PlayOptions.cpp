#include "player/PlayOptions.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace korvane::player {
namespace {

constexpr double kLowestRateHz = 10.0;
constexpr double kHighestRateHz = 500.0;
/// Real crystals are within 100 ppm; this leaves room to see drift within seconds.
constexpr double kMostPpm = 50'000.0;
constexpr int64_t kMostJitterUs = 5'000;
/// The renderer takes a buffer back only while three are in the tunnel, and waits for its second
/// frame before it takes the first: with fewer buffers nothing would move.
constexpr int kFewestBuffers = 5;
/// What the TV's tunnel holds.
constexpr int kMostBuffers = 64;

constexpr char kDurationHelp[] = "Durations are written 2s, 200ms or 1.5 (seconds).";

// Each reader takes the option's text and throws CLI::ValidationError with what is wanted.

CLI::ValidationError wanted(const std::string& option, const std::string& text,
                            const std::string& what) {
    return CLI::ValidationError(option, "'" + text + "' is not " + what);
}

int64_t readDuration(const std::string& option, const std::string& text) {
    const auto us = parseDuration(text);
    if (!us) {
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
    if (text.empty() || *end != '\0' || !(value >= lowest && value <= highest)) {
        throw wanted(option, text, "between " + rate(lowest) + " and " + rate(highest) + unit);
    }
    return value;
}

int32_t readMask(const std::string& option, const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || errno != 0 || value < 0 || value > INT32_MAX) {
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
                options->rateHz =
                    readNumber(name, text, kLowestRateHz, kHighestRateHz, " Hz; try 60 or 59.94");
            })
        ->group("Display");
    addText(app, "--display-drift", "PPM", "How much faster than it says the display runs [0]",
            [options](const std::string& name, const std::string& text) {
                options->displayDriftPpm =
                    readNumber(name, text, -kMostPpm, kMostPpm, " parts per million");
            })
        ->group("Display");
    addText(app, "--vsync-jitter", "TIME",
            "Largest error of the vsync times that the display reports, at most 5ms [0]",
            [options](const std::string& name, const std::string& text) {
                options->vsyncJitterUs = readDuration(name, text);
                if (options->vsyncJitterUs > kMostJitterUs) {
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
                    readNumber(name, text, -kMostPpm, kMostPpm, " parts per million");
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
                 options->seeks.push_back({readDuration(name, text), 0, true});
             })
        ->group("Playback");
    addTexts(app, "--seek", "AT:TO",
             "Once AT has been shown, flush and go on at TO (2s:10s); may be repeated",
             [options](const std::string& name, const std::string& text) {
                 const DurationPair pair = readPair(name, text);
                 options->seeks.push_back({pair.firstUs, pair.secondUs, false});
             })
        ->group("Playback");
    addTexts(app, "--video-stall", "AT:TIME",
             "At media time AT, no picture is handed in for TIME (2s:300ms); may be repeated",
             [options](const std::string& name, const std::string& text) {
                 const DurationPair pair = readPair(name, text);
                 options->videoStalls.push_back({pair.firstUs, pair.secondUs});
             })
        ->group("Playback");
    addText(app, "--buffers", "N", "Frame buffers of the player, 5 to 64 [16]",
            [options](const std::string& name, const std::string& text) {
                options->buffers = static_cast<int>(
                    readNumber(name, text, kFewestBuffers, kMostBuffers, " buffers; try 16"));
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

void addOutputOptions(CLI::App* app, PlayOptions* options) {
    app->add_option("--trace", options->traceFile,
                    "Record a trace (Chrome trace-event JSON, for the Perfetto UI)")
        ->type_name("OUT")
        ->group("Output");
    app->add_option("--csv", options->csvFile, "Write one line per frame, after a header line")
        ->type_name("OUT")
        ->group("Output");
    app->add_option("--json", options->jsonFile,
                    "Write the summary as one flat JSON object, one key per line")
        ->type_name("OUT")
        ->group("Output");
    addFlag(app, "-q,--quiet", &options->quiet, "No progress, and of the summary only the verdict")
        ->group("Output");
}

CLI::App* addPlayCommand(CLI::App* app, PlayOptions* options) {
    CLI::App* play = app->add_subcommand(
        "play",
        std::string("Play a media file on the simulated TV and report what was on screen. ") +
            kDurationHelp);
    play->add_option("FILE", options->file, "Media file: anything that FFmpeg reads")
        ->type_name("")
        ->required();
    addDisplayOptions(play, options);
    addAudioOptions(play, options);
    addPlaybackOptions(play, options);
    addPlatformOptions(play, options);
    addOutputOptions(play, options);
    play->footer(
        "Exit status: 0 every buffer came back and every frame is accounted for; 1 not so, or an "
        "output file could not be written; 2 wrong usage or input.");
    return play;
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
std::string explain(const CLI::ParseError& error, bool inPlay, const std::string& firstArgument) {
    const std::string text = error.what();
    if (!inPlay) {
        return firstArgument.empty()
                   ? "no command given; write korvane-tv play FILE"
                   : "'" + firstArgument + "' is no command; write korvane-tv play FILE";
    }
    const std::string where = " (see korvane-tv play --help)";
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) {
        return "unknown option or one argument too many: " + behindColon(text) + where;
    }
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
        return "no file given; write korvane-tv play FILE" + where;
    }
    if (const size_t given = text.find(" was given a disallowed flag"); given != text.npos) {
        return "--" + text.substr(0, given) + " takes no value" + where;
    }
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) {
        return beforeColon(text) + " takes one value and may be given once" + where;
    }
    return text + where;
}

}  // namespace

CommandLine parseCommandLine(int argc, const char* const* argv, const std::string& version) {
    CommandLine line;
    CLI::App app{"korvane-tv: plays real media through the tunnel renderer onto a simulated TV.",
                 "korvane-tv"};
    app.set_version_flag("--version", version);
    app.require_subcommand(1);
    app.footer("Example: korvane-tv play film.mp4 --rate 59.94 --csv frames.csv");
    CLI::App* play = addPlayCommand(&app, &line.play);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        line.text = play->parsed() ? play->help("korvane-tv") : app.help();
        return line;
    } catch (const CLI::CallForAllHelp&) {
        line.text = app.help("", CLI::AppFormatMode::All);
        return line;
    } catch (const CLI::CallForVersion&) {
        line.text = version + "\n";
        return line;
    } catch (const CLI::ParseError& error) {
        throw UsageError(explain(error, play->parsed(), argc > 1 ? argv[1] : ""));
    }
    const auto byTime = [](const auto& left, const auto& right) { return left.atUs < right.atUs; };
    std::stable_sort(line.play.seeks.begin(), line.play.seeks.end(), byTime);
    std::stable_sort(line.play.videoStalls.begin(), line.play.videoStalls.end(), byTime);
    return line;
}

}  // namespace korvane::player
