// SPDX-License-Identifier: Apache-2.0
// Scenario files: what is read, and what is refused with which message; synthetic content; messages
// of failed expectations.
#include <gmock/gmock.h>

#include "player/media/SyntheticContent.h"
#include "player/scenario/Expectation.h"
#include "player/scenario/FaultSchedule.h"
#include "player/scenario/PolicyScript.h"
#include "player/scenario/RunLimits.h"
#include "player/scenario/ScenarioFile.h"

namespace korvane::player {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr char kHead[] = "title = \"t\"\nholds = \"h\"\n";

Scenario parse(const std::string& body) {
    return parseScenario(kHead + body, "some/name.toml");
}

TEST(ScenarioFile, ReadsWhatItSays) {
    const Scenario scenario = parse(R"(
[content]
fps = 23.976
duration = "1h30m"
jump = [{ at = 5, by = "-10s" }]
[display]
rate = 59.94
drift = "-50ppm"
mode_change = [{ at = "20s", rate = 50 }, { at = "10s", rate = 60 }]
[audio]
underflow = [{ at = "10s", for = "500ms" }]
[player]
flush = ["2s"]
seek = [{ at = "1s", to = "40s" }]
[expect]
shown = "all"
dwell = "2..3"
offset_worst = "-40ms..60ms"
first_frame_within = "100ms"
dropped_late = "1.."
log = [{ text = "x", count = 0 }]
)");
    EXPECT_EQ(scenario.name, "name");
    EXPECT_EQ(scenario.content.rate.frames, 24'000);
    EXPECT_EQ(scenario.content.rate.seconds, 1'001);
    EXPECT_EQ(scenario.content.durationUs, int64_t{5400} * 1'000'000);
    EXPECT_EQ(scenario.content.jumps.at(0).byUs, -10'000'000);
    EXPECT_EQ(scenario.plan.tv.display.driftPpm, -50);
    EXPECT_DOUBLE_EQ(scenario.plan.tv.display.rateHz, 60'000.0 / 1'001.0);
    EXPECT_EQ(scenario.plan.modeChanges.at(0).rateHz, 60) << "by time";
    EXPECT_TRUE(scenario.plan.withAudio);
    EXPECT_EQ(scenario.plan.audio.underflows.at(0).durationUs, 500'000);
    EXPECT_FALSE(scenario.plan.seeks.at(0).inPlace);
    EXPECT_TRUE(scenario.plan.seeks.at(1).inPlace);
    EXPECT_TRUE(scenario.expect.shownAll);
    EXPECT_EQ(scenario.expect.dwell->most, 3);
    EXPECT_EQ(scenario.expect.offsetWorstUs->least, -40'000);
    EXPECT_EQ(scenario.expect.firstFrameUs->least, 0);
    EXPECT_EQ(scenario.expect.drops.at(DropReason::Late).most, INT64_MAX);
    EXPECT_FALSE(parse("[expect]").plan.withAudio);
}

TEST(ScenarioFile, RefusesInOneLineWithPlaceAndKey) {
    // What is wrong begins on line 3.
    const std::vector<std::pair<const char*, const char*>> refusals = {
        {"[expect]\nshwon = 3", ":4: expect.shwon: unknown key; there are: "},
        {"", ": expect: is missing"},
        {"[expect]\n[audio]\nstart_delay = 50",
         ":5: audio.start_delay: wants a time with its unit"},
        {"[expct]\n[player]\nseek = [{ at = \"1s\", to = \"40s\" }]",
         ":3: expct: unknown key; there are: audio, "},
        {"[expect]\n[player]\nreuse = true\nrestart = \"1s\"", "player.restart: unknown key"},
        {"[expect]\n[audio]\nstart_delay = \"-1s\"", "'-1s' is not from 0s to "},
        {"[expect]\n[content]\nduration = \"1000h\"", "'1000h' is not from 1us to 25h"},
        {"[expect]\n[audio]\ndrift = \"50\"", "'50' is not parts per million"},
        {"[expect]\n[audio]\ndrift = \"50001ppm\"", "'50001ppm' is not parts per million up to"},
        {"[expect]\n[audio]\nunderflow = [{ at = \"1s\" }]", ":5: audio.underflow.for: is missing"},
        {"[expect]\n[audio]\nlatency_jump = \"1ms\"", "latency_jump_for go together"},
        {"[expect]\n[content]\nfps = 0", ":5: content.fps: wants a rate from 0.1 to 240"},
        {"[expect]\n[content]\nfile = \"x\"\nfps = 24", ":6: content.fps: does not go together"},
        {"[expect]\n[content]\ntimestamps = \"avi\"", "none of exact, matroska, mpegts"},
        {"[expect]\nlip_sync = \"smpte\"", "lip_sync: 'smpte' is neither ebu nor itu"},
        {"[expect]\n[display]\nrate = 5", "wants a rate from 10 to 500"},
        {"[expect]\n[display]\nreport_period = [{ at = \"1s\", for = \"1s\", period = \"1ms\" }]",
         "is not nanoseconds"},
        {"[expect]\n[passthrough]\npolicy = [\"hold\", \"wait\"]",
         ":5: passthrough.policy: 'wait'"},
        {"[expect]\npattern = \"3:2\"", "is not a pattern"},
        {"[expect]\n[passthrough]\npolicy = [\"hold 99999999999\"]",
         "'hold 99999999999' has a count that is not from 1 to 100000000"},
        {"[expect]\n[passthrough]\npolicy = [\"hold 99999999999999999999\"]", "from 1 to"},
        {"[expect]\n[passthrough]\npolicy = [\"render at +1000h\"]",
         "'render at +1000h' is too long; a duration is at most 277h"},
        {"[expect]\ndwell = \"3..x\"", "wants a count or a range"},
        {"[expect]\ndwell = \"3..2\"", "dwell: '3..2' is reversed"},
        {"[expect]\noffset_worst = \"40ms..-20ms\"", "'40ms..-20ms' is reversed"},
        {"[expect]\n[passthrough]\npolicy = [\"hold 20 20\"]",
         "'hold 20 20' is not \"auto\", \"render\", \"render at +30ms\", \"hold\", \"drop\" or "
         "\"exit\", with one count at most"},
        {"[expect]\nlog = [{ text = \"\", count = 1 }]", "expect.log.text: is empty"},
        // What cannot come true: the content has 240 frames in 10 s.
        {"[expect]\n[content]\nmissing = [240]", "from 0 to 239; the content has 240 frames"},
        {"[expect]\n[content]\nduplicate = [240]", "content.duplicate: wants"},
        {"[expect]\n[content]\nbunch = [{ at = 238, frames = 3 }]", "content.bunch.frames: wants"},
        {"[expect]\n[content]\njump = [{ at = 240, by = \"1s\" }]", "content.jump.at: wants"},
        {"[expect]\n[player]\nseek = [{ at = \"1s\", to = \"9990ms\" }]",
         "seek.to: no frame is left there; the content ends at 10.000 s"},
        {"[expect]\n[audio]\nunderflow = [{ at = \"10s\", for = \"1s\" }]",
         "underflow.at: is past the end of the content, 10.000 s"},
        {"[expect]\n[audio]\nstep_back = [{ at = \"10s\", by = \"1s\" }]", "step_back.at: is past"},
        {"[expect]\n[content]\nstart = \"5s\"\n[audio]\nunderflow = [{ at = \"3s\", for = \"1s\" "
         "}]",
         "underflow.at: is before the start of the content, 5.000 s"},
        {"[expect]\n[content]\nlist = [\"0s\", \"1s\", \"2s\"]\nmissing = [2]\n"
         "[player]\nseek = [{ at = \"1s\", to = \"2s\" }]",
         "seek.to: no frame is left there"},
        {"[expect]\n[content]\nlist = []", "list: wants at least two different times"},
        {"[expect]\n[content]\nlist = [\"1s\"]", "list: wants at least two different times"},
        {"[expect]\n[content]\nlist = [\"0s\", \"0ms\"]",
         "list: wants at least two different times"},
        {"[expect]\n[content]\nduration = \"40ms\"\nmissing = [0]", "missing: leaves no frame"},
        {"[expect", ":3: not TOML: "},
    };
    for (const auto& [body, says] : refusals) {
        try {
            parse(body);
            ADD_FAILURE() << "accepted: " << body;
        } catch (const ScenarioError& error) {
            EXPECT_THAT(error.what(), StartsWith("some/name.toml:"));
            EXPECT_THAT(error.what(), HasSubstr(says));
            EXPECT_THAT(error.what(), Not(HasSubstr("\n")));
        }
    }
    EXPECT_THROW(readScenario("/nonexistent/x.toml"), ScenarioError);
    const std::vector<std::pair<const char*, const char*>> titles = {
        {"''", ":2: title: is empty"},
        {"'  '", ":2: title: is empty"},
        {"\"a\\u0001b\"", ":2: title: wants one line without control characters"},
        {"\"a\\nb\"", ":2: title: wants one line"},
    };
    for (const auto& [title, says] : titles) {
        try {
            parseScenario("holds = 'h'\ntitle = " + std::string(title) + "\n[expect]", "x.toml");
            ADD_FAILURE() << "accepted: " << title;
        } catch (const ScenarioError& error) {
            EXPECT_THAT(error.what(), HasSubstr(says));
        }
    }
    EXPECT_NO_THROW(
        parse("[expect]\n[content]\njump = [{ at = 9, by = \"1s\" }]\n"
              "[audio]\nunderflow = [{ at = \"10s\", for = \"1s\" }]"));
}

/// Media times of the first frames as a source delivers them.
std::vector<int64_t> delivered(const ContentPlan& plan, size_t count) {
    SyntheticVideo video(plan, false);
    std::vector<int64_t> times;
    while (times.size() < count && video.next() == ReadStatus::Ready) {
        times.push_back(video.mediaTimeUs());
    }
    return times;
}

TEST(SyntheticContent, RoundsAsContainersDo) {
    ContentPlan plan;
    plan.rate = {24'000, 1'001};
    EXPECT_THAT(delivered(plan, 4), ElementsAre(0, 41'708, 83'417, 125'125));
    plan.rounding = Rounding::Matroska;
    EXPECT_THAT(delivered(plan, 4), ElementsAre(0, 42'000, 83'000, 125'000));
    plan.rounding = Rounding::MpegTs;
    EXPECT_THAT(delivered(plan, 4), ElementsAre(0, 41'711, 83'422, 125'122));
    plan.rounding = Rounding::Exact;
    plan.durationUs = int64_t{24} * 3600 * 1'000'000;
    EXPECT_EQ(ContentTimes(plan).frames(), 2'071'529);
    EXPECT_EQ(ContentTimes(plan).deliveredUs(2'071'528), 86'399'980'333) << "no drift in a day";
}

TEST(SyntheticContent, DeliversWithFaults) {
    ContentPlan plan;
    plan.rate = {25, 1};
    plan.durationUs = 400'000;
    plan.missing = {1};
    plan.duplicate = {2};
    plan.bunches = {{4, 3}};
    plan.jumps = {{8, 1'000'000}};
    EXPECT_THAT(delivered(plan, 99), ElementsAre(0, 80'000, 80'000, 120'000, 160'000, 160'000,
                                                 160'000, 280'000, 1'320'000, 1'360'000));
}

TEST(SyntheticContent, SoundJumpsWithTheContentAndSeeks) {
    ContentPlan plan;
    plan.rate = {25, 1};
    plan.durationUs = 400'000;
    plan.jumps = {{5, 1'000'000}};
    SyntheticAudio audio(plan);
    AudioPacket packet;
    int packets = 0;
    for (int64_t endUs = 0; audio.next(&packet) == ReadStatus::Ready; ++packets) {
        EXPECT_EQ(packet.mediaTimeUs >= 1'200'000, endUs >= 200'000);
        endUs = packet.mediaTimeUs % 1'000'000 + packet.durationUs;
    }
    EXPECT_EQ(packets, 19);
    audio.seek(100'000);
    audio.next(&packet);
    EXPECT_NEAR(static_cast<double>(packet.mediaTimeUs), 100'000 - 10'667, 10'668);
}

TEST(FaultSchedule, HoldsEachFaultForItsTime) {
    FaultSpans spans;
    spans.refuse = {{100, 50}};
    spans.reportFails = {{120, 100}};
    spans.pauses = {{0, 100}};
    std::vector<int64_t> changes;
    for (const auto& timed : faultSchedule(spans)) {
        const int64_t at = timed.atUs;
        changes.push_back(at);
        EXPECT_EQ(faultsAt(spans, at).audioPaused, at < 100);
        EXPECT_EQ(faultsAt(spans, at).tunnel.queueFails, at >= 100 && at < 150);
        EXPECT_EQ(faultsAt(spans, at).reportFails, at >= 120 && at < 220);
    }
    EXPECT_THAT(changes, ElementsAre(0, 100, 120, 150, 220));
}

TEST(RunLimits, GrowWithEverythingThatAScenarioWaitsFor) {
    constexpr int64_t kMinuteUs = 60'000'000;
    // Each waits for two hours, once or in all.
    for (const char* body : {
             "[audio]\npause = [{ at = \"5s\", for = \"2h\" }]",
             "[audio]\nunderflow = [{ at = \"5s\", for = \"2h\" }]",
             "[audio]\nunderflow = [{ at = \"5s\", for = \"1h\" }]\n"
             "pause = [{ at = \"1h\", for = \"1h\" }]",
             "[audio]\nstart_delay = \"2h\"",
             "[audio]\nstep_back = [{ at = \"5s\", by = \"2h\" }]",
             "[player]\nlate = [{ at = \"5s\", for = \"2h\" }]",
             "[content]\njump = [{ at = 5, by = \"2h\" }]",
             "[content]\nlist = [\"0s\", \"2h\"]",
             "[content]\nfps = 0.1\nduration = \"3h\"\nbunch = [{ at = 9, frames = 720 }]",
             "[passthrough]\npolicy = [\"hold 1440000\"]",
             "[passthrough]\npolicy = [\"render at 2h\"]",
         }) {
        const Scenario scenario = parse(std::string("[expect]\n") + body);
        EXPECT_GE(scenario.plan.longestWaitUs, 120 * kMinuteUs) << body;
        EXPECT_GE(longestRunUs(scenario.content, scenario.plan), 121 * kMinuteUs) << body;
    }
    const Scenario seek = parse("[expect]\n[player]\nseek = [{ at = \"2h\", to = \"0s\" }]");
    EXPECT_LT(seek.plan.longestWaitUs, kMinuteUs) << "a player that waits to act is not stalled";
    EXPECT_GE(longestRunUs(seek.content, seek.plan), 121 * kMinuteUs);
    EXPECT_LT(longestRunUs(ContentPlan(), PlaybackPlan()), 62 * kMinuteUs) << "soon enough";
}

TEST(PolicyScript, AnswersEntryByEntryAndTheLastForEver) {
    std::vector<PolicyStep> steps;
    std::string wrong;
    for (const char* text : {"hold 2", "auto", "drop", "render at -5ms"}) {
        steps.push_back(*parsePolicyStep(text, &wrong));
    }
    PolicyClock clock;
    clock.realTimeFor = [](int64_t mediaTimeUs, int64_t) { return mediaTimeUs + 1'000'000; };
    clock.automatic = [](int64_t, int64_t) {
        mediasync_video_policy policy{};
        policy.videopolicy = MEDIASYNC_VIDEO_EXIT;
        return policy;
    };
    PolicyScript script(steps, clock);
    std::vector<int> answers;
    for (int i = 0; i < 6; ++i) {
        answers.push_back(script.decide(7, 0).videopolicy);
    }
    EXPECT_THAT(answers, ElementsAre(2, 2, 4, 3, 1, 1));
    EXPECT_EQ(script.decide(7, 0).realtimeUs, 995'007);
    for (const char* text : {"", "hold 0", "hold 20 20", "drop at 5ms", "render at",
                             "render 2 at x", "render at 1ms at 2ms", "hold 999999999999999999"}) {
        EXPECT_FALSE(parsePolicyStep(text, &wrong)) << text;
    }
}

class ExpectationTest : public ::testing::Test {
protected:
    ExpectationTest() {
        mRecord.startNs = 1;
        mSummary.framesIn = 100;
        mSummary.sumHolds = mSummary.buffersBack = true;
        count(Outcome::Shown, 98, {0, 0});
        count(Outcome::Dropped, 2, {40, 1'700'000});
        mSummary.drops[DropReason::Late].runs.frames = 2;
        mSummary.drops[DropReason::Late].first = {40, 1'700'000};
        mSummary.cadenceDwells = {{2, {1, 40'000}}, {3, {0, 0}}, {8, {39, 1'650'000}}};
        StretchReport stretch;
        stretch.seen = "[3:2]";
        stretch.cadence.held = true;
        stretch.heldAfterUs = 1'500'000;
        stretch.firstFrameUs = 66'000;
        mSummary.stretches = {stretch};
        mSummary.displayHz = 60;
        mSummary.lipSync.samples = 98;
        mSummary.lipSync.worstUs = 95'000;
        mSummary.lipSync.worst = {50, 2'000'000};
        mSummary.lipSync.secondsOutsideEbu = 1.5;
        mSummary.lipSync.secondsOutsideItuAcceptable = 0.016;
    }
    void count(Outcome outcome, int64_t frames, const FrameAt& first) {
        mSummary.outcomes[static_cast<size_t>(outcome)] = frames;
        mSummary.firstOf[static_cast<size_t>(outcome)] = first;
    }
    std::vector<std::string> check(const std::string& body, const std::vector<LogCount>& log = {}) {
        return failures(parse("[expect]\n" + body).expect, mRecord, mSummary, log);
    }
    PlaybackRecord mRecord;
    Summary mSummary;
};

TEST_F(ExpectationTest, NothingIsSaidOfWhatHolds) {
    EXPECT_THAT(check("shown = 98\ndropped_late = \"1..2\"\npattern = \"[3:2]\"\nframes = 100\n"
                      "lip_sync = \"itu\"\nlip_sync_median = \"0..1ms\""),
                IsEmpty());
}

TEST_F(ExpectationTest, WhatPlaybackDidNotReachNeverHappened) {
    mRecord.stopNs = mRecord.startNs + 10'100'000'000;
    const char* const spans = "[{ at = \"10s\", for = \"1s\" }, { at = \"20s\", for = \"1s\" }]\n";
    const std::vector<std::pair<std::string, const char*>> cases = {
        {std::string("[audio]\npause = ") + spans, "audio.pause"},
        {std::string("[player]\nlate = ") + spans, "player.late"},
        {std::string("[tunnel]\nrefuse = ") + spans, "tunnel.refuse"},
        {std::string("[tunnel]\nfence_never = ") + spans, "tunnel.fence_never"},
        {std::string("[display]\nquery_fails = ") + spans, "display.query_fails"},
        {std::string("[display]\nreport_fails = ") + spans, "display.report_fails"},
        {"[display]\nreport_period = [{ at = \"20s\", for = \"1s\", period = \"0ns\" }]\n",
         "display.report_period"},
        {"[display]\nmode_change = [{ at = \"9s\", rate = 50 }, { at = \"20s\", rate = 60 }]\n",
         "display.mode_change"},
        {"[player]\nflush = [\"10s\", \"20s\"]\n", "player.flush"},
        {"[player]\nseek = [{ at = \"20s\", to = \"0s\" }]\n", "player.seek"},
        {"[player]\nrestart_at = \"20s\"\n", "player.restart_at"},
        {"[player]\nstop_at = \"20s\"\n", "player.stop_at"},
    };
    for (const auto& [body, key] : cases) {
        EXPECT_THAT(neverHappened(parse(body + "[expect]").actions, mRecord),
                    ElementsAre(std::string(key) +
                                " at 20.000 s never happened: playback ended at 10.100 s"));
    }
}

TEST_F(ExpectationTest, AFailureSaysExpectedSeenAndTheFirstFrame) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"shown = \"all\"", "expected all, seen 98 of 100, 2 dropped, first at frame 40"},
        {"dropped = 0", "dropped: expected 0, seen 2, first at frame 40 (t = 1.700 s)"},
        {"dropped = \"3..\"", "dropped: expected at least 3, seen 2"},
        {"dropped_late = \"..1\"", "dropped_late: expected at most 1, seen 2, first at"},
        {"dwell = \"2..3\"", "expected 2 to 3 vsyncs, seen 8, first at frame 39"},
        {"pattern = \"[3:2]\"\npattern_within = \"1s\"", "0.0 ms to 1000.0 ms, seen 1500.0 ms"},
        {"patterns = [\"[3:2]\", \"[2:2]\"]", "patterns: expected 2 stretches, seen 1"},
        {"first_frame_within = \"50ms\"", "expected 0.0 ms to 50.0 ms, seen 66.0 ms"},
        {"seek_within = \"50ms\"", "seek_within: expected 0.0 ms to 50.0 ms, seen none"},
        {"offset_worst = \"-1ms..1ms\"", "no frame that could be compared"},
        {"in_sync = true", "in_sync: expected true, seen no sound to judge"},
        {"lip_sync = \"ebu\"",
         "-60.0 ms to 40.0 ms, seen 1.500 s outside, worst +95.0 ms at frame 50"},
        {"lip_sync_worst = \"80ms\"",
         "expected 0.0 ms to 80.0 ms, seen 95.0 ms, first at frame 50"},
        {"end = \"stopped\"", "end: expected stopped, seen complete"},
    };
    for (const auto& [body, says] : cases) {
        EXPECT_THAT(check(body), ElementsAre(HasSubstr(says))) << body;
    }
    EXPECT_THAT(
        check("log = [{ text = \"x\", count = 0 }]", {{2, 5'000, "xy"}}),
        ElementsAre("log: expected 0 lines with 'x', seen 2, the first at t = 0.005 s: xy"));
}

TEST_F(ExpectationTest, TheAccountsAreLookedAtUnasked) {
    mSummary.sumHolds = false;
    mSummary.buffersBack = false;
    mRecord.buffersKept = 1;
    mRecord.firstKept = {7, 300'000};
    mRecord.overwrittenOnScreen = 3;
    count(Outcome::Lost, 1, {9, 400'000});
    mRecord.end = EndCause::Stalled;
    mSummary.unexpected = mSummary.causes[BreakCause::Unexplained] = 2;
    EXPECT_THAT(check(""), ElementsAre(StartsWith("end: "),
                                       HasSubstr("1 buffer kept, 0 unknown, first at "
                                                 "frame 7 (t = 0.300 s)"),
                                       StartsWith("ledger: "), StartsWith("overwritten: "),
                                       "lost: expected 0, seen 1, first at frame 9 (t = 0.400 s)",
                                       "unexplained: expected 0, seen 2"));
}

}  // namespace
}  // namespace korvane::player
