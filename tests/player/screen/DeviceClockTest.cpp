// SPDX-License-Identifier: Apache-2.0
// The audio device's clock as the window follows it: a device that takes blocks, looked at every
// vsync and 7 and 14 ms later by a thread that is late now and then.
#include "player/screen/DeviceClock.h"

#include <gtest/gtest.h>

#include <cmath>

namespace korvane::player {
namespace {

struct Device {
    double ppm;
    double lateMs;  ///< every seventh look
};

class DeviceClockFollows : public ::testing::TestWithParam<Device> {};

TEST_P(DeviceClockFollows, RateAndTimeWithoutAJump) {
    constexpr double kBlock = 480;
    const auto played = [](double seconds) {
        const double samples = seconds * kSoundHz * (1 + GetParam().ppm * 1e-6);
        return static_cast<int64_t>(std::ceil(samples / kBlock + 1) * kBlock);
    };
    DeviceClock clock;
    clock.restart(0);
    double sample = 0.0;
    for (int look = 3; look < 3 * 60 * 60; ++look) {
        const double late = look % 7 == 0 ? GetParam().lateMs * 1e-3 : 0.0;
        const double seconds = look / 3 / 59.94 + look % 3 * 0.007 + late;
        const auto nowNs = static_cast<int64_t>(seconds * 1e9);
        EXPECT_FALSE(clock.lost(nowNs, played(seconds)));
        const SampleTimes before = clock.times();
        clock.see(nowNs, played(seconds));
        const SampleTimes times = clock.times();
        sample = (seconds * 1e6 - before.originUs) * before.perUs;
        EXPECT_NEAR((seconds * 1e6 - times.originUs) * times.perUs, sample, 0.01);
        if (look > 3 * 60 * 40) {
            EXPECT_NEAR(clock.driftPpm(), GetParam().ppm, 400);
            EXPECT_NEAR(sample, seconds * kSoundHz * (1 + GetParam().ppm * 1e-6), 360);
        }
    }
    EXPECT_TRUE(clock.lost(70'000'000'000, static_cast<int64_t>(sample)));
}

INSTANTIATE_TEST_SUITE_P(Devices, DeviceClockFollows,
                         ::testing::Values(Device{0, 0}, Device{150, 5}, Device{-200, 5},
                                           Device{-9000, 2}));

}  // namespace
}  // namespace korvane::player
