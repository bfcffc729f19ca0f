// SPDX-License-Identifier: Apache-2.0
// What the player's thread does next, from values: no thread, no clock.
#include "player/playback/FeedSchedule.h"

#include <gtest/gtest.h>

#include <functional>
#include <ostream>

#include "player/playback/ClockWatch.h"

namespace korvane::player {

bool operator==(const FeedStep& a, const FeedStep& b) {
    return a.action == b.action && a.waitNs == b.waitNs && a.end == b.end &&
           a.seek.toUs == b.seek.toUs;
}
std::ostream& operator<<(std::ostream& out, const FeedStep& step) {
    constexpr const char* kNames[] = {"Decode", "Send",    "Wait", "EndSource",
                                      "Seek",   "Restart", "End"};
    return out << kNames[static_cast<int>(step.action)] << " wait " << step.waitNs << " ns, "
               << toString(step.end) << ", to " << step.seek.toUs << " us";
}

namespace {

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kStartNs = 100'000 * kMs;
constexpr int64_t kFrameUs = 40'000;
constexpr int64_t kTickNs = 20 * kMs;
constexpr int64_t kFineTickNs = 5 * kMs;

/// A picture of media time 80 ms at playback time 1 s, while the first frame is on screen.
FeedState playing() {
    FeedState state;
    state.nowNs = kStartNs + 1000 * kMs;
    state.havePicture = true;
    state.pictureUs = 80'000;
    state.positionUs = 0;
    state.inLibrary = 1;
    state.lastMoveNs = state.nowNs;
    return state;
}

FeedStep step(FeedAction action, int64_t waitNs = 0, EndCause end = EndCause::Complete,
              int64_t toUs = 0) {
    return {action, waitNs, {0, toUs}, end};
}

struct FeedCase {
    const char* name;
    std::function<void(PlaybackPlan&, FeedState&)> given;
    FeedStep expected;
};

// Frames 0 and 40 ms have been sent when each case is decided.
const FeedCase kCases[] = {
    {"a picture goes out", [](auto&, auto&) {}, step(FeedAction::Send, kTickNs)},
    {"decode", [](auto&, auto& now) { now.havePicture = false; }, step(FeedAction::Decode)},
    {"the buffer is not waited for beyond the next action",
     [](auto& plan, auto&) { plan.stopAtUs = 1'003'000; }, step(FeedAction::Send, 3 * kMs)},
    {"a slow decoder", [](auto&, auto& now) { now.pictureReadyNs = now.nowNs + 7 * kMs; },
     step(FeedAction::Wait, 7 * kMs)},
    {"a very slow one", [](auto&, auto& now) { now.pictureReadyNs = now.nowNs + 700 * kMs; },
     step(FeedAction::Wait, kTickNs)},
    {"in a gap of the decoder",
     [](auto& plan, auto&) {
         plan.gaps = {{990'000, 1'012'000}};
     },
     step(FeedAction::Wait, 12 * kMs)},
    {"the gap is over",
     [](auto& plan, auto&) {
         plan.gaps = {{990'000, 1'000'000}};
     },
     step(FeedAction::Send, kTickNs)},
    {"a stall waits until all before it is shown",
     [](auto& plan, auto&) {
         plan.stalls = {{80'000, 0}};
     },
     step(FeedAction::Wait, kFineTickNs)},
    {"a stall begins",
     [](auto& plan, auto& now) {
         plan.stalls = {{80'000, 1}};
         now.inLibrary = 0;
     },
     step(FeedAction::Wait, kFineTickNs)},
    {"a stall of no length",
     [](auto& plan, auto& now) {
         plan.stalls = {{80'000, 0}};
         now.inLibrary = 0;
     },
     step(FeedAction::Send, kTickNs)},
    {"the stall of a later picture",
     [](auto& plan, auto&) {
         plan.stalls = {{80'001, 1000}};
     },
     step(FeedAction::Send, kFineTickNs)},
    {"the limit is exclusive", [](auto& plan, auto&) { plan.limitUs = 80'000; },
     step(FeedAction::EndSource)},
    {"below the limit", [](auto& plan, auto&) { plan.limitUs = 80'001; },
     step(FeedAction::Send, kTickNs)},
    {"a seek at its time",
     [](auto& plan, auto&) {
         plan.seeks = {{1'000'000, 5'000'000}};
     },
     step(FeedAction::Seek, 0, EndCause::Complete, 5'000'000)},
    {"a seek just before its time",
     [](auto& plan, auto&) {
         plan.seeks = {{1'000'001, 5'000'000}};
     },
     step(FeedAction::Send, 1000)},
    {"a seek at a position",
     [](auto& plan, auto& now) {
         plan.seeks = {{40'000, 5'000'000, false, true}};
         now.positionUs = 40'000;
     },
     step(FeedAction::Seek, 0, EndCause::Complete, 5'000'000)},
    {"before that position",
     [](auto& plan, auto&) {
         plan.seeks = {{40'000, 0, false, true}};
     },
     step(FeedAction::Send, kFineTickNs)},
    {"a seek goes before a restart",
     [](auto& plan, auto&) {
         plan.seeks = {{900'000, 1}};
         plan.restartAtUs = 900'000;
     },
     step(FeedAction::Seek, 0, EndCause::Complete, 1)},
    {"a restart", [](auto& plan, auto&) { plan.restartAtUs = 1'000'000; },
     step(FeedAction::Restart)},
    {"a stop goes before all that is planned",
     [](auto& plan, auto&) {
         plan.stopAtUs = 1'000'000;
         plan.seeks = {{900'000, 1}};
     },
     step(FeedAction::End, 0, EndCause::Stopped)},
    {"an interruption goes before a stop",
     [](auto& plan, auto& now) {
         plan.stopAtUs = 1'000'000;
         now.interrupted = true;
     },
     step(FeedAction::End, 0, EndCause::Interrupted)},
    {"nothing moves", [](auto&, auto& now) { now.lastMoveNs = now.nowNs - 5000 * kMs - 1; },
     step(FeedAction::End, 0, EndCause::Stalled)},
    {"nothing moves, not yet for too long",
     [](auto&, auto& now) { now.lastMoveNs = now.nowNs - 5000 * kMs; },
     step(FeedAction::Send, kTickNs)},
    {"nothing moves in a wait of the plan",
     [](auto& plan, auto& now) {
         plan.longestWaitUs = 1;
         now.lastMoveNs = now.nowNs - 5000 * kMs - 1000;
     },
     step(FeedAction::Send, kTickNs)},
    {"nothing moves, the next frame is due later",
     [](auto&, auto& now) {
         now.lastMoveNs = now.nowNs - 60'000 * kMs;
         now.dueNs = now.nowNs + 1;
     },
     step(FeedAction::Send, kTickNs)},
    {"nothing moves, the next frame is due",
     [](auto&, auto& now) {
         now.lastMoveNs = now.nowNs - 60'000 * kMs;
         now.dueNs = now.nowNs;
     },
     step(FeedAction::End, 0, EndCause::Stalled)},
    {"nothing moves before a planned seek",
     [](auto& plan, auto& now) {
         plan.seeks = {{3'600'000'000, 0}};
         now.lastMoveNs = 0;
     },
     step(FeedAction::Send, kTickNs)},
    {"the source has ended, frames have not left the library",
     [](auto&, auto& now) { now.sourceEnded = true; }, step(FeedAction::Wait, kFineTickNs)},
    {"the last frame is not on screen yet",
     [](auto&, auto& now) {
         now.sourceEnded = true;
         now.inLibrary = 0;
     },
     step(FeedAction::Wait, kFineTickNs)},
    {"the last frame has been shown",
     [](auto&, auto& now) {
         now.sourceEnded = true;
         now.inLibrary = 0;
         now.lastFrameShown = true;
     },
     step(FeedAction::End)},
    {"all has been shown before a planned seek",
     [](auto& plan, auto& now) {
         plan.seeks = {{1'002'000, 0}};
         now.sourceEnded = true;
         now.inLibrary = 0;
         now.lastFrameShown = true;
     },
     step(FeedAction::Wait, 2 * kMs)},
};

TEST(FeedSchedule, DecidesFromPlanAndState) {
    for (const FeedCase& test : kCases) {
        PlaybackPlan plan;
        FeedState state = playing();
        test.given(plan, state);
        FeedSchedule schedule(plan, kFrameUs);
        schedule.start(kStartNs);
        schedule.sent(0);
        schedule.sent(40'000);
        EXPECT_EQ(schedule.next(state), test.expected) << test.name;
    }
}

TEST(FeedSchedule, BeforeStartOnlyPicturesAndInterruptionCount) {
    PlaybackPlan plan;
    plan.seeks = {{0, 1}};
    plan.stopAtUs = 0;
    plan.restartAtUs = 0;
    plan.gaps = {{0, INT64_MAX / 2000}};
    FeedSchedule schedule(plan, kFrameUs);
    FeedState state = playing();
    state.lastMoveNs = 0;
    EXPECT_EQ(schedule.next(state), step(FeedAction::Send, kTickNs));
    state.interrupted = true;
    EXPECT_EQ(schedule.next(state), step(FeedAction::End, 0, EndCause::Interrupted));
}

TEST(FeedSchedule, EachActionComesOnceAndALimitCountsAllSections) {
    PlaybackPlan plan;
    plan.seeks = {{0, 10'000'000}};
    plan.restartAtUs = 0;
    plan.limitUs = 120'000;
    FeedSchedule schedule(plan, kFrameUs);
    schedule.start(kStartNs);
    schedule.sent(0);
    schedule.sent(40'000);
    FeedState state = playing();
    EXPECT_EQ(schedule.next(state).action, FeedAction::Seek);
    schedule.leaveSection();
    state.pictureUs = 10'000'000;
    EXPECT_EQ(schedule.next(state).action, FeedAction::Restart);
    EXPECT_EQ(schedule.next(state).action, FeedAction::Send) << "80 ms were sent before";
    schedule.sent(10'000'000);
    state.pictureUs = 10'040'000;
    EXPECT_EQ(schedule.next(state).action, FeedAction::EndSource);
}

TEST(FeedSchedule, ASeekInAStallComesAtTheClocksTimeAndEndsTheStall) {
    PlaybackPlan plan;
    plan.stalls = {{80'000, 1'000'000}};
    plan.seeks = {{200'000, 20'000, false, true}};
    FeedSchedule schedule(plan, kFrameUs);
    schedule.start(kStartNs);
    schedule.sent(0);
    FeedState state = playing();
    state.inLibrary = 0;
    state.clockUs = 199'999;
    EXPECT_EQ(schedule.next(state).action, FeedAction::Wait);
    EXPECT_EQ(schedule.next(state).action, FeedAction::Wait);
    state.clockUs = 200'000;
    EXPECT_EQ(schedule.next(state).action, FeedAction::Seek);
    schedule.leaveSection();
    state.positionUs = -1;
    EXPECT_EQ(schedule.next(state).action, FeedAction::Send);
}

TEST(FeedSchedule, ALastFrameThatIsNeverShownIsWaitedForOneSecond) {
    const PlaybackPlan plan;
    FeedSchedule schedule(plan, kFrameUs);
    schedule.start(kStartNs);
    FeedState state = playing();
    state.sourceEnded = true;
    state.inLibrary = 0;
    EXPECT_EQ(schedule.next(state).action, FeedAction::Wait);
    state.nowNs += 1000 * kMs;
    EXPECT_EQ(schedule.next(state).action, FeedAction::Wait);
    state.nowNs += 1;
    EXPECT_EQ(schedule.next(state).action, FeedAction::End);
}

TEST(FeedSchedule, AFrameIsTooLateWithinTheLibrarysLead) {
    constexpr double kPeriodNs = 1e9 / 60;  // two of them are 33333 us
    EXPECT_FALSE(isTooLate(1'038'333, 1'000'000, kPeriodNs));
    EXPECT_TRUE(isTooLate(1'038'332, 1'000'000, kPeriodNs));
    EXPECT_TRUE(isTooLate(999'999, 1'000'000, kPeriodNs));
}

TEST(ClockWatch, NotesStopsWithTheirCause) {
    using tv::AudioState;
    PlaybackRecord record;
    record.sections.emplace_back();
    ClockWatch watch(&record);
    const auto see = [&watch](AudioState state, int64_t ms, int64_t startedUs = -1) {
        tv::AudioReport audio;
        audio.state = state;
        audio.startedRealUs = startedUs;
        return watch.see(audio, ms * kMs);
    };
    EXPECT_FALSE(see(AudioState::Waiting, 1));
    EXPECT_EQ(see(AudioState::Playing, 20, 15'000), AudioState::Playing);
    watch.pausedOrResumed(30 * kMs);
    EXPECT_EQ(see(AudioState::Paused, 40), AudioState::Paused);
    watch.pausedOrResumed(50 * kMs);
    see(AudioState::Playing, 60);
    EXPECT_EQ(see(AudioState::Underflow, 80), AudioState::Underflow);
    EXPECT_FALSE(see(AudioState::Underflow, 90));
    watch.end(100 * kMs);
    EXPECT_EQ(record.sections[0].audioStartedRealUs, 15'000);
    ASSERT_EQ(record.clockStops.size(), 2U);
    EXPECT_EQ(record.clockStops[0].fromUs, 30'000) << "when it was paused, not when it was seen";
    EXPECT_EQ(record.clockStops[0].toUs, 50'000);
    EXPECT_TRUE(record.clockStops[0].byPlayer);
    EXPECT_EQ(record.clockStops[1].fromUs, 80'000);
    EXPECT_EQ(record.clockStops[1].toUs, 100'000);
    EXPECT_FALSE(record.clockStops[1].byPlayer);
}

}  // namespace
}  // namespace korvane::player
