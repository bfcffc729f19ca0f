// SPDX-License-Identifier: Apache-2.0
// Records the screen as a film: one picture for each vsync, at the display's rate, with the sound
// that was heard.
//
//   picture n   what vsync "first recorded one + n" showed; black where nothing was on screen
//   sample n    what was audible n / 48000 s after the first recorded vsync
//
// How long a picture stays is known when the next one comes: a picture's vsyncs wait until then, so
// that the bar can count them, "2/3". Sound is written a little later than it was heard, because an
// underflow may become known late.
#pragma once

#include <cstdint>
#include <deque>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>

#include "player/playback/ScreenFeed.h"
#include "player/screen/Canvas.h"
#include "player/screen/FigureBar.h"
#include "player/screen/FilmWriter.h"

namespace korvane::player {

class SoundStore;

struct RecordingSpec {
    FilmSpec film;
    int width = 0;  ///< of the picture, without the bar
    int height = 0;
    int turnDegrees = 0;  ///< as for Canvas
    bool bar = false;
    std::shared_ptr<const SoundStore> sound;  ///< null: the film has none
};

/// Failures end the recording and not the playback.
class Recording final : public ScreenListener {
public:
    /// @param out  outlives the recording
    Recording(const RecordingSpec& spec, std::ostream* out);

    void onVsync(const ScreenMoment& moment, const tv::SoundRecord& sound) override;
    void onScreenEnd(const tv::SoundRecord& sound) override;

    /// Why the recording is not whole; empty: it is, or its output took no more.
    std::string failure() const { return mFailure; }

private:
    /// Vsyncs in a row that show one picture.
    struct Run {
        ScreenMoment first;
        int64_t vsyncs = 1;
        int64_t written = 0;
        std::optional<int64_t> offsetUs;
    };

    template <typename Code>
    void guard(Code code);
    void see(const ScreenMoment& moment);
    void writeRun(bool ended);
    void drawPicture(const ScreenMoment& moment);
    void describeColours(const AVFrame& picture);
    void noteDwell();
    void writeSound(const tv::SoundRecord& sound, int64_t upToNs);

    const RecordingSpec mSpec;
    const Area mPictureArea;
    const Area mBarArea;
    Canvas mCanvas;
    FilmWriter mWriter;
    std::optional<Run> mRun;
    int64_t mOriginNs = 0;
    int64_t mFirstVsync = -1;
    int64_t mWritten = 0;  ///< vsyncs
    int64_t mSamples = 0;  ///< written
    std::deque<int> mDwells;
    std::string mPattern;
    std::string mFailure;
};

}  // namespace korvane::player
