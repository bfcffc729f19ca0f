// SPDX-License-Identifier: Apache-2.0
// Whole streams through the cadence tracker: the pattern, how long it lasts, and the slips that the
// rates demand. A pump presents content of any rate on a display of any rate as the drain thread
// does: it reports the display's last vsync before every tenth frame and cuts times to
// microseconds. It checks on every frame what must hold for all rates.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <random>
#include <thread>

#include "tests/frac/FracTestSupport.h"

namespace korvane::test {
namespace {

struct Stream {
    double fps, hz, seconds;
    uint64_t seed = 1;           ///< for the display's phase and all jitter
    int64_t reportJitterUs = 0;  ///< largest error, either way, of a reported vsync time
    int64_t frameJitterUs = 0;   ///< largest error, either way, of a frame's real time
};

/// The exact rate behind a nominal one: 23.976 is 24000/1001.
double exactRate(double nominal) {
    const double whole = std::round(nominal);
    return std::abs(nominal - whole) < 0.001 ? whole : whole * 1000 / 1001;
}

struct CadencePump {
    /// Presents a whole stream; stops at the first failure.
    explicit CadencePump(const Stream& s) : stream(s) {
        tracker.setFrameRate(static_cast<int>(std::lround(stream.fps * 100)));
        tracker.setEnablePattern(11);
        while (static_cast<double>(frameNo) * frameUs < stream.seconds * 1e6) {
            presentOne();
            if (testing::Test::HasFailure()) {
                ADD_FAILURE() << stream.fps << " fps on " << stream.hz << " Hz, seed "
                              << stream.seed << ", frame " << frameNo << ", dwell " << dwell;
                break;
            }
            ++frameNo;
        }
    }

    int64_t jitter(int64_t largestUs) {
        return std::uniform_int_distribution<int64_t>(-largestUs, largestUs)(random);
    }

    void presentOne() {
        const double dueUs = 1e9 + static_cast<double>(frameNo) * frameUs;
        if (frameNo % 10 == 0) {
            // A frame is processed a little more than two vsyncs before it is due.
            const double vsyncs = std::floor((dueUs - 40'000 - phaseUs) / vsyncUs);
            const auto timeUs = static_cast<int64_t>(vsyncs * vsyncUs + phaseUs);
            EXPECT_TRUE(tracker.updateHWCVsyncInfo(timeUs + jitter(stream.reportJitterUs),
                                                   static_cast<int>(vsyncUs)));
        }
        const int32_t pattern = state.curPattern;
        const SyncFrame previous = state.prevFrame;
        const int64_t realTimeUs = static_cast<int64_t>(dueUs) + jitter(stream.frameJitterUs);
        long resultUs = 0;
        EXPECT_TRUE(tracker.getRealTime(0, realTimeUs, 0, &resultUs));
        EXPECT_EQ(resultUs, state.prevFrame.syncRealTimeUs);
        checkPlace(state.prevFrame, pattern);
        if (frameNo > 1) {  // the first frame's number is not tied to the grid
            checkOrder(previous, state.prevFrame);
        }
        lockedAt = lockedAt < 0 && state.curPattern != kNoPattern ? frameNo : lockedAt;
    }

    /// A result keeps the margin to both edges of its interval, except a frame that the pattern in
    /// force could not correct. Its vsync number and its interval agree.
    void checkPlace(const SyncFrame& frame, int32_t pattern) {
        const int64_t intoUs = frame.syncRealTimeUs - frame.targetVsyncTime;
        const int64_t movedVsyncs = frame.targetVsyncCnt - frame.vsyncCnt;
        const bool unmoved = frame.syncRealTimeUs == frame.realTimeUs + state.hwcOffset;
        EXPECT_TRUE((intoUs >= 4000 && intoUs <= frame.vsync.vsyncInc - 4000) ||
                    (pattern != kNoPattern && unmoved))
            << intoUs;
        EXPECT_EQ(frame.targetVsyncTime - frame.vsyncTime, movedVsyncs * frame.vsync.vsyncInc);
        EXPECT_LE(std::abs(movedVsyncs), 2);
    }

    /// Frames are shown in order. A report moves the grid by what the period lost when it was cut
    /// to microseconds, so two frames of one vsync may differ by that.
    void checkOrder(const SyncFrame& previous, const SyncFrame& frame) {
        const int64_t vsyncs = frame.targetVsyncCnt - previous.targetVsyncCnt;
        EXPECT_GE(vsyncs, 0);
        EXPECT_GE(frame.syncRealTimeUs, previous.syncRealTimeUs - 50 - 2 * stream.reportJitterUs);
        slips += vsyncs != frame.repeatVsyncCnt;
        dwell = dwell.substr(dwell.size() < 20 ? 0 : 1) + std::to_string(vsyncs);
    }

    const Stream stream;
    const double frameUs = 1e6 / exactRate(stream.fps);
    const double vsyncUs = 1e6 / exactRate(stream.hz);
    std::mt19937_64 random{stream.seed};
    const double phaseUs = std::uniform_real_distribution<>(0, vsyncUs)(random);
    FracLog log;
    VideoSyncFRAC tracker;
    videoSyncFrac_priv& state = stateOf(tracker);
    int64_t frameNo = 0;
    int64_t lockedAt = -1;  ///< first frame with a pattern in force
    int64_t slips = 0;      ///< frames that were on screen for another time than their repeat count
    std::string dwell;      ///< vsyncs for which each of the last frames was on screen
};

class Cadence : public testing::Test {
protected:
    Cadence() { setLogMask(0); }
};

TEST_F(Cadence, LocksAtOnceAndHoldsForHoursWithOnlyTheSlipsThatTheRatesDemand) {
    const struct {
        const char* pattern;
        double vsyncsPerFrame, fps;
    } kContents[] = {{"[3:2]", 2.5, 24},  {"[3:2]", 2.5, 23.976}, {"[2:2]", 2, 30},
                     {"[2:2]", 2, 29.97}, {"[1:1]", 1, 60},       {"[1:1]", 1, 59.94}};
    uint64_t seed = 0;
    for (const auto& content : kContents) {
        for (const double hz : {60.0, 59.94}) {
            CadencePump pump({content.fps, hz, 2 * 3600, ++seed});
            SCOPED_TRACE(std::to_string(content.fps) + " fps on " + std::to_string(hz) + " Hz");
            EXPECT_EQ(inForce(pump.tracker), content.pattern);
            // Two frames until counts are known, then ten that fit.
            EXPECT_EQ(pump.lockedAt, 12);
            // A hold or pull corrects the first vsync of difference; the others are visible.
            const double perFrame = exactRate(hz) / exactRate(content.fps) - content.vsyncsPerFrame;
            const double demanded = std::abs(perFrame) * static_cast<double>(pump.frameNo);
            EXPECT_NEAR(static_cast<double>(pump.slips), demanded, 2.0);
            const Lines lines = pump.log.take();
            EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                    [](const std::string& line) { return line[0] == 'E'; }),
                      pump.slips);
        }
    }
}

TEST_F(Cadence, LeavesContentWithoutAKnownPatternAsItIs) {
    const struct {
        double fps, hz;
        const char* dwell;
    } kCases[] = {{25, 60, "32232"}, {50, 60, "11112"}, {48, 60, "11121112"},
                  {25, 50, "22222"}, {50, 50, "11111"}, {30, 50, "22122"}};
    for (const auto& c : kCases) {
        const CadencePump pump({c.fps, c.hz, 600});
        EXPECT_EQ(pump.lockedAt, -1) << c.fps << " fps on " << c.hz;
        EXPECT_EQ(pump.slips, 0) << c.fps << " fps on " << c.hz;
        EXPECT_THAT(pump.dwell, testing::HasSubstr(c.dwell));
    }
}

// The first frame is a quarter of a period from the edge: where the rates fit, jitter that adds up
// to less (its own, another frame's, a report's) costs no vsync.
TEST_F(Cadence, AnyRatePhaseAndJitterKeepsOrderAndMarginsAndAFittingPattern) {
    std::mt19937_64 random(20240607);
    for (uint64_t seed = 1; seed <= 100; ++seed) {
        const bool fits = seed % 4 == 0;
        const double fps = fits ? 24.0 : std::uniform_real_distribution<>(5, 60)(random);
        const auto jitterUs = static_cast<int64_t>(random() % 1500);
        CadencePump pump({fps, seed % 2 == 0 ? 60 : 59.94, 120, seed, 300, jitterUs});
        if (fits) {
            EXPECT_EQ(inForce(pump.tracker), "[3:2]") << "seed " << seed;
            EXPECT_EQ(pump.slips, 0) << "seed " << seed;
        }
    }
}

// Invalid arguments: the calls must return, and sanitizers check the arithmetic.
TEST_F(Cadence, AbsurdTimesNeitherOverflowNorDivideByZero) {
    using Time = std::numeric_limits<int64_t>;
    using Period = std::numeric_limits<int>;
    constexpr int64_t kTimes[] = {Time::min(), -1, 0, 1, 4000, 1'000'000, Time::max()};
    constexpr int kPeriods[] = {Period::min(), -1, 0, 1, 7999, 16666, 16683, Period::max()};
    const FracLog log;  // captures the many errors
    VideoSyncFRAC tracker;
    std::mt19937_64 random(7);
    for (int step = 0; step < 100'000; ++step) {
        const int64_t timeUs = kTimes[random() % std::size(kTimes)];
        const int period = kPeriods[random() % std::size(kPeriods)];
        const auto choice = random() % 16;
        stateOf(tracker).curPattern = static_cast<int32_t>(random() % 5) - 1;
        long resultUs = 0;
        if (choice == 0) {
            tracker.resetFRC();
        } else if (choice < 4) {
            tracker.setFrameRate(choice == 1 ? 6000 : period);
            tracker.updateHWCVsyncInfo(timeUs, period);
        } else {
            tracker.setEnablePattern(static_cast<int>(random()));
            ASSERT_TRUE(tracker.getRealTime(timeUs, timeUs, step, &resultUs));
        }
    }
}

TEST_F(Cadence, TheFrameRateMayBeSetWhileFramesArePresented) {
    std::atomic<bool> done{false};
    VideoSyncFRAC tracker;
    tracker.setEnablePattern(11);
    tracker.updateHWCVsyncInfo(1'000'000, 16683);
    std::thread player([&] {
        for (int rate = 1; !done; rate = rate % 6000 + 1) {
            tracker.setFrameRate(rate);
        }
    });
    for (int64_t frame = 0; frame < 20'000; ++frame) {
        long resultUs = 0;
        EXPECT_TRUE(tracker.getRealTime(0, 1'100'000 + frame * 16683, 0, &resultUs));
    }
    done = true;
    player.join();
    EXPECT_EQ(inForce(tracker), "[1:1]");
}

}  // namespace
}  // namespace korvane::test
