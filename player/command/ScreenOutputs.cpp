// SPDX-License-Identifier: Apache-2.0
#include "player/command/ScreenOutputs.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "player/base/Errors.h"
#include "player/base/Text.h"
#include "player/base/Units.h"
#include "player/command/Message.h"

namespace korvane::player {
namespace {

FilmFormat formatOf(const std::string& path) {
    try {
        return path.empty() ? FilmFormat() : filmFormat(path);
    } catch (const std::runtime_error& error) {
        throw UsageError("--record " + path + ": " + error.what());
    }
}

/// Of a film's pictures as a display has to turn them.
PictureSize turnedSize(const MediaInfo& media) {
    const bool onItsSide = media.rotationDegrees % 180 != 0;
    return onItsSide ? PictureSize{media.height, media.width}
                     : PictureSize{media.width, media.height};
}

/// What the strip shows, for the line above it.
std::string titleOf(const StripTarget& target, bool found, const Summary& summary) {
    switch (target.kind) {
        case StripTarget::Kind::Frame:
            return fmt::format("frame {}{}", target.value, found ? "" : " never came; the start");
        case StripTarget::Kind::Time:
            return seconds(target.value) + (found ? "" : " was never reached; the start");
        case StripTarget::Kind::FirstBreak:
            break;
    }
    for (const auto& stretch : summary.stretches) {
        if (!stretch.breaks.empty()) {
            const ReportedBreak& first = stretch.breaks.front();
            return fmt::format("first unexpected dwell: frame {} for {} instead of {}{}",
                               first.frameNo, first.dwell, first.expected,
                               found ? "" : ", no longer kept; the start");
        }
    }
    return "no unexpected dwell; the start";
}

}  // namespace

ScreenOutputs::ScreenOutputs(const PlayOptions& options, std::shared_ptr<const SoundStore> sound)
    : mOptions(options),
      mRecordFile("--record", options.recordFile),
      mStripFile("--strip", options.stripFile),
      mFormat(formatOf(options.recordFile)),
      mSound(std::move(sound)) {}

void ScreenOutputs::begin(const MediaInfo& media, bool virtualTime, const ReportBuilder& report,
                          PlaybackHooks* hooks) {
    mRecordFile.begin();
    mStripFile.begin();
    std::vector<ScreenListener*> screens;
    if (mRecordFile.wanted()) {
        screens.push_back(beginRecording(media, virtualTime));
    }
    if (mStripFile.wanted()) {
        mReport = &report;
        screens.push_back(
            &mStrip.emplace(mOptions.stripAt.value_or(StripTarget{}), media.rotationDegrees));
        hooks->listeners.push_back(this);
    }
    // In virtual time the display can wait for them: that takes no time of its own.
    if (!screens.empty() && !virtualTime) {
        screens = {&mQueue.emplace(screens)};
    }
    hooks->screens.insert(hooks->screens.end(), screens.begin(), screens.end());
    if (mOptions.window) {
        openWindow(media, hooks);
    }
}

/// Without a display the rest goes on.
void ScreenOutputs::openWindow(const MediaInfo& media, PlaybackHooks* hooks) {
    const bool withSound = media.hasAudio && !mOptions.noAudio;
    try {
        const PictureSize size = turnedSize(media);
        mWindow.emplace(
            WindowSpec{"korvane-tv: " + printable(mOptions.file), size.width, size.height,
                       media.rotationDegrees, withSound ? mSound : nullptr},
            &mRemote);
    } catch (const std::runtime_error& error) {
        say(fmt::format("--window: {}; playing without a window", error.what()));
        return;
    }
    if (const std::string failure = mWindow->soundFailure(); !failure.empty()) {
        say(fmt::format("--window: no audio device ({}); the window is silent", failure));
    }
    hooks->screens.push_back(&*mWindow);
    hooks->remote = &mRemote;
    hooks->onProgress = [this, others = hooks->onProgress](const PlaybackProgress& state,
                                                           int64_t nowNs) {
        mWindow->update(state);
        others(state, nowNs);
    };
}

Recording* ScreenOutputs::beginRecording(const MediaInfo& media, bool virtualTime) {
    RecordingSpec spec;
    spec.film = {mFormat, trueRate(mOptions.rate, mOptions.displayDriftPpm),
                 media.hasAudio && !mOptions.noAudio, !virtualTime};
    const PictureSize size = mOptions.recordSize.value_or(turnedSize(media));
    spec.width = size.width;
    spec.height = size.height;
    spec.turnDegrees = media.rotationDegrees;
    spec.bar = mOptions.recordBar;
    spec.sound = spec.film.withSound ? mSound : nullptr;
    return &mRecording.emplace(spec, &mRecordFile.stream());
}

void ScreenOutputs::onFrame(const FrameEntry& /*frame*/, const PlaybackRecord& /*soFar*/) {
    if (const auto found = mReport->firstUnexpected()) {
        mStrip->aimAt(found->frameNo);
    }
}

bool ScreenOutputs::finish(const Summary& summary) {
    const bool recorded = finishRecording();
    const bool shown = !mOptions.window || mWindow;
    return finishStrip(summary) && recorded && shown;
}

bool ScreenOutputs::finishRecording() {
    if (mRecording && mQueue && mQueue->missed() > 0) {
        say(
            fmt::format("--record {}: the machine is too slow to record in real time; {} vsyncs "
                        "show the picture before; give --record-size, or --clock virtual",
                        mOptions.recordFile, mQueue->missed()));
    }
    const std::string unwritten = mRecordFile.finish();
    const std::string failure = mRecording ? mRecording->failure() : "";
    if (!unwritten.empty()) {
        say(unwritten);
    } else if (!failure.empty()) {
        say("--record " + mOptions.recordFile + ": " + failure + "; the recording is not whole");
    }
    return unwritten.empty() && failure.empty();
}

bool ScreenOutputs::finishStrip(const Summary& summary) {
    if (!mStrip) {
        return true;
    }
    for (const auto& stretch : summary.stretches) {
        if (!stretch.breaks.empty()) {
            mStrip->aimAt(stretch.firstOut.frameNo);
            break;
        }
    }
    const StripTarget target = mOptions.stripAt.value_or(StripTarget{});
    std::string failure;
    try {
        mStrip->write(titleOf(target, mStrip->found(), summary), &mStripFile.stream());
    } catch (const std::runtime_error& error) {
        failure = "--strip " + mOptions.stripFile + ": " + error.what();
    }
    const std::string unwritten = mStripFile.finish();
    failure = unwritten.empty() ? failure : unwritten;
    if (!failure.empty()) {
        say(failure);
    }
    return failure.empty();
}

}  // namespace korvane::player
