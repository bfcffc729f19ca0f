// SPDX-License-Identifier: Apache-2.0
// Every frame counted once, by what the TV's record and the callbacks say; drops with a reason.
#include <gmock/gmock.h>

#include "player/playback/DropReason.h"
#include "player/playback/FrameLedger.h"

namespace korvane::player {
namespace {

using tv::BufferFate;
using tv::BufferRecord;

/// A small language: what happens to frames 0, 1, 2, ... in turn.
class LedgerTest : public ::testing::Test {
protected:
    int64_t send() {
        const int64_t number = mLedger.frames();
        return mLedger.sent(number * 40'000, 0, static_cast<int>(number), 1000 + number, false);
    }
    void back(int64_t frame, bool rendered, bool insideFlush = false,
              DropReason reason = DropReason::None) {
        mLedger.returned(
            {frame, 5000, rendered, insideFlush, reason, DropEvidence::Values, std::nullopt});
    }
    void inTunnel(int64_t frame, BufferFate fate, int64_t takenBackNs = 0) {
        BufferRecord entry;
        entry.frameNo = frame;
        entry.fate = fate;
        entry.takenBackNs = takenBackNs;
        mRecord.push_back(entry);
    }
    std::vector<FrameEntry> settle() {
        mLedger.addRecords(mRecord);
        mLedger.stopped();
        return mLedger.takeRest();
    }

    FrameLedger mLedger;
    std::vector<BufferRecord> mRecord;
};

TEST_F(LedgerTest, EachFrameGetsOneOutcome) {
    for (int i = 0; i < 9; ++i) {
        send();
    }
    inTunnel(-1, BufferFate::Shown);  // foreign pictures touch no frame
    inTunnel(17, BufferFate::Shown);
    inTunnel(0, BufferFate::Shown, 7000);  // and not handed back
    back(1, false, false, DropReason::Late);
    inTunnel(2, BufferFate::Superseded, 7000);
    back(2, true);
    // Nothing is said of frame 3, although a later one has an outcome.
    back(4, true);  // never in the tunnel: refused at show time
    inTunnel(5, BufferFate::OnScreen);
    inTunnel(6, BufferFate::DiscardedByDisconnect);
    back(8, false, true);  // a flush says nothing of an earlier frame that is still held
    const auto frames = settle();
    const std::vector<Outcome> expected = {
        Outcome::Shown,          Outcome::Dropped,         Outcome::Superseded,
        Outcome::Lost,           Outcome::Refused,         Outcome::Shown,
        Outcome::InTunnelAtStop, Outcome::DiscardedByStop, Outcome::Flushed};
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(frames[i].outcome, expected[i]) << "frame " << i;
        EXPECT_EQ(frames[i].bufferKept, i == 0) << "frame " << i;
    }
    EXPECT_EQ(frames[1].dropReason, DropReason::Late);
}

TEST_F(LedgerTest, ARenderTimeWithoutATunnelEntryIsLost) {
    send();
    mLedger.renderTime(0, 123, std::nullopt);
    EXPECT_EQ(settle()[0].outcome, Outcome::Lost);
}

TEST_F(LedgerTest, HandedBackTwiceAndShownAfterAllCountsOnceAsShown) {
    send();
    back(0, false, false, DropReason::Flush);
    back(0, true);
    inTunnel(0, BufferFate::Superseded);
    inTunnel(0, BufferFate::Shown);
    const auto frames = settle();
    EXPECT_EQ(frames[0].outcome, Outcome::Shown);
    EXPECT_EQ(frames[0].dropReason, DropReason::None);
    EXPECT_EQ(frames[0].returns, 2);
    EXPECT_EQ(frames[0].tunnelEntries, 2);
}

TEST_F(LedgerTest, FramesLeaveTheLibraryWhenTheyAreBackOrRendered) {
    send();
    send();
    EXPECT_EQ(mLedger.inLibrary(), 2);
    mLedger.renderTime(0, 123, 456);
    back(0, true);
    EXPECT_EQ(mLedger.inLibrary(), 1);
    EXPECT_EQ(mLedger.positionUs(), 0);
    EXPECT_TRUE(mLedger.sectionShows());
    back(1, false);
    EXPECT_EQ(mLedger.inLibrary(), 0);
}

TEST_F(LedgerTest, TheClockSaysNothingOfFramesFromBeforeAFlush) {
    send();
    mLedger.beginSection(1);
    mLedger.renderTime(0, 123, 456);
    EXPECT_FALSE(mLedger.sectionShows());
    EXPECT_FALSE(settle()[0].clockRealUs.has_value());
}

TEST_F(LedgerTest, FramesLeaveInOrderOnceNothingCanChangeThemAnyMore) {
    for (size_t i = 0; i <= FrameLedger::kWindow; ++i) {
        back(send(), false, false, DropReason::Late);
    }
    EXPECT_EQ(mLedger.takeFinal(0).size(), 0U) << "the tunnel still has the first";
    const auto frames = mLedger.takeFinal(INT64_MAX);
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_EQ(frames[0].frameNo, 0);
    EXPECT_EQ(frames[0].outcome, Outcome::Dropped);
    EXPECT_EQ(mLedger.oldestSentNs(), 1001);
    back(0, true);  // comes back again, long after
    EXPECT_EQ(mLedger.inLibrary(), 0);
    EXPECT_EQ(settle().size(), FrameLedger::kWindow);
}

TEST_F(LedgerTest, AStopEndsTheAccountsOfItsOwnFramesOnly) {
    send();
    mLedger.stopped();
    EXPECT_EQ(mLedger.inLibrary(), 0);
    send();
    back(1, false, false, DropReason::Late);
    const auto frames = settle();
    EXPECT_EQ(frames[0].outcome, Outcome::DiscardedByStop) << "in spite of the later outcome";
    EXPECT_EQ(frames[1].outcome, Outcome::Dropped);
}

TEST(DropReason, FollowsFromTheValues) {
    // passthrough, hasAudio, flushing, mode, underflowSeen, lateUs, vsyncPeriodUs
    const std::vector<std::pair<DropValues, DropReason>> cases = {
        {{true, true, true, 0, true, 90'000, 16'683}, DropReason::Flush},
        {{true, false, false, 2, false, 0, 16'683}, DropReason::Policy},
        {{false, true, false, 0, false, 90'000, 16'683}, DropReason::BeforeAudio},
        {{false, false, false, 0, false, 41'000, 16'683}, DropReason::Late},
        {{false, true, false, 1, false, 40'001, 16'683}, DropReason::Late},
        {{false, true, false, 1, false, 24'000, 16'683}, DropReason::Late},  // moved by a vsync
        {{false, true, false, 1, false, 20'000, 16'683}, DropReason::Unknown},
        {{false, true, false, 1, true, 16'000, 16'683}, DropReason::UnderflowCatchUp},
        {{false, true, false, 1, true, 90'000, 16'683}, DropReason::Late}};
    for (size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(dropReasonFromValues(cases[i].first), cases[i].second) << "case " << i;
    }
}

TEST(DropReason, IsReadFromTheLibrarysLines) {
    const std::vector<std::pair<const char*, DropReason>> lines = {
        {"[drainVideoFrame]drop frame for sync audio:1\n", DropReason::BeforeAudio},
        {"[drainVideoFrame]drop 7 to catch up audio after underflow\n",
         DropReason::UnderflowCatchUp},
        {"[drainVideoFrame]drop = frameNo:3 mediatimeus:1", DropReason::Late},
        {"MEDIASYNC_VIDEO_DROP mediaTimeUs:5\n", DropReason::Policy}};
    for (const auto& [line, reason] : lines) {
        EXPECT_EQ(dropReasonFromLog(line), reason) << line;
    }
    EXPECT_FALSE(dropReasonFromLog("[dropFrame] drop pts:5\n").has_value());
}

}  // namespace
}  // namespace korvane::player
