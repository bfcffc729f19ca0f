// SPDX-License-Identifier: Apache-2.0
// The unmodified renderer library on the TV in virtual time: ten minutes of film, twice, in
// seconds.
#include <gmock/gmock.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <string>

#include "VideoTunnelRenderer.h"
#include "tests/clock/InVirtualTime.h"
#include "tv/Platform.h"
#include "tv/Tv.h"

namespace korvane::test {
namespace {

constexpr int kFd = 10'000;  // no open descriptor: a buffer without a picture
constexpr int kFrames = 10 * 60 * 24;

struct Outcome {
    std::string events;  ///< every buffer's life and every call back, one a line
    int shown = 0;
    int64_t elapsedNs = 0;
};

int onStatus(void* events, void* info) {
    const auto& status = *static_cast<framestatus*>(info);
    *static_cast<std::ostringstream*>(events)
        << "back " << status.fd << ' ' << int{status.rendered} << " at " << tv::nowNs() << '\n';
    return 0;
}

Outcome play(uint64_t seed) {
    const tv::VirtualTime time(seed);
    tv::openLog(8);
    tv::setProperty("vendor.korvane.loglevels", "0");
    tv::TvConfig config;
    config.display.rateHz = tv::displayRateHz(59.94);
    const auto tv = tv::Tv::powerOn(config);
    std::unique_ptr<VideoTunnelRenderer> renderer(VideoTunnelRenderer_create());
    std::ostringstream events;
    renderer->init(0);
    renderer->regCallBack(kFrameStatusCallback, &onStatus, &events);
    const int tunnelId = renderer->getTunnelId();
    renderer->updateVideoTime(0);
    renderer->start();
    for (int64_t frame = 0; frame < kFrames; ++frame) {
        // Two frames ahead of the clock, as a player with a small pool is.
        const int64_t dueUs = frame * 1'000'000 / 24;
        renderer->sendVideoFrame(kFd + static_cast<int>(frame % 8), dueUs + 100'000, false);
        usleep(static_cast<useconds_t>((frame + 1) * 1'000'000 / 24 - dueUs));
    }
    usleep(500'000);
    renderer->stop();
    renderer.reset();
    tv->powerOff();
    Outcome outcome;
    for (const tv::BufferRecord& buffer : tv->tunnel().record(tunnelId)) {
        events << buffer.fd << ' ' << buffer.presentationTimeUs << ' ' << buffer.queuedNs << ' '
               << toString(buffer.fate) << ' ' << buffer.firstVsync.index << ' '
               << buffer.releasedNs << ' ' << buffer.takenBackNs << '\n';
        outcome.shown += buffer.fate == tv::BufferFate::Shown ? 1 : 0;
    }
    outcome.events = events.str();
    outcome.elapsedNs = time.statistics().elapsedNs;
    return outcome;
}

using RendererInVirtualTimeTest = InVirtualTime;

TEST_F(RendererInVirtualTimeTest, SameSeedSameRunToTheByte) {
    const Outcome first = play(11);
    EXPECT_EQ(kFrames, first.shown);
    EXPECT_GT(first.elapsedNs, 600 * kSecond);
    EXPECT_LT(first.elapsedNs, 602 * kSecond);
    EXPECT_THAT(first.events, ::testing::HasSubstr("back 10000 1 at "));
    EXPECT_EQ(first.events, play(11).events);
}

}  // namespace
}  // namespace korvane::test
