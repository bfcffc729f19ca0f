// SPDX-License-Identifier: Apache-2.0
#include "player/command/PlayOptions.h"

#include <fmt/format.h>

#include <algorithm>

#include "player/base/Units.h"
#include "player/playback/BufferPool.h"

namespace korvane::player {

std::vector<std::string> withoutEffect(const PlayOptions& options, const MediaInfo& media) {
    std::vector<std::string> notes;
    const auto note = [&notes](bool idle, const std::string& what, const std::string& why) {
        if (idle) {
            notes.push_back(what + " has no effect: " + why);
        }
    };
    const PlayOptions usual;
    const std::string noRecord = "--record is not given";
    note(options.recordBar && options.recordFile.empty(), "--record-bar", noRecord);
    note(options.recordSize && options.recordFile.empty(), "--record-size", noRecord);
    note(options.stripAt && options.stripFile.empty(), "--strip-at", "--strip is not given");
    note(options.live && options.quiet, "--live", "--quiet is given");
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
    request.rate = options.inputRate;
    request.limitUs = options.limitUs;
    return request;
}

std::vector<std::string> inputNotes(const PlayOptions& options, const MediaInfo& media) {
    /// A TV's player takes about as much for its largest ordinary pictures.
    constexpr int64_t kOrdinaryBytes = int64_t{256} * 1000 * 1000;
    std::vector<std::string> notes;
    for (const auto& seek : options.seeks) {
        if (!seek.inPlace && !media.canSeek) {
            notes.push_back("--seek " + seconds(seek.atUs) +
                            " has no effect: the input cannot seek");
        }
    }
    const int buffers = planOf(options, media).buffers;
    const int64_t bytes = buffers * media.pictureBytes;
    if (bytes > kOrdinaryBytes) {
        notes.push_back(fmt::format(
            "{} frame buffers of {}x{} will take {} MB; give --buffers for more or fewer", buffers,
            media.width, media.height, bytes / 1'000'000));
    }
    return notes;
}

PlaybackPlan planOf(const PlayOptions& options, const MediaInfo& media) {
    PlaybackPlan plan;
    plan.tv.display.rateHz = options.rate.hz();
    plan.tv.display.driftPpm = options.displayDriftPpm;
    plan.tv.display.reportJitterNs = options.vsyncJitterUs * 1000;
    plan.tv.display.seed = options.seed;
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
