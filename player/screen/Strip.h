// SPDX-License-Identifier: Apache-2.0
// A contact sheet of the screen around one moment: a small picture for each vsync, eight before it
// and sixteen from it on, each labelled with its frame, the vsync's place in that frame's dwell
// (2/3), the vsync's number and the time since `start`.
//
// Where the moment is known in advance, only the pictures around it are kept. The first unexpected
// dwell is found by the report, up to some two thousand frames later: until then all of these are
// kept, small, in at most 90 MB. Without one, the sheet shows the first vsyncs.
#pragma once

#include <cstdint>
#include <deque>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "player/playback/ScreenFeed.h"
#include "player/screen/Canvas.h"
#include "player/screen/StripTarget.h"

namespace korvane::player {

/// Any thread.
class Strip final : public ScreenListener {
public:
    static constexpr int kBefore = 8;
    static constexpr int kCells = 24;

    /// @param turnDegrees  as for Canvas
    explicit Strip(const StripTarget& target, int turnDegrees = 0);

    void onVsync(const ScreenMoment& moment, const tv::SoundRecord& sound) override;
    void onScreenEnd(const tv::SoundRecord& sound) override;
    /// The first unexpected dwell is this frame's. Only the first call counts.
    void aimAt(int64_t frameNo);

    /// Whether the moment came.
    bool found() const;

    /// One vsync of the sheet.
    struct Cell {
        int64_t vsync = 0;
        int64_t playedUs = 0;  ///< since `start`
        int64_t frameNo = -1;
        int64_t dwell = 0;
        int64_t dwells = 0;  ///< in all
        std::shared_ptr<const AVFrame> picture;
    };
    /// Those of the sheet. Call at the end.
    std::vector<Cell> cells() const;
    /// Draws the sheet as PNG. Call at the end.
    /// @param title  a line above it
    /// @throws std::runtime_error when it cannot be encoded
    void write(const std::string& title, std::ostream* out) const;

private:
    /// What the report may need to find a break: it decides on up to 2048 dwells at a time, and
    /// frames come to it up to some hundred later.
    static constexpr int64_t kMostPictures = 2800;

    /// Vsyncs kept after the sheet's, to learn how long its last frame stays.
    static constexpr int64_t kKeptAfter = 60;

    void add(const ScreenMoment& moment, bool sameFrame) KORVANE_REQUIRES(mLock);
    void endDwell() KORVANE_REQUIRES(mLock);
    bool isTarget(const ScreenMoment& moment) const;
    void dropOld() KORVANE_REQUIRES(mLock);

    const StripTarget mTarget;
    mutable std::mutex mLock;
    Canvas mSmall KORVANE_GUARDED_BY(mLock);
    std::vector<Cell> mStart KORVANE_GUARDED_BY(mLock);  ///< the first ones of all
    std::deque<Cell> mCells KORVANE_GUARDED_BY(mLock);
    int64_t mPictures KORVANE_GUARDED_BY(mLock) = 0;       ///< different ones in `mCells`
    std::optional<Cell> mFound KORVANE_GUARDED_BY(mLock);  ///< the moment, once known
    AVColorSpace mColours KORVANE_GUARDED_BY(mLock) = AVCOL_SPC_UNSPECIFIED;
};

}  // namespace korvane::player
