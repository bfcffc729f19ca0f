// SPDX-License-Identifier: Apache-2.0
// Synchronisation with audio: start, resume, underflow and catch-up, pass-through policies.
#include "tests/renderer/RendererFixture.h"

namespace korvane::test {
namespace {

class SyncTest : public RendererTest {
protected:
    void makeSynced(int logMask) {
        make(logMask, true);
        peer().setAudioSynced();
    }
    /// Audio leads the clock from now on, starting at a media time.
    void audioStarts(int64_t mediaUs) {
        clock->setTrackMediaTime(mediaUs);
        clock->anchorFromAudio(mediaUs, mClock.nowUs());
        clock->setMode(MEDIA_SYNC_AMASTER);
        clock->setPause(false, mClock.nowUs());
    }
};

TEST_F(SyncTest, FirstFrameHoldsTheClockUntilAudioReleasesIt) {
    for (const int64_t ptsUs : {90'000, 0}) {
        make(3, true);
        mClock.after(1'999, [&] {
            EXPECT_TRUE(clock->paused());
            EXPECT_EQ(ptsUs == 0 ? 1 : ptsUs, peer().anchorMediaTimeUs());
            audioStarts(ptsUs + 5);
        });
        peer().drain({kFd, ptsUs, 0, false});
        EXPECT_EQ(1, count("[syncWithAudio]wait audio start"));
        EXPECT_EQ(1, count("[syncWithAudio]audio have started"));
        EXPECT_TRUE(peer().audioSynced());
        EXPECT_EQ(1u, queuedBuffers().size());
    }
    make(1, true);
    clock->setStatus(-7);
    const int64_t before = mClock.sleeps();
    EXPECT_EQ(1, peer().syncWithAudio({kFd, 90'000, 0, false}));
    EXPECT_EQ(before + 1, mClock.sleeps())
        << "a clock whose pause state cannot be read counts as running";
    peer().setAudioSynced();
    peer().drain({kFd, 90'000, 0, false});
    EXPECT_EQ(returned, (Returned{{kFd, 0}})) << "a clock that cannot be read makes frames late";
    make(1, false);
    EXPECT_EQ(1, peer().syncWithAudio({kFd, 90'000, 0, false}));
    EXPECT_FALSE(clock->paused()) << "no audio to wait for";
}

TEST_F(SyncTest, FlushAndStopEndTheWaitForAudio) {
    make(1, true);
    const auto renumber = [](void*, void* fd) { return ++*static_cast<int*>(fd); };
    renderer->regCallBack(0, renumber, nullptr);
    mClock.after(1'000, [&] { renderer->flush(); });
    peer().drain({kFd, 90'000, 0, false});
    EXPECT_EQ(0, count("audio have started"));
    // Dropped by the wait, then dropped again because after the flush nobody leads the clock. The
    // callback writes the descriptor of the frame itself, so the second drop counts on.
    EXPECT_EQ(returned, (Returned{{kFd + 1, 0}, {kFd + 2, 0}}));
    make(1, true);
    mClock.after(1'000, [&] { peer().pretendStopped(); });
    peer().drain({kFd, 90'000, 0, false});
    EXPECT_EQ(1u, returned.size());
    EXPECT_TRUE(queuedBuffers().empty());
}

TEST_F(SyncTest, NobodyLeadsTheClockEveryFrameIsDroppedAndReanchors) {
    makeSynced(4);
    renderer->updateVideoTime(10);
    peer().drain({1, 40'000, 0, false});
    peer().drain({2, 80'000, 0, false});
    EXPECT_EQ(returned, (Returned{{1, 0}, {2, 0}}));
    EXPECT_EQ(80'000, peer().anchorMediaTimeUs());
    EXPECT_EQ(80'000, clock->mediaTimeAt(mClock.nowUs()));
    EXPECT_EQ(2, count("[drainVideoFrame]drop frame for sync audio:"));
}

TEST_F(SyncTest, FrameWaitsForAnAnchorUnlessItsTimeIsZero) {
    makeSynced(1);
    clock->setMode(MEDIA_SYNC_AMASTER);
    mClock.after(3'000, [&] { audioStarts(80'000); });
    peer().drain({1, 90'000, 0, false});
    EXPECT_EQ(6, mClock.sleeps());
    EXPECT_EQ(1u, queuedBuffers().size());
    EXPECT_EQ(90'000, peer().anchorMediaTimeUs());
    makeSynced(1);
    clock->setMode(MEDIA_SYNC_AMASTER);
    clock->setTrackMediaTime(5);
    peer().drain({1, 0, 0, false});
    EXPECT_EQ(6, mClock.sleeps());
    EXPECT_EQ(returned, (Returned{{1, 0}}));
    make(1, true);
    mClock.after(1'000, [&] {
        clock->reset();  // the anchor of this very frame is lost: it is not given again
        clock->setMode(MEDIA_SYNC_AMASTER);
    });
    mClock.after(3'000, [&] { audioStarts(80'000); });
    peer().drain({1, 90'000, 0, false});
    EXPECT_EQ(0, clock->counters().anchorsIgnored);
    EXPECT_EQ(1u, queuedBuffers().size());
}

TEST_F(SyncTest, FlushOrStopEndsTheWaitForAnAnchorOrTheAudioClockWithADrop) {
    const struct {
        const char* what;
        bool anchored, fails, stop;
    } kCases[] = {{"no anchor", false, false, false},
                  {"no anchor, and the service fails", false, true, false},
                  {"no anchor, stop", false, false, true},
                  {"audio stands still", true, false, false}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        makeSynced(1);
        if (c.anchored) {
            audioStarts(50'000);
            clock->setPause(true, mClock.nowUs());
            renderer->sendVideoFrame(9, 0, false);
            peer().checkPause();
            EXPECT_EQ(50'000, peer().pauseMediaTimeUs());
            peer().setAudioSynced();
        } else {
            clock->setMode(MEDIA_SYNC_AMASTER);
        }
        mClock.after(2'000, [&] {
            clock->setStatus(c.fails ? -7 : 0);
            if (c.stop) {
                peer().pretendStopped();
            } else {
                renderer->flush();
            }
        });
        peer().drain({1, 90'000, 0, false});
        EXPECT_EQ(std::make_pair(1, 0), returned.back());
        EXPECT_TRUE(queuedBuffers().empty());
    }
}

TEST_F(SyncTest, NewStartingTimeRestartsTheCadence) {
    makeSynced(2);
    audioStarts(50'000);
    peer().drain({1, 50'000, 0, false});
    for (const auto& [startingUs, resets] :
         {std::pair{-1L, 0}, {700L, 1}, {700L, 0}, {900L, 1}, {-1L, 0}, {900L, 0}}) {
        clock->setStartingTimeMedia(startingUs);
        log.take();
        peer().drain({2, 50'000, 0, false});
        EXPECT_EQ(resets, count("[drainVideoFrame]resume need reset frac")) << startingUs;
        EXPECT_EQ(resets, count("[resetFRC] reset FRAC")) << startingUs;
    }
}

TEST_F(SyncTest, UnderflowNeedsAudioLeadingPausedAndNothingQueued) {
    const struct {
        const char* what;
        bool started, leads, paused, queued, underflow;
        int64_t pauseUs;
    } kCases[] = {{"underflow", true, true, true, false, true, 50'000},
                  {"a frame is queued", true, true, true, true, false, 50'000},
                  {"running", true, true, false, false, false, -1},
                  {"audio does not lead", true, false, true, false, false, -1},
                  {"stopped", false, true, true, false, false, -1}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        make(2, true);
        audioStarts(50'000);
        clock->setPause(c.paused, mClock.nowUs());
        if (!c.leads) {
            clock->setMode(MEDIA_SYNC_VMASTER);
        }
        if (c.queued) {
            renderer->sendVideoFrame(kFd, 0, false);
        }
        if (!c.started) {
            peer().pretendStopped();
        }
        peer().checkPause();
        EXPECT_EQ(c.underflow, peer().underflow());
        EXPECT_EQ(c.pauseUs, peer().pauseMediaTimeUs());
        EXPECT_EQ(c.underflow ? 1 : 0, count("video underflow!!!!!"));
    }
}

TEST_F(SyncTest, CatchUpDropsFramesFifteenMillisecondsBehindAudio) {
    const struct {
        int logMask;
        int64_t behindUs;
        bool dropped;
    } kCases[] = {{4, 15'000, true}, {4, 14'999, false}, {0, 200'000, true}, {0, 10'000, false}};
    for (const auto& [logMask, behindUs, dropped] : kCases) {
        SCOPED_TRACE(behindUs);
        const int lines = logMask / 4;
        makeSynced(logMask);
        audioStarts(500'000);
        clock->setPause(true, mClock.nowUs());
        peer().checkPause();
        ASSERT_TRUE(peer().underflow());
        constexpr int64_t kTrackUs = 600'000;
        mClock.after(2'500, [&] { audioStarts(kTrackUs); });
        peer().drain({1, kTrackUs - behindUs, 0, false});
        EXPECT_EQ(lines, count("[drainVideoFrame]audio update first pts after underflow"));
        EXPECT_EQ(dropped ? lines : 0, count("to catch up audio after underflow"));
        EXPECT_EQ(dropped ? 0 : lines, count("video have catch up wih audio after underflow"));
        EXPECT_EQ(dropped, peer().catchUpPending());
        // The frame that ends the catch-up is on time, not early: it is dropped too.
        EXPECT_EQ(returned, (Returned{{1, 0}}));
        EXPECT_EQ(dropped, peer().anchorMediaTimeUs() == kTrackUs - behindUs);

        // Audio stands still again while frames are queued, which is no new underflow: the catch-up
        // goes on with the next frame; after its end that frame waits for audio.
        clock->setPause(true, mClock.nowUs());
        renderer->sendVideoFrame(9, 0, false);
        peer().checkPause();
        const int64_t before = mClock.sleeps();
        mClock.after(2'500, [&] { audioStarts(700'000); });
        peer().drain({2, 700'000, 0, false});
        EXPECT_EQ(dropped ? 1 : 3, mClock.sleeps() - before);
        EXPECT_EQ(returned, (Returned{{1, 0}, {2, 0}}));
        mClock.advanceUs(2'500);
    }
}

TEST_F(SyncTest, FramesPassWhileInitOfARunningRendererIsHalfDone) {
    setLogMask(0);
    renderer.reset(VideoTunnelRenderer_create());
    renderer->regCallBack(2, &RendererTest::onStatus, this);
    renderer->getTunnelId();
    peer().pretendStarted();
    peer().pretendInitHasBegun();
    peer().checkPause();
    peer().drain({1, 0, 0, false});
    bool show = true;
    int64_t realTimeUs = 5;
    peer().process(40, &show, &realTimeUs);
    EXPECT_TRUE(show && realTimeUs == 0) << "the pass-through mode is set before its clock";
    EXPECT_EQ(returned, (Returned{{1, 0}}));
    EXPECT_EQ(1, count("mVideoSync is null!"));

    makeSynced(0);
    peer().pretendClockIsBound();
    setFault(&tv::TunnelFaults::vsyncQueryFails);
    audioStarts(500'000);
    clock->setPause(true, mClock.nowUs());
    peer().checkPause();
    mClock.after(2'500, [&] { audioStarts(600'000); });
    peer().drain({1, 500'000, 0, false});
    peer().drain({2, 600'000, 0, false});
    EXPECT_EQ(returned, (Returned{{1, 0}, {2, 0}})) << "audio ran dry; both are behind it";
    EXPECT_EQ(1, count("mVideoSyncFRAC is null!"));
    EXPECT_EQ(1, count("mDisplayAdapter is null!"));
}

TEST_F(SyncTest, ThePlayerReadsTheClockThroughTheRenderer) {
    makeSynced(0);
    audioStarts(50'000);
    clock->setStartingTimeMedia(70);
    long realUs = 0;
    long trackUs = 0;
    long startingUs = 0;
    const auto read = [&] {
        return renderer->getRealTimeFor(60'000, &realUs) + renderer->getTrackMediaTime(&trackUs) +
               renderer->getStartingTimeMedia(&startingUs);
    };
    EXPECT_EQ(3, read());
    EXPECT_EQ(realUs, mClock.nowUs() + 10'000);
    EXPECT_TRUE(trackUs == 50'000 && startingUs == 70);
    clock->setStatus(-7);
    EXPECT_EQ(0, read() + renderer->onVideoSyncQueueVideoFrame(0, 1));
}

class PassthroughTest : public SyncTest {
protected:
    void answer(int32_t policy) {
        clock->setVideoPolicy([=](int64_t, int64_t, int64_t) {
            return mediasync_video_policy{policy, 0, 777, 0};
        });
    }
    /// Asks for a frame.
    void process(int64_t mediaUs) { peer().process(mediaUs, &show, &realTimeUs); }

    bool show = true;
    int64_t realTimeUs = 5;
};

TEST_F(PassthroughTest, PolicyDecidesAndExitIsFinal) {
    const struct {
        int32_t policy;
        bool show;
        const char* label;
    } kCases[] = {{1, true, "(rend) mediaTimeUs:40(41) "},
                  {3, false, "(drop) mediaTimeUs:40(0) "},
                  {9, true, "(?\?) mediaTimeUs:40(0) "},
                  {4, true, "MEDIASYNC_VIDEO_EXIT mediaTimeUs:40"},
                  {3, true, "[onVideoSyncProcess] video mediasync has exited"}};
    for (const int logMask : {5, 0}) {
        make(logMask, false, true);
        for (const auto& c : kCases) {
            SCOPED_TRACE(c.label);
            answer(c.policy);
            show = true;
            process(40);
            EXPECT_EQ(c.show, show);
            EXPECT_EQ(777, realTimeUs);
            const bool isError = c.label[0] == '[';
            EXPECT_EQ(isError || logMask != 0 ? 1 : 0, count(c.label));
            log.take();
        }
    }
    make(1, false, true);
    peer().process(40, nullptr, &realTimeUs);
    peer().process(40, &show, nullptr);
    EXPECT_EQ(2, count("[onVideoSyncProcess] Parameters error!"));
}

TEST_F(PassthroughTest, LongHoldReportsEveryTenthFromTheHundredAndTenthOn) {
    for (const int logMask : {0, 1}) {
        make(logMask, false, true);
        realTimeUs = 5;
        answer(2);
        for (int i = 1; i <= 125; ++i) {
            process(40);
        }
        EXPECT_EQ(2 * logMask, count("MEDIASYNC_VIDEO_HOLD"));
        EXPECT_EQ(logMask, count("mVideoHoldCount:110 mediaTimeUs:40 \n"));
        EXPECT_EQ(logMask, count("mVideoHoldCount:120 "));
        EXPECT_TRUE(peer().holding());
        EXPECT_EQ(5, realTimeUs);
        answer(1);
        process(40);
        EXPECT_FALSE(peer().holding());
        EXPECT_EQ(0, peer().holdCount());
    }
}

TEST_F(PassthroughTest, FreeRunShowsAtOnceWithoutAsking) {
    for (const bool byProperty : {true, false}) {
        SCOPED_TRACE(byProperty);
        tv::setProperty("vendor.tunerpassthrough.renderfreeRun", byProperty ? "1" : "0");
        make(4, false, true);
        if (!byProperty) {
            peer().setParam9Extra(1);
        }
        answer(3);
        show = false;
        process(40);
        EXPECT_TRUE(show);
        EXPECT_EQ(0, realTimeUs);
        EXPECT_EQ(1, count("(?\?) mediaTimeUs:40"));
        EXPECT_EQ(0, clock->counters().drops);
    }
}

}  // namespace
}  // namespace korvane::test
