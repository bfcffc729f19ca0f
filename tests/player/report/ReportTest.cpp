// SPDX-License-Identifier: Apache-2.0
// From a playback's record to the summary, its text and its files.
#include "player/report/ReportBuilder.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "player/base/FrameRate.h"
#include "player/report/BreakCause.h"
#include "player/report/Grade.h"
#include "player/report/Report.h"
#include "player/report/ReportVerdict.h"
#include "tests/player/report/Dwells.h"

namespace korvane::player {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr int64_t kVsyncNs = 16'666'667;

/// A playback with the frames that its listeners were told of.
struct Played : PlaybackRecord {
    std::vector<FrameEntry> frames;
    std::vector<std::string> log;  ///< the renderer's, before the first frame
};

Summary summarise(const Played& played, const PlaybackPlan& plan) {
    ReportBuilder builder(played.media.frameRateHz, plan);
    for (const auto& line : played.log) {
        builder.seeLog({6, "VideoSyncFRAC", line}, played.startNs / 1000);
    }
    for (const auto& frame : played.frames) {
        builder.onFrame(frame, played);
    }
    return builder.finish(played);
}

Summary summarise(const Played& played, double displayDriftPpm = 0.0) {
    PlaybackPlan plan;
    plan.tv.display.rateHz = played.displayHz;
    plan.tv.display.driftPpm = displayDriftPpm;
    return summarise(played, plan);
}

/// A playback of 24 fps on 60 Hz whose frames stayed on screen for these numbers of vsyncs;
/// 0: superseded, -1: dropped late.
Played playbackOf(const std::vector<int>& dwells) {
    Played record;
    record.media.frameRateHz = 24;
    record.withAudio = true;
    record.displayHz = 60;
    record.startNs = 1'000'000'000;
    record.sections = {{record.startNs, record.startNs / 1000 + 50'000}};
    int64_t vsync = 70;
    for (const int dwell : dwells) {
        FrameEntry frame;
        frame.frameNo = static_cast<int64_t>(record.frames.size());
        frame.mediaTimeUs = frame.frameNo * 41'667;
        if (dwell < 0) {
            frame.outcome = Outcome::Dropped;
            frame.dropReason = DropReason::Late;
            frame.returns = 1;
            record.frames.push_back(frame);
            continue;
        }
        tv::BufferRecord entry;
        entry.frameNo = frame.frameNo;
        entry.dwellVsyncs = dwell;
        entry.releasedNs = (vsync + dwell) * kVsyncNs;
        if (dwell > 0) {
            entry.firstVsync = {vsync, vsync * kVsyncNs};
            frame.clockRealUs = 70 * kVsyncNs / 1000 + frame.mediaTimeUs - 5'000;
            entry.presentationTimeUs = entry.firstVsync.timeNs / 1000;
            frame.heardRealUs = entry.firstVsync.timeNs / 1000 - 7'000;
            frame.heardForUs = dwell * 10'000;
        }
        frame.outcome = dwell > 0 ? Outcome::Shown : Outcome::Superseded;
        frame.record = entry;
        record.frames.push_back(frame);
        vsync += dwell;
    }
    return record;
}

std::string textOf(const Played& played, const tv::TraceReport& trace = {},
                   double displayDriftPpm = 0.0) {
    std::ostringstream text;
    printReport(text, played, summarise(played, displayDriftPpm), trace, false);
    return text.str();
}

nlohmann::json jsonOf(const Played& played) {
    std::ostringstream json;
    writeJson(json, {}, played, summarise(played), {});
    return nlohmann::json::parse(json.str());
}

std::vector<int> pulldown(size_t frames) {
    std::vector<int> dwells;
    for (size_t i = 0; i < frames; ++i) {
        dwells.push_back(i % 2 == 0 ? 3 : 2);
    }
    return dwells;
}

TEST(Report, AnEvenPlaybackIsSaidToBe) {
    const auto record = playbackOf(pulldown(48));
    const Summary summary = summarise(record);
    EXPECT_TRUE(summary.ok());
    EXPECT_THAT(summary.verdict, AllOf(HasSubstr("Even: [3:2] held"), HasSubstr("stayed"),
                                       EndsWith("every buffer back.")));
    EXPECT_EQ(summary.stretches.at(0).heldAfterUs, 70 * kVsyncNs / 1000 - 1'050'000);
    EXPECT_NEAR(static_cast<double>(summary.offset.us.median), 9'166, 10);
    EXPECT_EQ(summary.lipSync.medianUs, 7'000);
    EXPECT_DOUBLE_EQ(summary.lipSync.secondsJudged, 1.2);
    const auto json = jsonOf(record);
    EXPECT_EQ(json.at("verdict"), summary.verdict);
    EXPECT_EQ(json.at("frames_shown"), 48);
    EXPECT_EQ(json.at("content_hz"), 24);
    EXPECT_EQ(json.at("held"), true);
    EXPECT_EQ(json.at("frames_in_step"), 47) << "the last one is not judged";
}

TEST(Report, AnyFileNameGivesValidJson) {
    const std::vector<std::pair<const char*, const char*>> names = {
        {"film \"one\".mp4", "film \"one\".mp4"},
        {"bell\a\n\\.mp4", "bell\a\n\\.mp4"},
        {"f\xC3\xBCr \xFF.mp4", "f\xC3\xBCr \xEF\xBF\xBD.mp4"}};
    for (const auto& [name, inJson] : names) {
        auto record = playbackOf({3});
        record.media.path = name;
        EXPECT_EQ(jsonOf(record).at("file"), inJson);
    }
}

TEST(Report, AControlCharacterNeverReachesTheTerminal) {
    const auto record = playbackOf({3});
    tv::TraceReport trace;
    trace.path = "\x1b[2J.json";
    EXPECT_THAT(textOf(record, trace), HasSubstr("events in \\x1b[2J.json, "));
}

TEST(Report, BuffersHaveTimesOnlyWhereSomeCameBack) {
    auto record = playbackOf({3});
    EXPECT_THAT(textOf(record), HasSubstr(" 0 release fences\n"));
    auto& frame = record.frames[0];
    frame.record->fenceSignalNs = frame.record->releasedNs;
    frame.returns = 1;
    frame.returnedNs = frame.record->releasedNs + 2'000'000;
    EXPECT_THAT(textOf(record),
                HasSubstr(" 1 release fence; back with the player 2.0 ms after leaving"));
}

TEST(Report, ARateThatMeansAFractionSaysWhich) {
    const auto ratesOf = [](double contentHz, double displayHz, double driftPpm) {
        auto record = playbackOf({3});
        record.media.frameRateHz = contentHz;
        record.displayHz = displayHz;
        return textOf(record, {}, driftPpm);
    };
    EXPECT_THAT(ratesOf(24000.0 / 1001, 60000.0 / 1001, 0),
                AllOf(HasSubstr("content 23.976 fps = 24000/1001 ("),
                      HasSubstr("display 59.94 Hz = 60000/1001\n")));
    EXPECT_THAT(ratesOf(23.98, 60000.0 / 1001, 20),
                AllOf(HasSubstr("content 23.98 fps ("), HasSubstr("display 59.941 Hz\n")));
}

TEST(Report, AnUnexpectedDwellIsListedWithItsCause) {
    auto dwells = pulldown(48);
    dwells[30] = 8;
    dwells.insert(dwells.begin() + 31, {-1, -1});
    const auto record = playbackOf(dwells);
    const Summary summary = summarise(record);
    EXPECT_TRUE(summary.ok());
    EXPECT_EQ(summary.unexpected, 1);
    EXPECT_THAT(
        textOf(record),
        AllOf(
            HasSubstr("frame 30 at 1.250 s: 8 instead of 3 (the frame after 30 was dropped: late"),
            HasSubstr("dropped, late: 2 in 1 run, longest 2")));
}

struct VerdictCase {
    std::vector<int> dwells;
    size_t flushedAt;  ///< frame from which a second stretch begins; 0: none
    int64_t unexpected;
    const char* verdict;
};

TEST(Report, TheVerdictSaysWhatWasNotEven) {
    const std::vector<int> never(30, 4);
    const auto even = pulldown(48);
    std::vector<int> goesOn;
    for (int i = 0; i < 30; ++i) {
        goesOn = join(goesOn, {3, 2, 3, 2, 4, 1, 3, 2, 3, 2});
    }
    const std::vector<VerdictCase> cases = {
        {join(even, even), 48, 0, "Even: [3:2] held 0.12 s after audio start and stayed; every"},
        {join(even, never), 48, 28,
         "Uneven twice, mainly because of the renderer's choice of vsyncs: [3:2] held 0.12 s after "
         "audio start, a stretch never in step (29 frames);"},
        {join({9, 9, 9}, even), 0, 3,
         "Uneven only in the first 0.4 s: [3:2] held 0.57 s after audio start, 3 unexpected dwells "
         "before it held;"},
        {join(join({9, 9}, even), join({9}, even)), 0, 3,
         "Uneven only in the first 2.4 s, mainly because of the start: [3:2] held 0.42 s after "
         "audio start, 2 unexpected dwells before it held and 1 after;"},
        {join({-1, -1, -1}, even), 0, 0,
         "Uneven: [3:2] held 0.12 s after audio start and stayed, 3 frames not shown (late: 3);"},
        {join({1}, even), 0, 0, "Even: "},                  // began in the middle of a frame
        {join(even, {3, 3, 3, 3, 3, 9}), 48, 0, "Even: "},  // too few to tell
        {never, 0, 28,
         "Uneven throughout, mainly because of the renderer's choice of vsyncs: [4:4] seen where "
         "[3:2] was due;"},
        {{3, 2, 9, 2, 80},
         0,
         0,
         "Played; 5 frames shown, too few to tell a pattern; one stood for 1.3 s;"},
        {join(even, goesOn), 0, 60,
         "Uneven from 2.2 s on, 5 odd frames a second, because of the renderer's choice of vsyncs: "
         "[3:2] held 0.12 s after audio start, then 60 unexpected dwells;"},
        {join(join(even, goesOn), even), 0, 60, "Uneven from 2.2 s to 14.3 s, "}};
    for (const auto& c : cases) {
        auto record = playbackOf(c.dwells);
        record.sections.push_back(record.sections[0]);
        for (size_t i = c.flushedAt; c.flushedAt > 0 && i < record.frames.size(); ++i) {
            record.frames[i].section = 1;
        }
        const Summary summary = summarise(record);
        EXPECT_THAT(summary.verdict, HasSubstr(c.verdict));
        EXPECT_EQ(summary.unexpected, c.unexpected) << c.verdict;
    }
}

struct EndCase {
    EndCause end;
    double secondsOutside;  ///< of 20
    int64_t pauseUs;
    const char* verdict;
    const char* grade;
    bool ok;
};

TEST(Report, TheGradeIsTheWorstThatApplies) {
    auto dwells = pulldown(48);
    dwells[30] = 40;
    const std::vector<EndCase> cases = {
        {EndCause::Complete, 0, 100'000, "Even: [3:2] held 0.12 s after audio start and stayed;",
         "even", true},
        {EndCause::Stopped, 0, 100'000, "Even: ", "even", true},
        {EndCause::Complete, 0.9, 0,
         "Uneven once, at 1.3 s, because of the renderer's choice of vsyncs: [3:2] held 0.12 s "
         "after audio start, then 1 unexpected dwell, longest freeze 0.7 s;",
         "uneven", true},
        {EndCause::Complete, 1.1, 0,
         "Out of sync: sound 80.0 ms early at worst, noticeable (ITU-R BT.1359-1) for 1.1 of 20.0 "
         "s; "
         "[3:2] held",
         "out_of_sync", true},
        {EndCause::Interrupted, 1.1, 0, "Interrupted: until then [3:2] held", "interrupted", false},
        {EndCause::BrokenOff, 1.1, 0, "Broken off: the file ends at 2.000 s; until then [3:2]",
         "broken_off", false},
        {EndCause::Stalled, 1.1, 0, "Stalled: nothing moved any more, ", "stalled", false}};
    for (const auto& c : cases) {
        auto record = playbackOf(dwells);
        record.end = c.end;
        record.brokeOffAtUs = 2'000'000;
        const int64_t pausedUs = record.frames[30].record->firstVsync.timeNs / 1000 + 1;
        record.clockStops = {{pausedUs, pausedUs + c.pauseUs, true}};
        if (c.pauseUs == 0) {
            record.clockStops.clear();
        }
        Summary summary = summarise(record);
        summary.lipSync.worstUs = 80'000;
        summary.lipSync.secondsJudged = 20.0;
        summary.lipSync.secondsOutsideItuDetectable = c.secondsOutside;
        giveVerdict(record, &summary);
        EXPECT_THAT(summary.verdict, StartsWith(c.verdict));
        EXPECT_STREQ(toString(summary.grade), c.grade);
        EXPECT_EQ(summary.ok(), c.ok) << c.verdict;
        EXPECT_EQ(summary.even, c.pauseUs > 0) << c.verdict;
        EXPECT_EQ(summary.inSync, std::optional<bool>(c.secondsOutside < 1)) << c.verdict;
    }
}

TEST(RateLimit, IsWhatNoRendererCanAvoid) {
    using Kind = RateLimit::Kind;
    const struct {
        double contentHz, displayHz;
        Kind kind;
        double perSecond;
        bool visible;
    } cases[] = {{24, 60, Kind::None, 0, false},          {60, 50, Kind::Skipped, 10, true},
                 {25, 24, Kind::Skipped, 1, true},        {24, 50, Kind::Long, 2, true},
                 {25, 60, Kind::Long, 10, true},          {48, 50, Kind::Long, 2, true},
                 {25, 144, Kind::Short, 6, true},         {23.976, 60, Kind::Long, 0.06, false},
                 {60, 59.94, Kind::Skipped, 0.06, false}, {24, 59.94, Kind::Short, 0.06, false}};
    for (const auto& c : cases) {
        const RateLimit limit = rateLimit(
            expectedCadence(nominalRate(c.contentHz).hz(), nominalRate(c.displayHz).hz()));
        EXPECT_EQ(limit.kind, c.kind) << c.contentHz << " on " << c.displayHz;
        EXPECT_NEAR(limit.perSecond, c.perSecond, 0.001) << c.contentHz << " on " << c.displayHz;
        EXPECT_EQ(limit.visible, c.visible) << c.contentHz << " on " << c.displayHz;
    }
}

TEST(Report, ADwellThatIsNotJudgedIsExplained) {
    const auto record = playbackOf(join(pulldown(48), {7}));
    EXPECT_THAT(textOf(record),
                AllOf(HasSubstr("unexpected: 0\n"), HasSubstr("or too few): 1 frame for 7")));
}

TEST(Report, TheDisplaysTrueRateIsWhatCounts) {
    const auto record = playbackOf(join(join(pulldown(48), {3}), pulldown(48)));
    EXPECT_EQ(summarise(record).unexpected, 1);
    const Summary summary = summarise(record, 1'000);
    EXPECT_EQ(summary.unexpected, 0);
    EXPECT_EQ(summary.byArithmetic, 1);
    EXPECT_DOUBLE_EQ(summary.displayHz, 60.06);
    EXPECT_NEAR(summary.expected.secondsPerSlip(), 16.7, 0.1);
}

TEST(BreakCause, IsTheFirstThatTheRecordTells) {
    constexpr int64_t kShownUs = 1'000'000;
    constexpr int64_t kReleasedUs = 1'500'000;
    constexpr int64_t kAfterStopUs = 500'000;
    const ClockStop pause{kReleasedUs, 0, true};
    struct Case {
        ClockStop stop;
        std::optional<DropReason> nextDropped;
        Lateness nextLate;
        const char* cause;
    };
    constexpr Lateness kInTime = Lateness::None;
    const std::vector<Case> cases = {
        {pause, DropReason::Late, Lateness::Decoded, "the clock stood still: pause"},
        {{0, kShownUs - kAfterStopUs, true}, {}, kInTime, "the clock had stood still: pause"},
        {{1'100'000, 1'200'000}, {}, kInTime, "the clock stood still: audio underflow"},
        {{kReleasedUs + 1, 0}, DropReason::Late, kInTime, "the frame after 7 was dropped: late"},
        {{0, kShownUs - kAfterStopUs}, {}, kInTime, "the clock stood still: audio underflow"},
        {{0, kShownUs - kAfterStopUs - 1},
         DropReason::Late,
         Lateness::NoBuffer,
         "frame 8 was handed in late: no buffer was free"},
        {{0, 1}, {}, kInTime, ""}};
    for (const auto& c : cases) {
        DwellFacts facts;
        facts.frameNo = 7;
        facts.shownUs = kShownUs;
        facts.releasedUs = kReleasedUs;
        facts.vsyncUs = 16'667;
        facts.nextDropped = c.nextDropped;
        facts.nextLate = c.nextLate;
        const std::vector<ClockStop> stops = {c.stop};
        EXPECT_EQ(tellCause(causeOfBreak({facts}, 0, {stops, {}, "", false})), c.cause);
    }
}

struct CauseCase {
    const char* cause;
    void (*change)(Played*);
};

void moveTimes(Played* played, size_t from, int64_t mediaUs, int64_t clockUs) {
    for (size_t i = from; i < played->frames.size(); ++i) {
        played->frames[i].mediaTimeUs += mediaUs;
        *played->frames[i].clockRealUs += mediaUs + clockUs;
    }
}

TEST(BreakCause, IsFoundOnTheWayFromMediaTimeToVsync) {
    const CauseCase cases[] = {
        {"renderer", [](Played*) {}},
        {"wrong_pattern", [](Played* p) { p->log = {"[detectPattern]2:2 pattern detected"}; }},
        {"renderer",
         [](Played* p) {
             p->log = {"[detectPattern]2:2 pattern detected",
                       "[detectPattern] pattern [2:2] broken"};
         }},
        {"policy", [](Played* p) { p->passthrough = true; }},
        {"policy", [](Played* p) { p->frames[31].record->presentationTimeUs = 0; }},
        {"timestamps",
         [](Played* p) {
             moveTimes(p, 31, -50'000, 0);
             p->frames[31].sentLate = true;
         }},
        {"no_buffer",
         [](Played* p) {
             p->frames[31].sentLate = true;
             p->frames[31].waitedNs = 5'000'000;
         }},
        {"fence",
         [](Played* p) {
             p->frames[20].record->fenceSignalNs = INT64_MAX;
             p->frames[31].sentNs = p->frames[31].record->releasedNs;
             p->frames[31].waitedNs = 5'000'000;
             p->frames[31].sentLate = p->frames[32].sentLate = true;
         }},
        {"refusal",
         [](Played* p) {
             p->frames[31].outcome = Outcome::Lost;
             p->frames[31].renderTimeUs = 0;
             p->frames[31].record.reset();
         }},
        {"source_gap", [](Played* p) { moveTimes(p, 31, 83'334, 0); }},
        {"timestamps", [](Played* p) { moveTimes(p, 31, 10'000, 0); }},
        {"clock_moved", [](Played* p) { moveTimes(p, 33, 0, 80'000); }},
        {"late_frame", [](Played* p) { p->frames[31].sentLate = true; }},
        {"lost", [](Played* p) { p->frames[31].outcome = Outcome::Lost; }},
        {"late_on_screen", [](Played* p) { p->frames[31].record->presentationTimeUs -= 80'000; }},
        {"pause",
         [](Played* p) {
             const int64_t shownUs = p->frames[30].record->firstVsync.timeNs / 1000;
             p->clockStops = {{shownUs + 1, shownUs + 50'000, true}};
         }},
        {"unexplained", [](Played* p) {
             for (auto& frame : p->frames) {
                 frame.clockRealUs.reset();
             }
         }}};
    for (const auto& c : cases) {
        auto dwells = pulldown(48);
        dwells[30] = 8;
        auto record = playbackOf(dwells);
        c.change(&record);
        const Summary summary = summarise(record);
        ASSERT_GE(summary.unexpected, 1) << c.cause;
        EXPECT_STREQ(toString(summary.causes.begin()->first), c.cause);
        EXPECT_EQ(summary.unexplained() > 0, std::string(c.cause) == "unexplained");
    }
}

TEST(Report, AChangeOfTheDisplaysRateBeginsAStretch) {
    auto record = playbackOf(join(pulldown(48), pulldown(48)));
    PlaybackPlan plan;
    plan.tv.display.rateHz = 60;
    const int64_t changedNs = record.frames[48].record->firstVsync.timeNs;
    plan.modeChanges = {{(changedNs - record.startNs) / 1000, 60}};
    const Summary summary = summarise(record, plan);
    ASSERT_EQ(summary.stretches.size(), 2U);
    EXPECT_TRUE(summary.stretches[1].begin == StretchBegin::ModeChange);
    EXPECT_EQ(summary.stretches[1].heldAfterUs, 0);
    std::ostringstream text;
    printReport(text, record, summary, {}, false);
    EXPECT_THAT(text.str(),
                HasSubstr("held 0.00 s after the change of the display's rate, stayed"));
}

TEST(Report, TheVerdictNamesWhatIsMissing) {
    auto record = playbackOf(pulldown(48));
    record.frames[20].outcome = Outcome::Lost;
    record.frames[20].record.reset();
    record.buffersKept = 2;
    const Summary summary = summarise(record);
    EXPECT_FALSE(summary.ok());
    EXPECT_THAT(summary.verdict, AllOf(HasSubstr("FAULT: 1 frame unaccounted for"),
                                       HasSubstr("2 buffers never came back")));
}

TEST(Report, FramesThatLastLongerAndShorterByTurnsAreShownSo) {
    std::vector<int> dwells;
    for (int i = 0; i < 48; ++i) {
        dwells.push_back(i % 2 == 0 ? 6 : 4);
    }
    auto record = playbackOf(dwells);
    record.displayHz = 120;
    EXPECT_THAT(summarise(record).verdict, HasSubstr("[6:4] seen where [5:5] was due"));
    for (size_t i = 1; i < record.frames.size(); i += 2) {
        record.frames[i].mediaTimeUs += 8'333;
    }
    EXPECT_THAT(summarise(record).verdict, StartsWith("Even: [6:4] held"));
}

TEST(Report, TheRateIsMeasuredWhateverTheFileSays) {
    auto record = playbackOf(pulldown(48));
    record.media.frameRateHz = 50;
    EXPECT_NEAR(summarise(record).contentHz, 24, 0.01);
    record.media.frameRateHz = 24;
    for (size_t i = 0; i < record.frames.size(); ++i) {
        record.frames[i].mediaTimeUs += i % 3 == 0 ? 15'000 : 0;
    }
    EXPECT_THAT(summarise(record).verdict, StartsWith("Even: [3:2]")) << "jitter shown evenly";
    EXPECT_THAT(summarise(playbackOf({-1, -1})).verdict,
                HasSubstr("Nothing was shown of 2 frames"));
}

TEST(Report, CsvLeavesEmptyWhatDoesNotApply) {
    const auto record = playbackOf({3, 0, -1});
    std::ostringstream csv;
    CsvWriter writer(csv);
    for (const auto& frame : record.frames) {
        writer.onFrame(frame, record);
    }
    FrameBreak found;
    found.frameNo = 1;
    found.cause = BreakCause::NoBuffer;
    writer.onBreak(found);
    writer.onJudgedUpTo(2);
    EXPECT_THAT(csv.str(), Not(HasSubstr("\n2,"))) << "not before it is judged";
    writer.onJudgedUpTo(INT64_MAX);
    EXPECT_THAT(
        csv.str(),
        AllOf(HasSubstr(",present_us,vsync,shown_us,dwell_vsyncs,cause,lip_sync_us,av_offset_us,"),
              HasSubstr("\n0,0,0,shown,,-1,,,166666,70,166666,3,,7000,5000,216666,"),
              HasSubstr("\n1,41667,0,superseded,,-1,,,-1000000,,,0,no_buffer,,,216666,"),
              EndsWith("\n2,83334,0,dropped,late,-1,,,,,,,,,,,,,1,,,0,\n")));
}

}  // namespace
}  // namespace korvane::player
