// SPDX-License-Identifier: Apache-2.0
// The cadence tracker: where a frame's presentation time falls on the display's vsync grid, and
// where it should fall so that every frame stays on screen for as many vsyncs as its neighbours let
// it.
//
// The grid. The display reports, now and then, when a vsync happened and how long its period is.
// The tracker counts vsyncs from the first report on: the first is number 1, later ones advance the
// count by the elapsed time rounded to whole periods, so that samples taken only every tenth frame
// stay on one grid. A time t lies in the interval [v, v + period) of some vsync v and is shown at
// the vsync that closes it. The first frame after a reset is shifted to a quarter of a period after
// the start of its interval, and every later frame by the same offset.
//
// The cadence. A frame's repeat count is its vsync number minus the one of the frame before: how
// long that frame stayed on screen. Ten frames in a row whose counts fit a pair put that pair's
// pattern in force; the first that does not fit breaks it.
//
//   content on display   vsyncs per frame   repeat counts       pattern   what the rates demand
//   24      on 60        2.5                3 2 3 2 ...         [3:2]     nothing
//   23.976  on 59.94     2.5                3 2 3 2 ...         [3:2]     nothing
//   24      on 59.94     2.4975             3 2 3 2 ...         [3:2]     one vsync fewer in 16.7 s
//   23.976  on 60        2.5025             3 2 3 2 ...         [3:2]     one vsync more in 16.7 s
//   30      on 60        2                  2 2 2 2 ...         [2:2]     nothing
//   29.97   on 60        2.002              2 2 2 2 ...         [2:2]     one vsync more in 16.7 s
//   60      on 60        1                  1 1 1 1 ...         [1:1]     nothing
//   60      on 59.94     0.999              1 1 1 1 ...         [1:1]     one vsync fewer in 16.7 s
//   48      on 60        1.25               2 1 1 1 ...         [4:1]     nothing (*)
//   25      on 60        2.4                3 2 2 3 2 ...       none      runs too short
//   50      on 60        1.2                2 1 1 1 1 ...       none      runs too short
//   25      on 50        2                  2 2 2 2 ...         none      50 Hz is not handled
//   (*) The renderer does not enable it. No count is expected for it, so it breaks at the next
//       frame, which is pulled.
//
// Keeping. While a pattern is in force, a frame whose count is one short is held for one vsync, one
// whose count is one too many is pulled one vsync earlier. So where the rates do not quite fit, the
// first vsync of difference is taken up; when it has become two, one is given back as a short frame
// (59.94 Hz, after a held frame) or a freeze frame (60 Hz, after a pull). Any other error is
// reported and left alone. Every time that is kept or placed has 4000 us to the edges of its
// interval, so that jitter cannot tip the frame over to a neighbouring vsync.
//
//   60 Hz, v = vsync before the frame, in force [3:2], previous count 2 (so 3 is expected):
//     time       count   result                         count after
//     v +  8000  3       stays                          3
//     v +  3000  3       v + 4000                       3
//     v + 13000  3       v + 12666                      3
//     v +  8000  2       held: v + 16666 + 4000         3
//     v +  8000  4       pulled: v - 4000               3
//   and with no pattern in force:
//     v +  8000  any     stays                          as it is
//     v +  3000  any     v + 4000                       as it is
//     v + 13000  any     v + 4000 (back to the start)   as it is
//
// Threads. `updateHWCVsyncInfo` and `getRealTime` hold the object's lock for their whole run.
// `resetFRC` and `setEnablePattern` belong to the thread that calls those two (the renderer's drain
// thread) and take no lock; `setFrameRate` takes none either and may come from any thread.
#pragma once

#include <cstdint>

struct videoSyncFrac_priv;

/// All times are microseconds on the monotonic clock unless said otherwise. Operations that return
/// bool log an error and return false when the object has no private state (allocation failed).
class __attribute__((visibility("default"))) VideoSyncFRAC {
public:
    /// Reads the log mask from the system property. The new tracker is off (no pattern enabled),
    /// knows no vsync and no frame rate.
    VideoSyncFRAC();
    ~VideoSyncFRAC();
    VideoSyncFRAC(const VideoSyncFRAC&) = delete;
    VideoSyncFRAC& operator=(const VideoSyncFRAC&) = delete;

    /// Forgets the vsync grid, the frames and the pattern in force: call it when media time and
    /// real time are related anew. Frame rate, enabled patterns and statistics stay.
    bool resetFRC();

    /// @param rate  content frame rate in hundredths of a frame per second, 1 to 6000; any other
    ///              value is refused with an error message, and true returned all the same
    bool setFrameRate(int rate);

    /// @param mask  detectors to run: 0x1 "[3:2]", 0x2 "[2:2]", 0x4 "[4:1]", 0x8 "[1:1]". A mask
    ///              with none of these is ignored, so the tracker cannot be switched off again.
    bool setEnablePattern(int mask);

    /// Index of the display mode with exactly this vsync period, or -1 when pattern handling knows
    /// no such mode. Needs no private state.
    int getDispMode(int periodUs);

    /// Feeds one vsync of the display. A new period starts the whole model afresh from this vsync.
    /// @param vsyncTimeUs  when it happened; values below 1 are refused with an error message
    /// @param vsyncIncUs   vsync period; values below 1 are refused likewise
    /// @return false for a vsync that is older than the last one; true otherwise, also when refused
    bool updateHWCVsyncInfo(long vsyncTimeUs, int vsyncIncUs);

    /// Corrects one frame's presentation time. Call it once per frame, in order of presentation.
    /// @param mediaTimeUs    the frame's media time (for the log)
    /// @param realTimeUs     when the frame would be presented without correction
    /// @param frameNo        the frame's number (for the log)
    /// @param outRealTimeUs  receives the corrected time; not written while the tracker is off. A
    ///                       value below one vsync period (4000 before the first vsync is known) is
    ///                       no presentation time: set it to 0 before and keep realTimeUs then.
    bool getRealTime(long mediaTimeUs, long realTimeUs, int frameNo, long* outRealTimeUs);

    // The steps of getRealTime, in its order; they are called with its lock held.

    /// Finds the frame's interval, vsync number and repeat count.
    bool updateSyncFrame(long mediaTimeUs, long realTimeUs, int frameNo);
    /// Corrects the frame for the pattern in force, or keeps it off the edges of its interval.
    bool checkPattern(long* outRealTimeUs);
    /// Runs one pattern's detector over the corrected repeat counts.
    /// @param pattern  0 "[3:2]", 1 "[2:2]", 2 "[4:1]", 3 "[1:1]"
    /// @return false for any other pattern, with nothing changed
    bool detectPattern(int pattern);

private:
    friend struct VideoSyncFRACPeer;

    videoSyncFrac_priv* mPriv;  ///< owned; null when its allocation failed
    int32_t mDispModeCount;     ///< rows of the display-mode table
};
