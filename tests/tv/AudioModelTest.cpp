// SPDX-License-Identifier: Apache-2.0
// How audio drives the clock, step by step. The test sets the time.
#include "tv/AudioModel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <sstream>
#include <vector>

#include "tests/support/TvFixture.h"
#include "tv/AudioOutput.h"

namespace korvane::tv {
namespace {

constexpr int64_t kStart = 1'000'000'000;
constexpr int64_t kStep = 20'000;

/// A model with its own clock, stepped when it asks for it or late by a given time.
struct Stage {
    explicit Stage(const AudioConfig& config, int64_t threadLateUs = 0)
        : model(clock, config), lateUs(threadLateUs) {}

    void runTo(int64_t realUs) {
        while (next <= realUs) {
            now = std::max(now, std::min(next + lateUs, realUs));
            next = model.step(now);
        }
        now = realUs;
    }
    /// Actions: feed FROM TO, end, pause, resume, flush; first MEDIA and videoFlush are what a
    /// renderer does at its first frame and in a flush.
    void act(const std::string& action) {
        std::istringstream words(action);
        std::string verb;
        int64_t from = 0;
        int64_t to = 0;
        words >> verb >> from >> to;
        if (verb == "feed") {
            for (; from < to; from += 25'000) {
                model.queue(from, std::min<int64_t>(25'000, to - from), now);
            }
        } else if (verb == "end") {
            model.endOfStream();
        } else if (verb == "pause") {
            model.pause(now);
        } else if (verb == "resume") {
            model.resume(now);
        } else if (verb == "flush") {
            model.flush(now);
        } else if (verb == "first") {
            clock->updateAnchorFromVideo(from, 0, now);
            clock->setPause(true, now);
        } else if (verb == "videoFlush") {
            clock->setMode(MEDIA_SYNC_VMASTER);
            clock->updateAnchorFromVideo(0, 0, now);
        } else if (verb == "passthrough") {
            clock->setMode(MEDIA_SYNC_PCRMASTER);
            clock->updateAnchorFromVideo(from, 0, now);
        }
        next = model.step(now);
    }
    /// "state, mode: media time of the clock ('=': paused), track time, starting time"
    std::string seen() const {
        std::ostringstream text;
        text << toString(model.report().state) << ", "
             << "vap"[clock->mode()] << ": " << (clock->paused() ? "=" : "")
             << clock->mediaTimeAt(now) << ", " << clock->trackMediaTime() << ", "
             << clock->startingTimeMedia();
        return text.str();
    }

    std::shared_ptr<SyncInstance> clock = std::make_shared<SyncInstance>(1);
    AudioModel model;
    const int64_t lateUs;
    int64_t now = kStart;
    int64_t next = std::numeric_limits<int64_t>::max();
};

AudioConfig plain() {
    AudioConfig config;
    config.startDelayUs = 0;
    config.prebufferUs = 100'000;
    config.stepUs = kStep;
    return config;
}

/// plain() with changes: delay US, underflow AT FOR, back AT BY, jump US FOR, drain US, dead.
AudioConfig with(const std::string& words) {
    AudioConfig config = plain();
    std::istringstream in(words);
    std::string word;
    const auto number = [&in] {
        int64_t value = 0;
        in >> value;
        return value;
    };
    while (in >> word) {
        if (word == "delay") {
            config.startDelayUs = number();
        } else if (word == "underflow") {
            config.underflows.push_back({number(), number()});
        } else if (word == "back") {
            config.stepBacks.push_back({number(), number()});
        } else if (word == "jump") {
            config.latencyJumpUs = number();
            config.latencyJumpForUs = number();
        } else if (word == "drain") {
            config.drainUs = number();
        } else if (word == "dead") {
            config.neverStarts = true;
        }
    }
    return config;
}

struct Case {
    const char* what;
    const char* words;
    struct Step {
        int64_t atUs;
        const char* action;
        const char* seen;  ///< after it
    };
    std::vector<Step> steps;
    int64_t underflows = 0;
    int64_t reanchors = 0;
};

const Case kCases[] = {
    {"starts when enough is buffered and its delay is over, away from video's anchor",
     "delay 50000",
     {{0, "first 7000", "waiting, v: =7000, 7000, -1"},
      {0, "feed 0 100000", "waiting, v: =7000, 7000, -1"},
      {49'999, "", "waiting, v: =7000, 7000, -1"},
      {50'000, "", "playing, a: 0, 0, 0"},
      {91'000, "", "playing, a: 41000, 40000, 0"}}},
    {"never starts",
     "dead",
     {{0, "feed 0 500000", "waiting, v: -1, -1, -1"}, {9'000'000, "", "waiting, v: -1, -1, -1"}}},
    {"the clock stops in an underflow and continues once enough is buffered",
     "",
     {{0, "feed 0 310000", "playing, a: 0, 0, 0"},
      {900'000, "", "underflow, a: =310000, 310000, 0"},
      {900'000, "feed 310000 400000", "underflow, a: =310000, 310000, 0"},
      {900'000, "feed 400000 600000", "playing, a: 310000, 310000, 310000"},
      {921'000, "", "playing, a: 331000, 330000, 310000"}},
     1},
    {"an empty stream releases video's first frame",
     "",
     {{0, "end", "waiting, v: -1, -1, -1"},
      {100'000, "first 8000000", "ended, a: 8000000, 8000000, 8000000"},
      {160'000, "", "ended, a: 8060000, 8060000, 8000000"}}},
    {"the clock stands still in a pause, whatever the state",
     "delay 50000",
     {{0, "pause", "waiting, v: -1, -1, -1"},
      {0, "feed 0 3000000", "waiting, v: -1, -1, -1"},
      {500'000, "", "waiting, v: -1, -1, -1"},
      {500'000, "resume", "playing, a: 0, 0, 0"},
      {623'456, "pause", "paused, a: =123456, 123456, 0"},
      {5'000'000, "", "paused, a: =123456, 123456, 0"},
      {5'000'000, "resume", "playing, a: 123456, 123456, 123456"},
      {5'020'000, "", "playing, a: 143456, 143456, 123456"}}},
    {"takes the clock back after video took it: a late first frame, a flush",
     "",
     {{0, "feed 0 3000000", "playing, a: 0, 0, 0"},
      {205'000, "first 0", "playing, a: =205000, 200000, 0"},
      {220'000, "", "playing, a: 220000, 220000, 220000"},
      {220'000, "videoFlush", "playing, v: 0, 220000, 220000"},
      {240'000, "", "playing, a: 240000, 240000, 240000"}}},
    {"a seek waits, leaves the clock alone and starts elsewhere",
     "delay 50000",
     {{0, "feed 0 3000000", "waiting, v: -1, -1, -1"},
      {500'000, "flush", "waiting, a: 450000, 440000, 0"},
      {500'000, "videoFlush", "waiting, v: 0, 440000, 0"},
      {500'000, "first 60000000", "waiting, v: =60000000, 440000, 0"},
      {700'000, "feed 59990000 61000000", "waiting, v: =60000000, 440000, 0"},
      {750'000, "", "playing, a: 59990000, 59990000, 59990000"}}},
    {"follows a pass-through clock that video leads",
     "delay 50000",
     {{0, "passthrough 400000", "waiting, p: 400000, 400000, -1"},
      {0, "feed 300000 1000000", "waiting, p: 400000, 400000, -1"},
      {110'000, "", "playing, p: 510000, 510000, 300000"},
      {900'000, "", "underflow, p: 1300000, 1000000, 300000"}},
     1},
    {"position steps back twice, the second time for the clock to notice",
     "back 900000 200000 back 500000 10000",
     {{0, "feed 0 2000000", "playing, a: 0, 0, 0"},
      {500'000, "", "playing, a: 500000, 490000, 0"},
      {909'999, "", "playing, a: 909999, 890000, 0"},
      {910'000, "", "playing, a: 700000, 700000, 0"},
      {1'400'000, "", "playing, a: 1190000, 1180000, 0"}},
     0,
     1},
    {"a step back repeats no underflow, and one behind it still comes",
     "underflow 300000 100000 underflow 600000 100000 back 400000 200000",
     {{0, "feed 0 2000000", "playing, a: 0, 0, 0"},
      {500'000, "", "playing, a: 200000, 200000, 300000"},
      {899'999, "", "playing, a: 599999, 580000, 300000"},
      {950'000, "", "underflow, a: =600000, 600000, 300000"},
      {1'100'000, "", "playing, a: 700000, 700000, 600000"}},
     2,
     1},
    {"the clock is late after a pause until corrected",
     "jump 80000 250000",
     {{0, "feed 0 2000000", "playing, a: 0, 0, 0"},
      {200'000, "pause", "paused, a: =200000, 200000, 0"},
      {500'000, "resume", "playing, a: 120000, 200000, 200000"},
      {749'999, "", "playing, a: 369999, 440000, 200000"},
      {750'000, "", "playing, a: 450000, 440000, 200000"}},
     0,
     1},
    {"a receiver drains after a pause, and the sound continues from there",
     "drain 150000",
     {{0, "feed 0 2000000", "playing, a: 0, 0, 0"},
      {100'000, "pause", "paused, a: 100000, 100000, 0"},
      {249'999, "", "paused, a: 249999, 240000, 0"},
      {250'000, "", "paused, a: =250000, 250000, 0"},
      {400'000, "resume", "playing, a: 250000, 250000, 250000"}}},
    {"drains in an underflow, or all through a short one",
     "drain 50000 underflow 200000 100000 underflow 400000 40000",
     {{0, "feed 0 2000000", "playing, a: 0, 0, 0"},
      {249'999, "", "underflow, a: 249999, 240000, 0"},
      {299'999, "", "underflow, a: =250000, 250000, 0"},
      {470'000, "", "underflow, a: 420000, 410000, 250000"},
      {700'000, "", "playing, a: 650000, 650000, 250000"}},
     2},
};

TEST(AudioModel, DoesToTheClockWhatItShould) {
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.what);
        const AudioConfig config = with(c.words);
        Stage stage(config);
        Stage late(config, 7'000);
        for (const Case::Step& step : c.steps) {
            for (Stage* each : {&stage, &late}) {
                each->runTo(kStart + step.atUs);
                each->act(step.action);
            }
            EXPECT_EQ(stage.seen(), step.seen) << "at " << step.atUs << " " << step.action;
            // A late thread shows in the clock only where the sound begins anew, twice at most.
            EXPECT_NEAR(static_cast<double>(late.clock->mediaTimeAt(late.now)),
                        static_cast<double>(stage.clock->mediaTimeAt(stage.now)),
                        static_cast<double>(std::max(
                            {c.reanchors * 200'000, config.latencyJumpUs, int64_t{14'000}})));
        }
        EXPECT_EQ(stage.model.report().underflows, c.underflows);
        EXPECT_EQ(stage.model.report().reanchors, c.reanchors);
    }
}

TEST(AudioModel, ReanchorsWhenItsCrystalHasDriftedAway) {
    for (const double ppm : {500.0, -500.0}) {
        SCOPED_TRACE(ppm);
        AudioConfig config = plain();
        config.driftPpm = ppm;
        Stage stage(config);
        stage.act("feed 0 200000000");
        // 500 ppm are 10 ms, the threshold, every 20 s.
        for (int64_t playedUs = 0; playedUs < 100'000'000; playedUs += 1'000'000) {
            stage.runTo(kStart + playedUs);
            EXPECT_NEAR(static_cast<double>(stage.clock->mediaTimeAt(stage.now)),
                        static_cast<double>(playedUs) * (1 + ppm * 1e-6), 10'050);
        }
        EXPECT_EQ(stage.model.report().reanchors, 4);
        // Another rate goes on from where the sound is.
        const int64_t beforeUs = *stage.model.sound().mediaAt(stage.now);
        stage.model.setDriftPpm(0.0, stage.now);
        EXPECT_NEAR(static_cast<double>(*stage.model.sound().mediaAt(stage.now) - beforeUs), 0, 11);
        stage.runTo(stage.now + 20'000'000);
        EXPECT_NEAR(static_cast<double>(*stage.model.sound().mediaAt(stage.now) - beforeUs), 2e7,
                    11);
    }
}

struct HeardCase {
    const char* what;
    const char* words;
    struct Step {
        int64_t atUs;
        const char* action;
    };
    std::vector<Step> steps;
    struct Heard {
        int64_t atUs;
        int64_t mediaUs;  ///< -1: silence
    };
    std::vector<Heard> heard;
};

const HeardCase kHeardCases[] = {
    {"between start and end of the stream",
     "delay 50000",
     {{0, "feed 1000 301000"}, {0, "end"}, {600'000, ""}},
     {{49'999, -1}, {50'000, 1'000}, {349'999, 300'999}, {350'000, -1}}},
    {"an empty stream is silent", "", {{0, "first 0"}, {0, "end"}, {50'000, ""}}, {{20'000, -1}}},
    {"a pause is silent, and a latency jump after it moves the clock alone",
     "jump 80000 250000",
     {{0, "feed 0 2000000"}, {200'000, "pause"}, {500'000, "resume"}, {900'000, ""}},
     {{199'999, 199'999}, {200'000, -1}, {499'999, -1}, {500'000, 200'000}, {800'000, 500'000}}},
    {"a step back moves the position alone, so that the sound ends before it",
     "back 500000 100000",
     {{0, "feed 0 1000000"}, {0, "end"}, {700'000, "pause"}, {800'000, "resume"}, {1'500'000, ""}},
     {{499'999, 499'999},
      {650'000, 650'000},
      {750'000, -1},
      {800'000, 700'000},
      {1'099'999, 999'999},
      {1'100'000, -1}}},
    {"a flush ends what a step back began",
     "back 300000 100000",
     {{0, "feed 0 1000000"}, {400'000, "flush"}, {500'000, "feed 0 200000"}, {600'000, ""}},
     {{399'999, 399'999}, {400'000, -1}, {499'999, -1}, {500'000, 0}, {550'000, 50'000}}},
    {"a receiver drains after a pause",
     "drain 150000",
     {{0, "feed 0 2000000"}, {100'000, "pause"}, {400'000, "resume"}, {500'000, ""}},
     {{249'999, 249'999}, {250'000, -1}, {399'999, -1}, {400'000, 250'000}}},
    {"a receiver drains through a short underflow, not through a long one",
     "drain 50000 underflow 200000 40000 underflow 400000 100000",
     {{0, "feed 0 2000000"}, {700'000, ""}},
     {{230'000, 230'000},
      {300'000, 300'000},
      {449'999, 449'999},
      {450'000, -1},
      {500'000, 450'000}}},
    {"nobody who takes the clock stops the sound",
     "",
     {{0, "feed 0 2000000"}, {205'000, "first 0"}, {215'000, "videoFlush"}, {300'000, ""}},
     {{210'000, 210'000}, {219'000, 219'000}, {290'000, 290'000}}},
    {"skips to a clock that video leads",
     "",
     {{0, "passthrough 400000"}, {100'000, "feed 300000 1000000"}, {200'000, ""}},
     {{99'999, -1}, {100'000, 500'000}, {150'000, 550'000}}},
};

TEST(AudioModel, RecordsWhatIsTrulyAudible) {
    for (const HeardCase& c : kHeardCases) {
        SCOPED_TRACE(c.what);
        Stage stage(with(c.words));
        for (const HeardCase::Step& step : c.steps) {
            stage.runTo(kStart + step.atUs);
            stage.act(step.action);
        }
        for (const HeardCase::Heard& heard : c.heard) {
            EXPECT_EQ(stage.model.sound().mediaAt(kStart + heard.atUs).value_or(-1), heard.mediaUs)
                << "at " << heard.atUs;
        }
    }
}

TEST(SoundRecord, TellsWhenTheSoundOfAPictureIsAudible) {
    SoundRecord sound;
    sound.begin(1'000'000, 0, 1.0);
    sound.begin(1'500'000, 500'001, 1.0);  // goes on, but for rounding
    sound.end(2'000'000);
    sound.begin(2'100'000, 1'000'000, 1.001);
    sound.begin(3'000'000, 5'000'000, 1.001);  // a skip
    const struct {
        const char* what;
        int64_t mediaUs, seenUs, realUs;
    } cases[] = {{"silence", 500'000, 999'999, -1},
                 {"sound early", 500'000, 1'580'000, 1'500'000},
                 {"sound late", 500'000, 1'420'000, 1'500'000},
                 {"silence between", 999'000, 2'050'000, -1},
                 {"audible before the gap", 990'000, 2'110'000, 1'990'000},
                 {"audible too long before the gap", 500'000, 2'110'000, 1'600'500},
                 {"faster than real time", 1'500'500, 2'700'000, 2'600'000},
                 {"never audible, as if what is were", 3'999'000, 3'000'000, 2'000'000}};
    for (const auto& c : cases) {
        EXPECT_EQ(sound.realTimeOf(c.mediaUs, c.seenUs).value_or(-1), c.realUs) << c.what;
    }
    EXPECT_EQ(sound.audibleUs(0, 1'000'000), 0);
    EXPECT_EQ(sound.audibleUs(1'900'000, 2'200'000), 200'000);
    EXPECT_EQ(sound.audibleUs(2'900'000, 3'100'000), 200'000);
    for (int64_t us = 0; us < 3'000'000'000; us += 1'000'000) {
        sound.begin(4'000'000 + us, 0, 1.0);
    }
    EXPECT_FALSE(sound.mediaAt(1'500'000)) << "so far back the record does not go";
    EXPECT_EQ(sound.mediaAt(3'003'500'000), 500'000);
}

TEST(AudioOutput, PlaysByItselfAndStopsAtOnce) {
    const auto time = test::virtualTimeIfAvailable();
    auto clock = std::make_shared<SyncInstance>(1);
    AudioOutput audio(clock, plain());
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
    audio.stop();
    audio.stop();
}

}  // namespace
}  // namespace korvane::tv
