// SPDX-License-Identifier: Apache-2.0
// The files of --record and --strip, from the check of their names to their end, and the window.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "player/command/OutputFile.h"
#include "player/command/PlayOptions.h"
#include "player/media/SoundStore.h"
#include "player/playback/Playback.h"
#include "player/report/ReportBuilder.h"
#include "player/screen/Recording.h"
#include "player/screen/ScreenQueue.h"
#include "player/screen/Strip.h"
#include "player/screen/Window.h"

namespace korvane::player {

/// Also tells the strip about the first unexpected dwell, as soon as the report knows it.
class ScreenOutputs final : public PlaybackListener {
public:
    /// @param sound  of the film, decoded; null: it has none
    /// @throws UsageError when a file cannot be written or made by this FFmpeg
    ScreenOutputs(const PlayOptions& options, std::shared_ptr<const SoundStore> sound);

    std::vector<const OutputFile*> files() const { return {&mRecordFile, &mStripFile}; }
    /// Empties the files and joins the playback. Call before it begins.
    /// @param report  outlives the playback
    /// @throws UsageError
    void begin(const MediaInfo& media, bool virtualTime, const ReportBuilder& report,
               PlaybackHooks* hooks);
    void onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) override;
    /// Ends the files; says which is not whole.
    /// @return whether all are whole
    bool finish(const Summary& summary);

private:
    void openWindow(const MediaInfo& media, PlaybackHooks* hooks);
    Recording* beginRecording(const MediaInfo& media, bool virtualTime);
    bool finishRecording();
    bool finishStrip(const Summary& summary);

    const PlayOptions& mOptions;
    OutputFile mRecordFile;
    OutputFile mStripFile;
    FilmFormat mFormat;
    const std::shared_ptr<const SoundStore> mSound;
    const ReportBuilder* mReport = nullptr;
    std::optional<Recording> mRecording;
    std::optional<Strip> mStrip;
    Remote mRemote;
    std::optional<Window> mWindow;
    std::optional<ScreenQueue> mQueue;  ///< in real time; ends before the two
};

}  // namespace korvane::player
