// SPDX-License-Identifier: Apache-2.0
// Whole playbacks of short synthetic content: how they end when something goes wrong, and that the
// library's own lines tell why it drops frames.
#include "player/playback/Playback.h"

#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

#include "VideoTunnelRenderer.h"
#include "player/media/SyntheticContent.h"
#include "player/screen/ScreenQueue.h"
#include "tests/support/TvFixture.h"

namespace {
bool gNoRenderer = false;
}

/// In front of the library's own: makes no renderer when a test wants none.
VideoTunnelRenderer* VideoTunnelRenderer_create() {
    using Create = VideoTunnelRenderer* (*)();
    static const auto create =
        reinterpret_cast<Create>(dlsym(RTLD_NEXT, "VideoTunnelRenderer_create"));
    return gNoRenderer ? nullptr : create();
}

namespace korvane::player {
namespace {

using std::chrono::steady_clock;

/// All that the library logs about frames.
constexpr const char* kLogMaskProperty = "vendor.korvane.loglevels";
constexpr const char* kAllLines = "7";
constexpr int kNoLog = 8;

class Collector : public PlaybackListener {
public:
    void onStart(const PlaybackRecord& /*soFar*/) override { failIf("start"); }
    void onFrame(const FrameEntry& frame, const PlaybackRecord& /*soFar*/) override {
        failIf("frame");
        frames.push_back(frame);
    }
    void onAction(const Event& action) override {
        failIf(action.kind == EventKind::Pause ? "pause" : "action");
    }
    void failIf(const std::string& here) const {
        if (here == failAt) {
            throw std::domain_error("thrown at " + here);
        }
    }

    std::string failAt;
    std::vector<FrameEntry> frames;
};

/// Which frame each vsync showed.
class Viewer : public ScreenListener {
public:
    void onVsync(const ScreenMoment& moment, const tv::SoundRecord& /*sound*/) override {
        frames[moment.vsync.index] = moment.frameNo;
    }
    void onScreenEnd(const tv::SoundRecord& /*sound*/) override { ended = true; }

    std::map<int64_t, int64_t> frames;
    bool ended = false;
};

class PlaybackTest : public ::testing::Test {
protected:
    PlaybackTest() {
        tv::openLog(kNoLog);
        mContent.rate = {24, 1};
        mContent.durationUs = 1'000'000;
        mHooks.listeners = {&mCollector};
        mHooks.onLogLine = [this](const tv::LogLine& line) {
            if (!mFailAtLine.empty() && line.text.find(mFailAtLine) != std::string::npos) {
                throw std::domain_error("thrown at line");
            }
        };
    }
    ~PlaybackTest() override { tv::clearProperties(); }

    PlaybackRecord playAll() {
        SyntheticVideo video(mContent, mPlan.withAudio);
        auto audio = mPlan.withAudio ? std::make_unique<SyntheticAudio>(mContent) : nullptr;
        return play(mPlan, video, std::move(audio), mHooks);
    }
    /// @return what play() threw; empty: nothing
    std::string failure() {
        try {
            playAll();
        } catch (const std::exception& error) {
            return error.what();
        }
        return "";
    }

    ContentPlan mContent;
    PlaybackPlan mPlan;
    PlaybackHooks mHooks;
    Collector mCollector;
    std::string mFailAtLine;
};

TEST_F(PlaybackTest, IsInterruptedAtOnceBeforeItsFirstFrame) {
    // In real time: a decoder that takes 8 s for what is to wait before the start, and audio that
    // never comes.
    for (const bool slowDecoder : {true, false}) {
        mPlan.decodeUs = slowDecoder ? 1'000'000 : 0;
        mPlan.withAudio = !slowDecoder;
        mPlan.audio.startDelayUs = 3'600'000'000;
        const auto began = steady_clock::now();
        mHooks.interrupted = [began] {
            return steady_clock::now() >= began + std::chrono::milliseconds(300);
        };
        const PlaybackRecord record = playAll();
        EXPECT_EQ(record.end, EndCause::Interrupted);
        EXPECT_LT(steady_clock::now() - began, std::chrono::seconds(2)) << slowDecoder;
        EXPECT_EQ(record.pool.unknownReturned, 0);
    }
}

TEST_F(PlaybackTest, SaysThatTheLibraryGivesNoRenderer) {
    gNoRenderer = true;
    EXPECT_THAT(failure(), testing::HasSubstr("VideoTunnelRenderer_create returned null"));
    gNoRenderer = false;
}

TEST_F(PlaybackTest, TheScreenShowsWhatTheRecordSays) {
    const auto clock = test::virtualTimeIfAvailable();
    mPlan.seeks = {{400'000, 800'000}};
    Viewer direct;
    Viewer queued;
    ScreenQueue queue({&queued});
    mHooks.screens = {&direct, &queue};
    playAll();
    EXPECT_TRUE(direct.ended && queued.ended);
    EXPECT_EQ(queue.missed(), 0);
    EXPECT_EQ(queued.frames, direct.frames);
    std::map<int64_t, int64_t> shown;
    for (const FrameEntry& frame : mCollector.frames) {
        for (int64_t i = 0; frame.outcome == Outcome::Shown && i < frame.record->dwellVsyncs; ++i) {
            shown[frame.record->firstVsync.index + i] = frame.frameNo;
        }
    }
    // Before the first one, the screen is black.
    const auto last = direct.frames.rbegin()->first;
    for (int64_t vsync = direct.frames.begin()->first; vsync <= last; ++vsync) {
        const auto found = shown.find(vsync);
        EXPECT_EQ(direct.frames.at(vsync), found != shown.end() ? found->second : -1) << vsync;
    }
    EXPECT_GE(last + 1, shown.rbegin()->first) << "up to the end";
}

TEST_F(PlaybackTest, AViewerPausesStepsAndMissesNoPicture) {
    const auto clock = test::virtualTimeIfAvailable();
    for (const bool withAudio : {true, false}) {
        SCOPED_TRACE(withAudio);
        mPlan.withAudio = withAudio;
        mCollector.frames.clear();
        Remote remote;
        mHooks.remote = &remote;
        int64_t startNs = 0;
        using Kind = RemoteKey::Kind;
        std::deque<std::pair<int64_t, Kind>> keys{
            {300, Kind::Pause}, {900, Kind::Step}, {1300, Kind::Pause}};
        mHooks.onProgress = [&](const PlaybackProgress&, int64_t nowNs) {
            startNs = startNs == 0 ? nowNs : startNs;
            if (!keys.empty() && nowNs - startNs >= keys.front().first * 1'000'000) {
                remote.press({keys.front().second});
                keys.pop_front();
            }
        };
        const PlaybackRecord record = playAll();
        EXPECT_EQ(record.end, EndCause::Complete);
        EXPECT_GE(record.clockStops.size(), 1U);
        std::vector<int64_t> shownUs;
        int64_t standstills = 0;
        int64_t beforeNs = 0;
        for (const auto& frame : mCollector.frames) {
            if (frame.outcome == Outcome::Shown) {
                const int64_t atNs = frame.record->firstVsync.timeNs;
                standstills += beforeNs != 0 && atNs - beforeNs > 300'000'000 ? 1 : 0;
                beforeNs = atNs;
                shownUs.push_back(frame.mediaTimeUs);
            }
        }
        EXPECT_EQ(standstills, 2);
        EXPECT_EQ(shownUs.size(), 24U);
        EXPECT_TRUE(std::is_sorted(shownUs.begin(), shownUs.end()));
    }
}

TEST_F(PlaybackTest, ThrowsAgainWhatAListenerOrAnObserverThrows) {
    const auto clock = test::virtualTimeIfAvailable();
    tv::setProperty(kLogMaskProperty, kAllLines);
    TvFaults pause;
    pause.audioPaused = true;
    mPlan.faults = {{300'000, pause}};
    mPlan.withAudio = true;
    // On the player's thread before and after the library has started, and on the fault player's.
    for (const char* here : {"start", "action", "pause", "frame"}) {
        mCollector.failAt = here;
        EXPECT_EQ(failure(), "thrown at " + mCollector.failAt);
        EXPECT_FALSE(tv::Tv::isAnyOn());
    }
    mCollector.failAt.clear();
    // Inside the library's calls: on the player's thread, and on the drain thread.
    for (const char* line : {"==in==", "wait audio start"}) {
        mFailAtLine = line;
        EXPECT_EQ(failure(), "thrown at line") << line;
        EXPECT_FALSE(tv::Tv::isAnyOn());
    }
    mFailAtLine.clear();
    mPlan.faults.clear();
    EXPECT_EQ(playAll().end, EndCause::Complete);
}

/// A playback in which the library drops frames for one reason.
struct DropCase {
    DropReason reason;
    std::function<void(PlaybackPlan&)> prepare;
};

const DropCase kDropCases[] = {
    {DropReason::Late,
     [](auto& plan) {
         plan.gaps = {{0, 500'000}};
     }},
    {DropReason::BeforeAudio,
     [](auto& plan) {
         plan.withAudio = true;
         plan.audio.startDelayUs = 3'600'000'000;
         plan.stopAtUs = 1'000'000;
     }},
    {DropReason::UnderflowCatchUp,
     [](auto& plan) {
         plan.withAudio = true;
         // Frames from before the underflow come while audio stands still.
         plan.audio.underflows = {{1'000'000, 1'000'000}};
         plan.gaps = {{300'000, 1'500'000}};
     }},
    {DropReason::Policy,
     [](auto& plan) {
         plan.passthrough = true;
         plan.prepareClock = [](const auto& clock) {
             clock->setVideoPolicy([](int64_t, int64_t, int64_t) {
                 constexpr int32_t kDrop = 3;
                 mediasync_video_policy policy{};
                 policy.videopolicy = kDrop;
                 return policy;
             });
         };
     }},
};

TEST_F(PlaybackTest, KnowsWhyFramesAreDroppedFromTheLibrarysLines) {
    const auto clock = test::virtualTimeIfAvailable();
    tv::setProperty(kLogMaskProperty, kAllLines);
    mContent.durationUs = 3'000'000;
    for (const auto& [reason, prepare] : kDropCases) {
        mPlan = {};
        mCollector.frames.clear();
        prepare(mPlan);
        playAll();
        const auto told = std::count_if(mCollector.frames.begin(), mCollector.frames.end(),
                                        [reason = reason](const FrameEntry& frame) {
                                            return frame.dropReason == reason &&
                                                   frame.dropEvidence == DropEvidence::LogLine;
                                        });
        EXPECT_GT(told, 0) << "no line of the library announced a drop: " << toString(reason);
    }
}

}  // namespace
}  // namespace korvane::player
