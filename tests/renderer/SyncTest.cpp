// How a frame meets sound: audio start, resume, underflow and catch-up, pass-through policies.
#include "tests/renderer/RendererFixture.h"

namespace korvane::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr auto kAudioLeads = static_cast<sync_mode>(1);

class SyncTest : public RendererTest {
protected:
    /// Audio takes the clock at a media time, from now.
    void audioStarts(int64_t mediaUs) {
        clock->setTrackMediaTime(mediaUs);
        clock->anchorFromAudio(mediaUs, time.nowUs());
        clock->setMode(kAudioLeads);
        clock->setPause(false, time.nowUs());
    }
};

TEST_F(SyncTest, FirstFrameHoldsTheClockUntilAudioReleasesIt) {
    struct Case {
        int64_t ptsUs;
        int64_t anchorUs;
    };
    for (const Case& c : {Case{90'000, 90'000}, Case{0, 1}}) {
        SCOPED_TRACE(c.ptsUs);
        make(3, true);
        time.after(1'999, [&] {
            EXPECT_TRUE(clock->paused());
            EXPECT_EQ(c.anchorUs, peer().anchorMediaTimeUs());
            audioStarts(c.ptsUs + 5);
        });
        peer().drain({kFd, c.ptsUs, 0, false});
        EXPECT_EQ(1, count("[syncWithAudio]wait audio start"));
        EXPECT_EQ(1, count("[syncWithAudio]audio have started"));
        EXPECT_TRUE(peer().audioSynced());
        EXPECT_EQ(1u, queuedBuffers().size());
        peer().pretendStopped();
        renderer.reset();
    }
}

TEST_F(SyncTest, FrameDroppedByAFlushWhileWaitingForAudioGoesOn) {
    make(1, true);
    time.after(1'000, [&] { renderer->flush(); });
    peer().drain({kFd, 90'000, 0, false});
    EXPECT_EQ(0, count("audio have started"));
    // Dropped by the wait, then dropped again because after the flush nobody leads the clock.
    EXPECT_THAT(returned, ElementsAre(Returned{kFd, 0}, Returned{kFd, 0}));
}

TEST_F(SyncTest, StopEndsTheWaitForAudio) {
    make(1, true);
    time.after(1'000, [&] { peer().pretendStopped(); });
    peer().drain({kFd, 90'000, 0, false});
    EXPECT_EQ(1u, returned.size());
    EXPECT_THAT(queuedBuffers(), IsEmpty());
}

TEST_F(SyncTest, PauseStateThatCannotBeReadCountsAsRunning) {
    make(1, true);
    clock->setStatus(-7);
    EXPECT_EQ(1, peer().syncWithAudio({kFd, 90'000, 0, false}));
    EXPECT_EQ(1, time.sleeps());
}

TEST_F(SyncTest, NobodyLeadsTheClockEveryFrameIsDroppedAndReanchors) {
    make(4, true);
    peer().setAudioSynced();
    renderer->updateVideoTime(10);
    peer().drain({1, 40'000, 0, false});
    peer().drain({2, 80'000, 0, false});
    EXPECT_THAT(returned, ElementsAre(Returned{1, 0}, Returned{2, 0}));
    EXPECT_EQ(80'000, peer().anchorMediaTimeUs());
    EXPECT_EQ(80'000, clock->mediaTimeAt(time.nowUs()));
    EXPECT_EQ(2, count("[drainVideoFrame]drop frame for sync audio:"));
}

TEST_F(SyncTest, FrameWaitsForAnAnchor) {
    make(1, true);
    peer().setAudioSynced();
    clock->setMode(kAudioLeads);
    time.after(3'000, [&] { audioStarts(80'000); });
    peer().drain({1, 90'000, 0, false});
    EXPECT_EQ(6, time.sleeps());
    EXPECT_EQ(1u, queuedBuffers().size());
    EXPECT_EQ(90'000, peer().anchorMediaTimeUs());
}

TEST_F(SyncTest, FrameAtTimeZeroDoesNotWaitForAnAnchor) {
    make(1, true);
    peer().setAudioSynced();
    clock->setMode(kAudioLeads);
    clock->setTrackMediaTime(5);
    peer().drain({1, 0, 0, false});
    EXPECT_EQ(0, time.sleeps());
    EXPECT_THAT(returned, ElementsAre(Returned{1, 0}));
}

TEST_F(SyncTest, FlushEndsTheWaitForAnAnchorOrTheAudioClockWithADrop) {
    for (const bool anchored : {false, true}) {
        SCOPED_TRACE(anchored);
        make(1, true);
        returned.clear();
        peer().setAudioSynced();
        if (anchored) {
            audioStarts(50'000);
            clock->setPause(true, time.nowUs());
            renderer->sendVideoFrame(9, 0, false);
            peer().checkPause();
            EXPECT_EQ(50'000, peer().pauseMediaTimeUs());
        } else {
            clock->setMode(kAudioLeads);
        }
        time.after(2'000, [&] { renderer->flush(); });
        peer().drain({1, 90'000, 0, false});
        EXPECT_EQ((Returned{1, 0}), returned.back());
        EXPECT_THAT(queuedBuffers(), IsEmpty());
        peer().pretendStopped();
        renderer.reset();
    }
}

TEST_F(SyncTest, NewStartingTimeRestartsTheCadence) {
    make(2, true);
    peer().setAudioSynced();
    audioStarts(50'000);
    peer().drain({1, 50'000, 0, false});
    for (const auto& [startingUs, resets] : {std::pair{-1L, 0}, {700L, 1}, {700L, 0}, {900L, 1}}) {
        clock->setStartingTimeMedia(startingUs);
        log.clear();
        peer().drain({2, 50'000, 0, false});
        EXPECT_EQ(resets, count("[drainVideoFrame]resume need reset frac")) << startingUs;
        EXPECT_EQ(resets, count("[resetFRC] reset FRAC")) << startingUs;
    }
}

TEST_F(SyncTest, UnderflowNeedsAudioLeadingPausedAndNothingQueued) {
    struct Case {
        const char* what;
        bool leads;
        bool paused;
        bool queued;
        bool underflow;
        int64_t pauseUs;
    };
    for (const Case& c : {Case{"underflow", true, true, false, true, 50'000},
                          Case{"a frame is queued", true, true, true, false, 50'000},
                          Case{"running", true, false, false, false, -1},
                          Case{"audio does not lead", false, true, false, false, -1}}) {
        SCOPED_TRACE(c.what);
        make(2, true);
        audioStarts(50'000);
        clock->setPause(c.paused, time.nowUs());
        if (!c.leads) {
            clock->setMode(static_cast<sync_mode>(0));
        }
        if (c.queued) {
            renderer->sendVideoFrame(kFd, 0, false);
        }
        peer().checkPause();
        EXPECT_EQ(c.underflow, peer().underflow());
        EXPECT_EQ(c.pauseUs, peer().pauseMediaTimeUs());
        EXPECT_EQ(c.underflow ? 1 : 0, count("video underflow!!!!!"));
        peer().pretendStopped();
        renderer.reset();
    }
}

TEST_F(SyncTest, CatchUpDropsFramesFifteenMillisecondsBehindAudio) {
    struct Case {
        int64_t behindUs;
        bool dropped;
    };
    for (const Case& c : {Case{15'000, true}, Case{14'999, false}, Case{200'000, true}}) {
        SCOPED_TRACE(c.behindUs);
        make(4, true);
        returned.clear();
        peer().setAudioSynced();
        audioStarts(500'000);
        clock->setPause(true, time.nowUs());
        peer().checkPause();
        ASSERT_TRUE(peer().underflow());
        const int64_t trackUs = 600'000;
        time.after(2'500, [&] { audioStarts(trackUs); });
        peer().drain({1, trackUs - c.behindUs, 0, false});
        EXPECT_EQ(1, count("[drainVideoFrame]audio update first pts after underflow"));
        EXPECT_EQ(c.dropped ? 1 : 0, count("to catch up audio after underflow"));
        EXPECT_EQ(c.dropped ? 0 : 1, count("video have catch up wih audio after underflow"));
        EXPECT_EQ(c.dropped, peer().catchUpPending());
        // The frame that ends the catch-up is on time, not early: it goes as well.
        EXPECT_THAT(returned, ElementsAre(Returned{1, 0}));
        if (c.dropped) {
            EXPECT_EQ(trackUs - c.behindUs, peer().anchorMediaTimeUs());
        }
        peer().pretendStopped();
        renderer.reset();
    }
}

class PassthroughTest : public SyncTest {
protected:
    void answer(int32_t policy, int64_t realTimeUs = 0) {
        clock->setVideoPolicy([=](int64_t, int64_t, int64_t) {
            return mediasync_video_policy{policy, 0, realTimeUs, 0};
        });
    }
};

TEST_F(PassthroughTest, PolicyDecides) {
    struct Case {
        int32_t policy;
        bool show;
        int64_t realTimeUs;
        const char* label;
    };
    make(5, false, true);
    for (const Case& c : {Case{1, true, 777, "(rend) mediaTimeUs:40(41) "},
                          Case{3, false, 777, "(drop) mediaTimeUs:40(0) "},
                          Case{9, true, 777, "(?\?) mediaTimeUs:40(0) "}}) {
        SCOPED_TRACE(c.policy);
        answer(c.policy, c.realTimeUs);
        bool show = true;
        int64_t realTimeUs = 0;
        peer().process(40, &show, &realTimeUs);
        EXPECT_EQ(c.show, show);
        EXPECT_EQ(c.realTimeUs, realTimeUs);
        EXPECT_EQ(1, count(c.label));
        log.clear();
    }
}

TEST_F(PassthroughTest, LongHoldReportsEveryTenthFromTheHundredAndTenthOn) {
    make(1, false, true);
    answer(2);
    bool show = true;
    int64_t realTimeUs = 5;
    for (int i = 1; i <= 125; ++i) {
        peer().process(40, &show, &realTimeUs);
    }
    EXPECT_EQ(2, count("MEDIASYNC_VIDEO_HOLD"));
    EXPECT_EQ(1, count("mVideoHoldCount:110 mediaTimeUs:40 \n"));
    EXPECT_EQ(1, count("mVideoHoldCount:120 "));
    EXPECT_TRUE(peer().holding());
    EXPECT_EQ(5, realTimeUs);
    answer(1);
    peer().process(40, &show, &realTimeUs);
    EXPECT_FALSE(peer().holding());
    EXPECT_EQ(0, peer().holdCount());
}

TEST_F(PassthroughTest, ExitIsFinal) {
    make(1, false, true);
    answer(4);
    bool show = true;
    int64_t realTimeUs = 0;
    peer().process(40, &show, &realTimeUs);
    EXPECT_EQ(1, count("MEDIASYNC_VIDEO_EXIT mediaTimeUs:40"));
    answer(3);
    peer().process(50, &show, &realTimeUs);
    EXPECT_TRUE(show);
    EXPECT_EQ(1, count("[onVideoSyncProcess] video mediasync has exited"));
}

TEST_F(PassthroughTest, NullOutputsAreRefused) {
    make(1, false, true);
    bool show = false;
    int64_t realTimeUs = 0;
    peer().process(40, nullptr, &realTimeUs);
    peer().process(40, &show, nullptr);
    EXPECT_EQ(2, count("[onVideoSyncProcess] Parameters error!"));
    EXPECT_FALSE(show);
}

TEST_F(PassthroughTest, FreeRunShowsAtOnceWithoutAsking) {
    for (const bool byProperty : {true, false}) {
        SCOPED_TRACE(byProperty);
        tv::setProperty("vendor.tunerpassthrough.renderfreeRun", byProperty ? "1" : "0");
        make(4, false, true);
        if (!byProperty) {
            peer().setParam9Extra(1);
        }
        clock->setVideoPolicy([](int64_t, int64_t, int64_t) -> mediasync_video_policy {
            ADD_FAILURE() << "asked";
            return {};
        });
        bool show = false;
        int64_t realTimeUs = 9;
        peer().process(40, &show, &realTimeUs);
        EXPECT_TRUE(show);
        EXPECT_EQ(0, realTimeUs);
        EXPECT_EQ(1, count("(?\?) mediaTimeUs:40"));
        peer().pretendStopped();
        renderer.reset();
    }
}

}  // namespace
}  // namespace korvane::test
