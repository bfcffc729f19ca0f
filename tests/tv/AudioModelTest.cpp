// What the audio side does to the clock, step by step, with the test's own time.
#include "tv/AudioModel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "tests/support/ManualClock.h"

namespace korvane::tv {
namespace {

constexpr int64_t kStart = 1'000'000'000;
constexpr int64_t kStep = 20'000;
constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

AudioConfig plain() {
    AudioConfig config;
    config.startDelayUs = 50'000;
    config.prebufferUs = 100'000;
    config.stepUs = kStep;
    return config;
}

/// A model on a clock of its own, stepped when it asks for it, or late by a given time.
struct Stage {
    explicit Stage(const AudioConfig& config = plain())
        : clock(std::make_shared<SyncInstance>(1)), model(clock, config) {}

    void feed(int64_t fromUs, int64_t toUs) {
        for (int64_t media = fromUs; media < toUs; media += 25'000) {
            model.queue(media, std::min<int64_t>(25'000, toUs - media), now);
        }
        next = model.step(now);
    }
    void runTo(int64_t realUs, int64_t lateUs = 0) {
        while (next <= realUs) {
            now = std::max(now, std::min(next + lateUs, realUs));
            next = model.step(now);
        }
        now = realUs;
    }
    /// What a renderer does at its first frame, and in a flush.
    void videoFirstFrame(int64_t mediaUs) {
        clock->updateAnchorFromVideo(mediaUs, 0, now);
        clock->setPause(true, now);
    }
    void videoFlush() {
        clock->setMode(MEDIA_SYNC_VMASTER);
        clock->updateAnchorFromVideo(0, 0, now);
    }

    std::shared_ptr<SyncInstance> clock;
    AudioModel model;
    int64_t now = kStart;
    int64_t next = kNever;
};

struct StartCase {
    const char* what;
    int64_t bufferedUs;
    bool endOfStream;
    bool neverStarts;
    bool starts;
};

TEST(AudioModel, StartsWhenEnoughIsBufferedAndItsDelayIsOver) {
    for (const StartCase& c : {StartCase{"too little", 99'999, false, false, false},
                               {"enough", 100'000, false, false, true},
                               {"little, but all", 10'000, true, false, true},
                               {"broken", 500'000, true, true, false}}) {
        SCOPED_TRACE(c.what);
        AudioConfig config = plain();
        config.neverStarts = c.neverStarts;
        Stage stage(config);
        stage.videoFirstFrame(7'000);
        if (c.endOfStream) {
            stage.model.endOfStream();
        }
        stage.feed(0, c.bufferedUs);
        stage.runTo(kStart + 49'999);
        EXPECT_TRUE(stage.clock->paused());
        EXPECT_EQ(stage.clock->mode(), MEDIA_SYNC_VMASTER);
        stage.runTo(kStart + 50'000);
        EXPECT_EQ(stage.clock->paused(), !c.starts);
        EXPECT_EQ(stage.clock->mode(), c.starts ? MEDIA_SYNC_AMASTER : MEDIA_SYNC_VMASTER);
        EXPECT_EQ(stage.model.report().startedRealUs, c.starts ? kStart + 50'000 : -1);
        if (c.starts) {
            EXPECT_EQ(stage.clock->startingTimeMedia(), 0);
            EXPECT_EQ(stage.clock->trackMediaTime(), 0) << "away from video's anchor at once";
            EXPECT_EQ(stage.clock->realTimeFor(40'000, stage.now), kStart + 90'000);
        }
    }
}

TEST(AudioModel, TrackTimeMovesInWholePeriodsHoweverLateTheThreadIs) {
    for (const int64_t lateUs : {0, 3'000, 19'999, 45'000}) {
        SCOPED_TRACE(lateUs);
        Stage stage;
        stage.feed(5'000, 2'000'000);
        stage.runTo(kStart + 50'000);
        stage.runTo(kStart + 50'000 + 1'000'000, lateUs);
        const int64_t track = stage.clock->trackMediaTime();
        EXPECT_EQ((track - 5'000) % kStep, 0);
        EXPECT_GE(track, 1'005'000 - kStep - lateUs);
        EXPECT_LE(track, 1'005'000);
        EXPECT_EQ(stage.model.report().positionUs, track);
        EXPECT_EQ(stage.clock->mediaTimeAt(stage.now), 1'005'000);
    }
}

TEST(AudioModel, UnderflowStandsStillAndGoesOnOnceEnoughIsBuffered) {
    for (const int64_t lateUs : {0, 7'000}) {
        SCOPED_TRACE(lateUs);
        Stage stage;
        stage.feed(0, 310'000);
        stage.runTo(kStart + 900'000, lateUs);
        EXPECT_EQ(stage.model.report().state, AudioState::Underflow);
        EXPECT_TRUE(stage.clock->paused());
        EXPECT_EQ(stage.clock->mode(), MEDIA_SYNC_AMASTER);
        EXPECT_EQ(stage.clock->trackMediaTime(), 310'000);
        EXPECT_NEAR(static_cast<double>(stage.clock->mediaTimeAt(stage.now)), 310'000,
                    static_cast<double>(lateUs));
        stage.feed(310'000, 400'000);
        EXPECT_TRUE(stage.clock->paused()) << "90 ms are not enough";
        stage.feed(400'000, 600'000);
        EXPECT_FALSE(stage.clock->paused());
        EXPECT_EQ(stage.clock->trackMediaTime(), 310'000);
        EXPECT_EQ(stage.clock->startingTimeMedia(), 310'000) << "renderers see a resume by it";
        stage.runTo(kStart + 900'000 + kStep);
        EXPECT_EQ(stage.clock->trackMediaTime(), 310'000 + kStep);
        EXPECT_EQ(stage.clock->realTimeFor(310'000, 0), kStart + 900'000);
        EXPECT_EQ(stage.model.report().underflows, 1);
    }
}

TEST(AudioModel, UnderflowsHappenWhereTheyAreOrdered) {
    AudioConfig config = plain();
    config.underflows = {{500'000, 1'000}, {200'000, 300'000}};
    Stage stage(config);
    stage.feed(0, 2'000'000);
    stage.runTo(kStart + 50'000 + 210'000);
    EXPECT_EQ(stage.clock->trackMediaTime(), 200'000);
    EXPECT_TRUE(stage.clock->paused());
    stage.runTo(kStart + 50'000 + 499'999);
    EXPECT_TRUE(stage.clock->paused());
    stage.runTo(kStart + 50'000 + 500'000);
    EXPECT_FALSE(stage.clock->paused());
    stage.runTo(kStart + 50'000 + 900'000);
    EXPECT_EQ(stage.model.report().underflows, 2);
    EXPECT_EQ(stage.clock->mediaTimeAt(stage.now), 900'000 - 300'000 - 1'000);
}

TEST(AudioModel, PlaysOnWithoutSoundAfterTheEnd) {
    Stage stage;
    stage.feed(0, 300'000);
    stage.model.endOfStream();
    stage.runTo(kStart + 50'000 + 700'000);
    EXPECT_EQ(stage.model.report().state, AudioState::Ended);
    EXPECT_FALSE(stage.clock->paused());
    EXPECT_EQ(stage.clock->trackMediaTime(), 700'000);
    EXPECT_EQ(stage.model.report().underflows, 0);
}

TEST(AudioModel, EmptyStreamReleasesVideosFirstFrame) {
    Stage stage;
    stage.model.endOfStream();
    stage.next = stage.model.step(stage.now);
    stage.runTo(kStart + 100'000);
    EXPECT_EQ(stage.clock->mode(), MEDIA_SYNC_VMASTER);
    stage.videoFirstFrame(8'000'000);
    stage.runTo(kStart + 100'000 + kStep);
    EXPECT_FALSE(stage.clock->paused());
    EXPECT_EQ(stage.clock->mode(), MEDIA_SYNC_AMASTER);
    stage.runTo(kStart + 100'000 + 3 * kStep);
    EXPECT_GT(stage.clock->trackMediaTime(), 8'000'000);
}

TEST(AudioModel, PauseStandsExactlyStillInAnyState) {
    Stage stage;
    stage.model.pause(stage.now);
    stage.feed(0, 3'000'000);
    stage.runTo(kStart + 500'000);
    EXPECT_EQ(stage.model.report().state, AudioState::Waiting);
    stage.model.resume(stage.now);
    stage.next = stage.model.step(stage.now);
    stage.runTo(kStart + 500'000 + 123'456);
    stage.model.pause(stage.now);
    stage.next = stage.model.step(stage.now);
    EXPECT_EQ(stage.model.report().state, AudioState::Paused);
    stage.runTo(kStart + 5'000'000);
    EXPECT_TRUE(stage.clock->paused());
    EXPECT_EQ(stage.clock->trackMediaTime(), 123'456);
    EXPECT_EQ(stage.clock->mediaTimeAt(stage.now), 123'456);
    stage.model.resume(stage.now);
    stage.next = stage.model.step(stage.now);
    EXPECT_FALSE(stage.clock->paused());
    EXPECT_EQ(stage.clock->startingTimeMedia(), 123'456);
    stage.runTo(kStart + 5'000'000 + kStep);
    EXPECT_EQ(stage.clock->trackMediaTime(), 123'456 + kStep);
}

TEST(AudioModel, ReanchorsWhenItsCrystalHasDriftedAway) {
    for (const double ppm : {500.0, -500.0}) {
        SCOPED_TRACE(ppm);
        AudioConfig config = plain();
        config.driftPpm = ppm;
        Stage stage(config);
        stage.feed(0, 200'000'000);
        // 500 ppm are 10 ms, the threshold, every 20 s.
        for (int64_t at = kStart; at < kStart + 100'000'000; at += 1'000'000) {
            stage.runTo(at);
            const double played = static_cast<double>(at - kStart - 50'000) * (1 + ppm * 1e-6);
            if (played > 0) {
                EXPECT_NEAR(static_cast<double>(stage.clock->mediaTimeAt(at)), played, 10'050);
            }
        }
        EXPECT_EQ(stage.model.report().reanchors, 4);
    }
}

TEST(AudioModel, TakesTheClockBackAfterVideoTookIt) {
    Stage stage;
    stage.feed(0, 3'000'000);
    stage.runTo(kStart + 50'000 + 205'000);
    stage.videoFirstFrame(0);  // came late: its anchor is ignored, its pause is not
    EXPECT_TRUE(stage.clock->paused());
    stage.runTo(kStart + 50'000 + 205'000 + kStep);
    EXPECT_FALSE(stage.clock->paused());
    EXPECT_EQ(stage.clock->mediaTimeAt(stage.now), 225'000);
    stage.videoFlush();
    EXPECT_EQ(stage.clock->mode(), MEDIA_SYNC_VMASTER);
    stage.runTo(stage.now + kStep);
    EXPECT_EQ(stage.clock->mode(), MEDIA_SYNC_AMASTER);
    EXPECT_EQ(stage.clock->mediaTimeAt(stage.now), 245'000);
    EXPECT_EQ(stage.model.report().state, AudioState::Playing);
}

TEST(AudioModel, SeekWaitsAndStartsElsewhere) {
    Stage stage;
    stage.feed(0, 3'000'000);
    stage.runTo(kStart + 500'000);
    stage.model.flush();
    stage.next = stage.model.step(stage.now);
    stage.videoFlush();
    stage.videoFirstFrame(60'000'000);
    stage.runTo(kStart + 700'000);
    EXPECT_TRUE(stage.clock->paused()) << "audio that waits leaves the clock alone";
    EXPECT_EQ(stage.model.report().startedRealUs, -1);
    stage.feed(59'990'000, 61'000'000);
    stage.runTo(kStart + 750'000);
    EXPECT_FALSE(stage.clock->paused());
    EXPECT_EQ(stage.clock->mode(), MEDIA_SYNC_AMASTER);
    EXPECT_EQ(stage.clock->startingTimeMedia(), 59'990'000);
    EXPECT_EQ(stage.clock->realTimeFor(60'000'000, stage.now), kStart + 760'000);
}

TEST(AudioModel, FollowsAPassthroughClockThatVideoLeads) {
    Stage stage;
    stage.clock->setMode(MEDIA_SYNC_PCRMASTER);
    stage.clock->updateAnchorFromVideo(400'000, 0, stage.now);
    stage.feed(300'000, 1'000'000);
    stage.runTo(kStart + 110'000);
    EXPECT_EQ(stage.clock->mode(), MEDIA_SYNC_PCRMASTER);
    EXPECT_EQ(stage.clock->mediaTimeAt(stage.now), 510'000) << "video's anchor stands";
    EXPECT_EQ(stage.clock->trackMediaTime(), 510'000) << "audio skipped to where video is";
    stage.runTo(kStart + 900'000);
    EXPECT_EQ(stage.model.report().state, AudioState::Underflow);
    EXPECT_FALSE(stage.clock->paused());
}

TEST(AudioModel, SpeaksOfItselfInWords) {
    Stage stage;
    stage.feed(0, 3'000'000);
    stage.runTo(kStart + 50'000 + 2 * kStep);
    EXPECT_EQ(stage.model.dump().find("audio: playing at media 40000 us"), 0U)
        << stage.model.dump();
}

TEST(AudioOutput, PlaysInRealTimeAndStopsAtOnce) {
    auto clock = std::make_shared<SyncInstance>(1);
    AudioConfig config = plain();
    config.startDelayUs = 0;
    AudioOutput audio(clock, config);
    audio.queue(0, 50'000);
    EXPECT_EQ(audio.report().state, AudioState::Waiting);
    audio.queue(50'000, 60'000'000);
    EXPECT_TRUE(test::eventually([&] { return clock->trackMediaTime() >= 3 * kStep; }));
    audio.pause();
    const int64_t track = clock->trackMediaTime();
    EXPECT_TRUE(clock->paused());
    audio.resume();
    EXPECT_TRUE(test::eventually([&] { return clock->trackMediaTime() > track; }));
    audio.flush();
    EXPECT_EQ(audio.report().state, AudioState::Waiting);
    audio.endOfStream();
    audio.stop();
    audio.stop();
}

}  // namespace
}  // namespace korvane::tv
