// SPDX-License-Identifier: Apache-2.0
// The options of `play` with their defaults, and the playback that follows from them and the file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "player/base/FrameRate.h"
#include "player/media/FrameSource.h"
#include "player/media/MediaRequest.h"
#include "player/playback/PlaybackPlan.h"
#include "player/scenario/Scenario.h"
#include "player/screen/StripTarget.h"
#include "tv/AudioOutput.h"

namespace korvane::player {

struct PictureSize {
    int width = 0;
    int height = 0;
};

struct PlayOptions {
    std::string file;
    std::optional<int> videoStream;
    std::optional<int> audioStream;
    std::optional<int> program;
    std::optional<FrameRate> inputRate;

    FrameRate rate{60, 1};
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
    std::optional<int> buffers;  ///< empty: as many as usual for pictures of this size

    std::optional<int32_t> logMask;
    std::vector<std::pair<std::string, std::string>> properties;

    std::string library;  ///< to play on; empty: the one that the program is linked with

    std::string
        against;  ///< another build of the library, to play on first and compare; may be empty

    std::optional<Expectations> expect;  ///< of --expect

    std::string traceFile;
    std::string csvFile;
    std::string jsonFile;
    std::string eventsFile;
    std::string recordFile;
    bool recordBar = false;
    std::optional<PictureSize> recordSize;  ///< empty: the content's
    std::string stripFile;
    std::optional<StripTarget> stripAt;
    std::string ledgerFile;
    std::string reportFolder;
    bool live = false;
    bool window = false;
    bool quiet = false;

    std::optional<bool> virtualClock;  ///< empty: virtual where this build has it
    uint64_t seed = 1;
    std::string repeat;   ///< the command line that repeats this playback
    std::string version;  ///< of korvane-tv
};

/// The streams that the options ask for.
MediaRequest requestOf(const PlayOptions& options);

/// One line for each thing to know about the input before it is played: what it cannot do that was
/// asked for, and memory beyond the ordinary.
std::vector<std::string> inputNotes(const PlayOptions& options, const MediaInfo& media);

/// The playback of a file with these options.
PlaybackPlan planOf(const PlayOptions& options, const MediaInfo& media);

/// One line for each option that has no effect with this file.
std::vector<std::string> withoutEffect(const PlayOptions& options, const MediaInfo& media);

}  // namespace korvane::player
