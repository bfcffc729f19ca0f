// The command line: what can be asked for, with its defaults, and how it is read.
//
// Whatever is wrong with a command line is told in one line that says which value it is and what to
// do instead (UsageError).
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "player/Units.h"
#include "tv/AudioOutput.h"

namespace korvane::player {

/// One line about what is wrong with the command line and what to do.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A jump in the middle of playback.
struct SeekAction {
    int64_t atUs = 0;      ///< when this media time has been shown
    int64_t toUs = 0;      ///< go on here
    bool inPlace = false;  ///< flush only: go on with the next picture, `toUs` is not used
};

/// A gap in the supply of pictures, as a bad reception or a slow decoder makes it.
struct VideoStall {
    int64_t atUs = 0;  ///< before the first picture at or after this media time
    int64_t durationUs = 0;
};

struct PlayOptions {
    std::string file;

    double rateHz = 60.0;  ///< nominal, see tv::displayRateHz
    double displayDriftPpm = 0.0;
    int64_t vsyncJitterUs = 0;

    int64_t audioDelayUs = 50'000;
    double audioDriftPpm = 0.0;
    bool noAudio = false;
    std::vector<tv::AudioConfig::Underflow> underflows;

    bool passthrough = false;
    bool peek = false;
    std::vector<SeekAction> seeks;        ///< by `atUs`
    std::vector<VideoStall> videoStalls;  ///< by `atUs`
    std::optional<int64_t> limitUs;
    /// Enough for the renderer's lead, the tunnel's own two and the panel's, with a reserve.
    int buffers = 16;

    std::optional<int32_t> logMask;
    std::vector<std::pair<std::string, std::string>> properties;

    std::string traceFile;
    std::string csvFile;
    std::string jsonFile;
    bool quiet = false;
};

struct CommandLine {
    /// Text to print instead of playing (help, version); empty when there is something to play.
    std::string text;
    PlayOptions play;
};

/// Reads a command line.
/// @throws UsageError
CommandLine parseCommandLine(int argc, const char* const* argv, const std::string& version);

}  // namespace korvane::player
