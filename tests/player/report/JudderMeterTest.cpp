// SPDX-License-Identifier: Apache-2.0
// Judder and freezes of pictures, told by their times on screen in ms.
#include "player/report/JudderMeter.h"

#include <gtest/gtest.h>

#include <vector>

namespace korvane::player {
namespace {

constexpr int kSkip = 0;
constexpr int kRestart = -1;
constexpr double kVsyncMs = 1000.0 / 60;

struct JudderCase {
    const char* what;
    double contentMs;                 ///< between frames
    std::vector<double> durationsMs;  ///< on screen; kSkip, kRestart
    int64_t meanErrorUs;
    int64_t judders;
    int64_t freezes;
    int64_t longestMs;
    size_t counter;  ///< of the judder, else of the freeze, if there is one
};

std::vector<double> vsyncs(const std::vector<int>& dwells) {
    std::vector<double> durations;
    for (const int dwell : dwells) {
        durations.push_back(dwell > 0 ? dwell * kVsyncMs : dwell);
    }
    return durations;
}

TEST(JudderMeter, CountsAsDevicesDo) {
    const std::vector<JudderCase> cases = {
        {"even", 40, {40, 40, 40, 40, 40}, 0, 0, 0, 0, 0},
        {"3:2 is none", 1000.0 / 24, vsyncs({3, 2, 3, 2, 3, 2}), 8'333, 0, 0, 0, 0},
        {"less than 2 ms", 4, {4, 4, 5.9, 4, 4}, 380, 0, 0, 0, 0},
        {"a quarter of the content", 40, {40, 40, 50, 40, 40}, 2'000, 1, 0, 0, 3},
        {"less", 40, {40, 40, 49.9, 40, 40}, 1'980, 0, 0, 0, 0},
        {"made up for at once", 40, {40, 52, 28, 40, 40}, 4'800, 2, 0, 0, 4},
        {"and twice the same way: 12 + 24", 40, {40, 52, 52, 40, 40}, 4'800, 2, 0, 0, 4},
        {"twice the content is a pause", 40, {40, 40, 80, 40, 40}, 8'000, 0, 0, 80, 0},
        {"a skip is a freeze, not judder", 40, {40, 40, 80, kSkip, 40, 40}, 0, 0, 1, 80, 4},
        {"as long as it was", 40, {40, 140, kSkip, kSkip, 40, 40}, 5'000, 0, 1, 140, 6},
        {"a pause in which frames went by", 40, {40, 281, kSkip, 40, 40}, 50'250, 0, 0, 281, 0},
        {"many in a row", 40, {40, 480, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 40}, 0, 0, 1, 480, 11},
        {"a flush in it", 40, {40, 40, 90, kSkip, kRestart, 40, 40}, 0, 0, 0, 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        JudderMeter meter;
        double shownMs = 1000.0;
        int64_t frameNo = 0;
        for (const double duration : c.durationsMs) {
            if (duration == kRestart) {
                meter.restart();
            } else if (duration == kSkip) {
                meter.skipped(static_cast<int64_t>(c.contentMs * 1e3 * frameNo));
                ++frameNo;
            } else {
                meter.shown(frameNo, static_cast<int64_t>(c.contentMs * 1e3 * frameNo),
                            static_cast<int64_t>(shownMs * 1e3));
                shownMs += duration;
                ++frameNo;
            }
        }
        meter.shown(frameNo, static_cast<int64_t>(c.contentMs * 1e3 * frameNo),
                    static_cast<int64_t>(shownMs * 1e3));
        const JudderReport report = meter.report();
        EXPECT_NEAR(static_cast<double>(report.meanErrorUs), static_cast<double>(c.meanErrorUs), 2);
        EXPECT_EQ(report.judderScore, c.judders);
        EXPECT_EQ(report.freezeScore, c.freezes);
        EXPECT_EQ(report.longestFreezeUs / 1000, c.longestMs);
        if (c.judders + c.freezes > 0) {
            EXPECT_GT(c.judders > 0 ? report.judders[c.counter] : report.freezes[c.counter], 0);
        }
    }
}

TEST(JudderMeter, TellsFreezesBySharesAndDistances) {
    JudderMeter meter;
    int64_t frameNo = 0;
    for (const int64_t shownMs : {0, 40, 160, 200, 240, 360, 400}) {
        if (shownMs == 160 || shownMs == 360) {
            meter.skipped(frameNo++ * 40'000);
            meter.skipped(frameNo++ * 40'000);
        }
        meter.shown(frameNo, frameNo * 40'000, shownMs * 1000);
        ++frameNo;
    }
    meter.skipped(frameNo * 40'000);
    meter.shown(frameNo + 1, frameNo * 40'000 + 400'001, 400'000);  // the content jumps: no freeze
    meter.ended(9'000'000);  // nothing was skipped after the last picture
    EXPECT_EQ(meter.report().longestFreezeUs, 120'000);
    meter.skipped(frameNo * 40'000 + 440'001);
    meter.ended(9'000'000);
    const JudderReport report = meter.report();
    EXPECT_EQ(report.longestFreezeUs, 8'600'000);
    EXPECT_EQ(report.freezeScore, 2);
    EXPECT_EQ(report.freezes[6], 2) << "120 ms";
    EXPECT_EQ(report.freezeDistances[1], 1) << "80 ms from one to the other";
    EXPECT_DOUBLE_EQ(report.freezeRate, 240.0 / 400.0);
}

}  // namespace
}  // namespace korvane::player
