// SPDX-License-Identifier: Apache-2.0
// What an exploration judges, without exploring.
#include <gtest/gtest.h>

#include <cstddef>
#include <iterator>

#include "VideoTunnelRenderer.h"
#include "player/explore/ExploreNames.h"
#include "player/explore/Program.h"
#include "player/explore/RunRecord.h"
#include "player/explore/Runner.h"
#include "player/explore/ScenarioProgram.h"
#include "player/scenario/ScenarioFile.h"

struct VideoTunnelRendererPeer {
    static std::vector<int64_t> locks(const VideoTunnelRenderer& r) {
        const auto at = [&](const void* lock) {
            return static_cast<const char*>(lock) - reinterpret_cast<const char*>(&r);
        };
        return {at(&r.mInputLock), at(&r.mShowLock), at(&r.mRenderTimeLock), at(&r.mCallbackLock)};
    }
};

namespace korvane::player {
namespace {

constexpr int64_t kMs = 1'000'000;

/// Frame 0 shown and back, frame 1 in the tunnel.
RunRecord goodRun() {
    RunRecord record;
    record.frames.resize(2);
    record.frames[0].returns = 1;
    record.frames[0].rendered = true;
    record.frames[0].backNs = 60 * kMs;
    for (int i = 0; i < 2; ++i) {
        tv::BufferRecord queued;
        queued.frameNo = i;
        queued.queuedNs = (i + 1) * kMs;
        queued.presentationTimeUs = 10'000;
        record.tunnel.push_back(queued);
    }
    return record;
}

TEST(ExploreNamesTest, AreThoseOfTheBuiltInPrograms) {
    std::vector<std::string> names;
    for (const auto& program : builtInPrograms()) {
        names.push_back(program.name);
    }
    EXPECT_EQ(names, std::vector<std::string>(std::begin(kProgramNames), std::end(kProgramNames)));
}

TEST(RunRecordTest, NamesWhatBroke) {
    const struct {
        void (*spoil)(RunRecord&);
        const char* what;
        bool deliberate;
    } cases[] = {
        {[](RunRecord& run) { run.frames[0].returns = 2; }, "a buffer comes back twice", false},
        {[](RunRecord& run) {
             run.frames[0].returns = 2;
             run.frames[0].flushed = run.withAudio = true;
             run.flushes = 1;
         },
         "a buffer comes back twice: a flush met its frame in the wait for audio's start", true},
        {[](RunRecord& run) {
             run.frames[0].returns = 3;
             run.frames[0].flushed = run.withAudio = true;
             run.flushes = 3;
         },
         "a buffer comes back twice", false},
        {[](RunRecord& run) { run.bothTypes = true; },
         "a buffer comes back by one of the two callbacks only", false},
        {[](RunRecord& run) { run.tunnel[1].presentationTimeUs = 500'000; },
         "a frame is queued before its time", false},
        {[](RunRecord& run) { run.tunnel[1].queuedNs = 51 * kMs; },
         "a frame is queued that should be dropped as late", false},
        {[](RunRecord& run) { run.tunnel[0].takenBackNs = 60 * kMs; },
         "a buffer is taken out of the tunnel that should keep the last two", false},
        {[](RunRecord& run) {
             run.frames[0] = {};
             run.tunnel.erase(run.tunnel.begin());
         },
         "a frame is lost: later ones came further", false},
        {[](RunRecord& run) { run.tunnel.erase(run.tunnel.begin()); },
         "a frame comes back as shown that never went to the tunnel", false},
        {[](RunRecord& run) { run.stopTookNs = 51 * kMs; }, "stop takes longer than its bound",
         false},
        {[](RunRecord& run) { run.lateCallbacks = 1; }, "a callback comes after stop has returned",
         false},
    };
    EXPECT_TRUE(faultsOf(goodRun()).empty());
    for (const auto& spoiled : cases) {
        RunRecord run = goodRun();
        run.stopBoundNs = 50 * kMs;
        spoiled.spoil(run);
        const auto faults = faultsOf(run);
        ASSERT_EQ(faults.size(), 1U) << spoiled.what;
        EXPECT_EQ(faults[0].what, spoiled.what);
        EXPECT_EQ(deliberateReason(faults[0]) != nullptr, spoiled.deliberate);
    }
    RunRecord away = goodRun();
    away.tunnel[1].queuedNs = 51 * kMs;
    away.awayNs = 2 * kMs;
    EXPECT_TRUE(faultsOf(away).empty());
}

TEST(RunnerTest, KnowsTheLocksOfTheDesign) {
    const VideoTunnelRenderer renderer;
    const auto locks = VideoTunnelRendererPeer::locks(renderer);
    const std::string all = "mInputLock, mShowLock, mRenderTimeLock, mCallbackLock";
    EXPECT_EQ(unnamedLocks(kFrameStatusCallback, false, locks), all);
    EXPECT_EQ(unnamedLocks(kFrameStatusCallback, true, locks), "mShowLock, mCallbackLock");
    EXPECT_EQ(unnamedLocks(kRenderTimeCallback, false, locks),
              "mInputLock, mShowLock, mCallbackLock");
}

TEST(ProgramTest, ScenarioKeepsItsEventsInFewFrames) {
    const Scenario scenario = parseScenario(
        "title = 'a'\nholds = 'b'\n[content]\nfps = 25\nduration = '10s'\n[audio]\n"
        "pause = [{ at = '2s', for = '1s' }]\n[player]\nseek = [{ at = '5s', to = '1s' }]\n"
        "[expect]\n",
        "a.toml");
    const Program program = programOf(scenario, 10);
    const Session& session = program.players.at(0).at(0);
    ASSERT_EQ(session.threads.size(), 2U);
    EXPECT_EQ(framesOf(program), 10);
    EXPECT_EQ(framesOf(withFrames(program, 3)), 3);
    const auto& steps = session.threads[0];
    const auto seek = std::find_if(steps.begin(), steps.end(),
                                   [](const Step& step) { return step.act == Act::Flush; });
    ASSERT_NE(seek, steps.end());
    EXPECT_EQ((seek - 1)->us, 200'000);  // half of 400 ms
    EXPECT_EQ((seek + 2)->us, 1'000'000);
    EXPECT_EQ(session.threads[1][0].us, 80'000);
}

}  // namespace
}  // namespace korvane::player
