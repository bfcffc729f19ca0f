// SPDX-License-Identifier: Apache-2.0
// From a playback's record to the summary, its text and its files.
#include "player/report/ReportBuilder.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>

#include "player/playback/BufferPool.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

namespace korvane::player {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;

constexpr int64_t kVsyncNs = 16'666'667;

/// A playback with the frames that its listeners were told of.
struct Played : PlaybackRecord {
    std::vector<FrameEntry> frames;
};

Summary summarise(const Played& played, double displayDriftPpm = 0.0) {
    PlaybackPlan plan;
    plan.tv.display.rateHz = played.displayHz;
    plan.tv.display.driftPpm = displayDriftPpm;
    ReportBuilder builder(played.media.frameRateHz, plan);
    for (const auto& frame : played.frames) {
        builder.onFrame(frame, played);
    }
    return builder.finish(played);
}

/// A playback of 24 fps on 60 Hz whose frames stayed on screen for these numbers of vsyncs;
/// 0: superseded, -1: dropped late.
Played playbackOf(const std::vector<int>& dwells) {
    Played record;
    record.media.path = "film \"one\".mp4";
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
            frame.clockRealUs = entry.firstVsync.timeNs / 1000 - 5'000;
        }
        frame.outcome = dwell > 0 ? Outcome::Shown : Outcome::Superseded;
        frame.record = entry;
        record.frames.push_back(frame);
        vsync += dwell;
    }
    return record;
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
    EXPECT_EQ(summary.sections.at(0).heldAfterUs, 70 * kVsyncNs / 1000 - 1'050'000);
    EXPECT_EQ(summary.offsetUs.median, 5'000);
    std::ostringstream json;
    writeJson(json, record, summary, {});
    EXPECT_THAT(json.str(), AllOf(HasSubstr("  \"file\": \"film \\\"one\\\".mp4\",\n"),
                                  HasSubstr("  \"frames_shown\": 48,\n"), EndsWith("\n}\n")));
}

TEST(Report, AnUnexpectedDwellIsListedWithItsCause) {
    auto dwells = pulldown(48);
    dwells[30] = 8;
    dwells.insert(dwells.begin() + 31, {-1, -1});
    const auto record = playbackOf(dwells);
    const Summary summary = summarise(record);
    EXPECT_TRUE(summary.ok());
    EXPECT_EQ(summary.unexpected, 1);
    std::ostringstream text;
    printReport(text, record, summary, {}, false);
    EXPECT_THAT(text.str(), AllOf(HasSubstr("frame 30 at 1.250 s: 8 instead of 3"),
                                  HasSubstr("dropped, late: 2 in 1 run, longest 2")));
}

std::vector<int> join(std::vector<int> head, const std::vector<int>& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
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
    const std::vector<VerdictCase> cases = {
        {join(even, even), 48, 0, "Even: [3:2] held 0.12 s after audio start and stayed; every"},
        {join(even, never), 48, 28,
         "Uneven: [3:2] held 0.12 s after audio start, a stretch never in step (29 frames);"},
        {join({9, 9, 9}, even), 0, 3, "after audio start, 3 unexpected dwells before it held;"},
        {join(join({9, 9}, even), join({9}, even)), 0, 3,
         "after audio start, 2 unexpected dwells before it held and 1 after;"},
        {join({-1, -1, -1}, even), 0, 0,
         "Uneven: [3:2] held 0.12 s after audio start and stayed, 3 frames not shown (late: 3);"},
        {join({1}, even), 0, 0, "Even: "},                  // began in the middle of a frame
        {join(even, {3, 3, 3, 3, 3, 9}), 48, 0, "Even: "},  // too few to tell
        {never, 0, 28, "Uneven: [4:4] seen where [3:2] was due;"},
        {{3, 2, 9, 2, 1}, 0, 0, "Played; too short to tell a pattern;"}};
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

TEST(Report, ADwellThatIsNotJudgedIsExplained) {
    const auto record = playbackOf(join(pulldown(48), {7}));
    std::ostringstream text;
    printReport(text, record, summarise(record), {}, false);
    EXPECT_THAT(text.str(),
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

TEST(Report, AClockStopIsGivenAsTheCause) {
    auto dwells = pulldown(48);
    dwells[30] = 33;
    auto record = playbackOf(dwells);
    const int64_t shownUs = record.frames[30].record->firstVsync.timeNs / 1000;
    record.clockStops = {{shownUs + 10'000, shownUs + 510'000}};
    EXPECT_THAT(summarise(record).sections.at(0).breaks.at(0).cause, HasSubstr("audio underflow"));
}

TEST(Report, TheVerdictNamesWhatIsMissing) {
    auto record = playbackOf(pulldown(48));
    record.frames[20].outcome = Outcome::Lost;
    record.frames[20].record.reset();
    record.buffersKept = 2;
    const Summary summary = summarise(record);
    EXPECT_FALSE(summary.ok());
    EXPECT_THAT(summary.verdict, AllOf(HasSubstr("FAULT: 1 frame without an account"),
                                       HasSubstr("2 buffers never came back")));
}

TEST(Report, TheRateIsMeasuredWhateverTheFileSays) {
    auto record = playbackOf(pulldown(48));
    record.media.frameRateHz = 50;
    EXPECT_NEAR(summarise(record).contentHz, 24, 0.01);
    for (size_t i = 0; i < record.frames.size(); ++i) {
        record.frames[i].mediaTimeUs += i % 3 == 0 ? 15'000 : 0;
    }
    EXPECT_THAT(summarise(record).verdict, HasSubstr("rate varies")) << "no pattern to keep";
    EXPECT_THAT(summarise(playbackOf({-1, -1})).verdict,
                HasSubstr("Nothing was shown of 2 frames"));
}

TEST(Report, CsvHasAsManyFieldsInEveryLine) {
    const auto record = playbackOf({3, 2, 0, -1, 3});
    std::ostringstream csv;
    CsvWriter writer(csv);
    for (const auto& frame : record.frames) {
        writer.onFrame(frame, record);
    }
    std::istringstream lines(csv.str());
    std::vector<int64_t> commas;
    for (std::string line; std::getline(lines, line);) {
        commas.push_back(std::count(line.begin(), line.end(), ','));
    }
    EXPECT_GT(commas.at(0), 5);
    EXPECT_EQ(commas, std::vector<int64_t>(6, commas[0])) << csv.str();
}

class BufferPoolTest : public ::testing::Test {
protected:
    BufferPoolTest() : mPicture(av_frame_alloc()) { resize(64, 32); }
    ~BufferPoolTest() override { av_frame_free(&mPicture); }
    void resize(int width, int height) {
        av_frame_unref(mPicture);
        mPicture->format = AV_PIX_FMT_YUV420P;
        mPicture->width = width;
        mPicture->height = height;
        ASSERT_EQ(av_frame_get_buffer(mPicture, 0), 0);
    }
    int take(BufferPool& pool, int64_t frameNo) {
        const int buffer = pool.acquire(std::chrono::milliseconds(0));
        pool.fill(buffer, mPicture, frameNo, frameNo * 1000);
        return buffer;
    }
    AVFrame* mPicture;
};

TEST_F(BufferPoolTest, APictureIsReadBackFromItsDescriptorWhateverItsSize) {
    BufferPool pool(2);
    EXPECT_EQ(tv::readPicture(pool.fd(take(pool, 7))).frameNo, 7);
    resize(640, 480);
    const int large = take(pool, 8);
    const auto header = tv::readPicture(pool.fd(large));
    EXPECT_EQ(header.frameNo, 8);
    EXPECT_EQ(header.width, 640U);
    EXPECT_EQ(header.mediaTimeUs, 8000);
}

TEST_F(BufferPoolTest, ABufferHandedBackTwiceIsTakenOnce) {
    BufferPool pool(2);
    const int first = take(pool, 0);
    take(pool, 1);
    EXPECT_EQ(pool.acquire(std::chrono::milliseconds(1)), -1);
    EXPECT_GE(pool.report().longestWaitNs, 1'000'000) << "counted although it goes on";
    pool.giveBack(pool.fd(first));
    pool.giveBack(pool.fd(first));
    pool.giveBack(12345);
    EXPECT_EQ(take(pool, 2), first);
    EXPECT_EQ(pool.acquire(std::chrono::milliseconds(0)), -1) << "one buffer came back, not two";
    pool.takeBackAll();
    const PoolReport report = pool.report();
    EXPECT_EQ(report.returnedByCallback, 1);
    EXPECT_EQ(report.returnedAgain, 1);
    EXPECT_EQ(report.unknownReturned, 1);
    EXPECT_EQ(report.takenBackAtStop, 2);
    EXPECT_EQ(report.lowestFree, 0);
}

}  // namespace
}  // namespace korvane::player
