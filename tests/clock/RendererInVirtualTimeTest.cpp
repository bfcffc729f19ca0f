// The unmodified renderer library on the TV in virtual time: ten minutes of film, twice, in
// seconds.
#include <gmock/gmock.h>
#include <unistd.h>

#include <memory>
#include <mutex>
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

class Play {
public:
    explicit Play(uint64_t seed) : mTime(seed) {
        tv::openLog(8);
        tv::setProperty("vendor.korvane.loglevels", "0");
        tv::TvConfig config;
        config.display.rateHz = tv::displayRateHz(59.94);
        mTv = tv::Tv::powerOn(config);
        mRenderer.reset(VideoTunnelRenderer_create());
        mRenderer->init(0);
        mRenderer->regCallBack(kFrameStatusCallback, &Play::onStatus, this);
        mTunnelId = mRenderer->getTunnelId();
    }

    Outcome run() {
        mRenderer->updateVideoTime(0);
        mRenderer->start();
        for (int frame = 0; frame < kFrames; ++frame) {
            // Two frames ahead of the clock, as a player with a small pool is.
            const int64_t dueUs = frame * int64_t{1'000'000} / 24;
            mRenderer->sendVideoFrame(kFd + frame % 8, dueUs + 100'000, false);
            usleep(static_cast<useconds_t>((frame + 1) * int64_t{1'000'000} / 24 - dueUs));
        }
        usleep(500'000);
        mRenderer->stop();
        mRenderer.reset();
        mTv->powerOff();
        for (const tv::BufferRecord& buffer : mTv->tunnel().record(mTunnelId)) {
            mEvents << buffer.serial << ' ' << buffer.fd << ' ' << buffer.presentationTimeUs << ' '
                    << buffer.queuedNs << ' ' << toString(buffer.fate) << ' '
                    << buffer.firstVsync.index << ' ' << buffer.dwellVsyncs << ' '
                    << buffer.releasedNs << ' ' << buffer.fenceSignalNs << ' ' << buffer.takenBackNs
                    << '\n';
            mOutcome.shown += buffer.fate == tv::BufferFate::Shown ? 1 : 0;
        }
        mOutcome.events = mEvents.str();
        mOutcome.elapsedNs = mTime.statistics().elapsedNs;
        return mOutcome;
    }

private:
    static int onStatus(void* self, void* info) {
        auto& play = *static_cast<Play*>(self);
        const auto& status = *static_cast<framestatus*>(info);
        play.mEvents << "back " << status.fd << ' ' << int{status.rendered} << " at " << tv::nowNs()
                     << '\n';
        return 0;
    }

    tv::VirtualTime mTime;
    std::shared_ptr<tv::Tv> mTv;
    std::unique_ptr<VideoTunnelRenderer> mRenderer;
    int mTunnelId = -1;
    std::ostringstream mEvents;
    Outcome mOutcome;
};

class RendererInVirtualTimeTest : public InVirtualTime {};

TEST_F(RendererInVirtualTimeTest, SameSeedSameRunToTheByte) {
    const Outcome first = Play(11).run();
    EXPECT_EQ(kFrames, first.shown);
    EXPECT_GT(first.elapsedNs, 600 * kSecond);
    EXPECT_LT(first.elapsedNs, 602 * kSecond);
    EXPECT_THAT(first.events, ::testing::HasSubstr("back 10000 1 at "));
    EXPECT_EQ(first.events, Play(11).run().events);
}

}  // namespace
}  // namespace korvane::test
