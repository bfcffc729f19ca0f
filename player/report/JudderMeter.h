// SPDX-License-Identifier: Apache-2.0
// How much pictures' times on screen differ from their content times: the mean that was proposed to
// the W3C for playback quality, and freezes and judder as Android's VideoRenderQualityTracker
// counts them, so that figures from devices compare.
//
// Between a picture and the next one lie a content duration (of their media times) and an actual
// duration (of their vsyncs).
//
//   error    actual minus content duration; the mean is that of its magnitude
//   freeze   frames were skipped between two pictures: the actual duration counts. None when the
//            content went back or more than 400 ms forth from one frame to the next, skipped ones
//            included, nor when the screen stood still for more than 200 ms longer than at most
//            200 ms of content (a pause).
//   judder   of the picture before the newest, no frame skipped around it: |error|, and if the
//            picture before it was off by 2 ms as well, |error + its error| on top. None below
//            2 ms, none below a quarter of the content duration (3:2), and none when the actual
//            duration is twice the content's (a pause, or slow play).
//
// Freezes and judder are counted by their milliseconds; a score is the sum of these counts, each
// weighing 1 as on devices.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <optional>

namespace korvane::player {

/// Lower ends of the counters, in ms; less than the first is not counted.
constexpr std::array<int64_t, 13> kFreezeMs = {1,   20,  40,  60,  80,  100, 120,
                                               150, 175, 225, 300, 400, 500};
constexpr std::array<int64_t, 12> kFreezeDistanceMs = {0,    20,   100,  400,   1000,  2000,
                                                       3000, 4000, 8000, 15000, 30000, 60000};
constexpr std::array<int64_t, 12> kJudderMs = {1, 4, 5, 9, 11, 20, 30, 40, 50, 60, 70, 80};

struct JudderReport {
    int64_t durations = 0;  ///< that were compared
    int64_t meanErrorUs = 0;
    std::array<int64_t, kFreezeMs.size()> freezes{};
    std::array<int64_t, kFreezeDistanceMs.size()> freezeDistances{};  ///< to the one before
    std::array<int64_t, kJudderMs.size()> judders{};
    int64_t freezeScore = 0;
    int64_t judderScore = 0;
    double freezeRate = 0.0;  ///< frozen time of the time shown
    double judderRate = 0.0;  ///< frames with judder of those shown and skipped
    /// What a viewer calls so: a picture that frames were skipped for, or that stood for twice its
    /// content duration, for whatever reason but a pause that was asked for.
    int64_t longestFreezeUs = 0;
    int64_t longestFreezeFrame = -1;  ///< that stood on screen
};

class JudderMeter {
public:
    /// The next picture on screen.
    void shown(int64_t frameNo, int64_t mediaTimeUs, int64_t shownUs);
    /// The next frame was not on screen, although it could have been.
    void skipped(int64_t mediaTimeUs);
    /// The last picture left the screen at this time and none came after it.
    void ended(int64_t releasedUs);
    /// A flush or a pause: the time on screen of the last picture tells nothing.
    void restart();
    JudderReport report() const;

private:
    struct Picture {
        int64_t frameNo;
        int64_t mediaTimeUs;
        int64_t shownUs;
    };
    struct Duration {
        int64_t contentUs;
        int64_t actualUs;
        int64_t errorUs() const { return actualUs - contentUs; }
    };
    void followContent(int64_t mediaTimeUs);
    void noteLongest(const Duration& duration);
    void freeze(const Duration& duration, int64_t endUs);
    void judder();

    JudderReport mReport;
    std::optional<Picture> mLast;
    std::deque<Duration> mDurations;    ///< the newest three at most, with no frame skipped between
    std::optional<int64_t> mContentUs;  ///< of the last frame, shown or skipped
    bool mSkipped = false;              ///< since the last picture
    bool mDiscontinuous = false;        ///< the content jumped since then
    int64_t mFrames = 0;                ///< shown and skipped
    int64_t mErrorUs = 0;               ///< sum of magnitudes
    int64_t mShownUs = 0;
    int64_t mFrozenUs = 0;
    int64_t mFreezeEndUs = -1;
};

}  // namespace korvane::player
