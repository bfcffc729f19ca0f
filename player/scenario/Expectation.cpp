// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/Expectation.h"

#include <algorithm>
#include <cmath>

#include "player/base/Units.h"

namespace korvane::player {
namespace {

constexpr char kNoSound[] = "no sound to judge: no frame came on screen while something was heard";

std::string at(const FrameAt& seen) {
    if (seen.frameNo < 0) {
        return "";
    }
    return ", first at frame " + std::to_string(seen.frameNo) + " (t = " + seconds(seen.atUs) + ")";
}

std::string times(const Range& range) {
    if (range.least == INT64_MIN) {
        return "at most " + milliseconds(range.most);
    }
    if (range.most == INT64_MAX) {
        return "at least " + milliseconds(range.least);
    }
    return milliseconds(range.least) + " to " + milliseconds(range.most);
}

class Checker {
public:
    Checker(const Expectations& expect, const PlaybackRecord& record, const Summary& summary,
            const std::vector<LogCount>& log)
        : mExpect(expect), mRecord(record), mSummary(summary), mLog(log) {}

    std::vector<std::string> run() {
        checkEnd();
        checkFrames();
        checkDrops();
        checkCadence();
        checkLipSync();
        checkOffsets();
        checkLatencies();
        checkLog();
        return mFailures;
    }

private:
    void fail(const std::string& key, const std::string& expected, const std::string& seen,
              const FrameAt& first = {}) {
        mFailures.push_back(key + ": expected " + expected + ", seen " + seen + at(first));
    }
    void count(const std::string& key, const std::optional<Range>& range, int64_t seen,
               const FrameAt& first = {}) {
        if (range && !range->holds(seen)) {
            // The first frame of too many explains the failure; the first of too few does not.
            fail(key, describe(*range), std::to_string(seen),
                 seen > range->most ? first : FrameAt{});
        }
    }
    void flag(const std::string& key, const std::optional<bool>& wanted, bool seen) {
        if (wanted && *wanted != seen) {
            fail(key, *wanted ? "true" : "false", mSummary.verdict);
        }
    }
    void time(const std::string& key, const std::optional<Range>& range, int64_t seenUs,
              const FrameAt& first = {}) {
        if (!range) {
            return;
        }
        if (seenUs < 0) {
            fail(key, times(*range), "none");
        } else if (!range->holds(seenUs)) {
            fail(key, times(*range), milliseconds(seenUs), first);
        }
    }

    void checkEnd();
    void checkFrames();
    void checkShownAll();
    void checkDrops();
    void checkCadence();
    void checkPattern(size_t index, const std::string& wanted);
    void checkDwell();
    void checkLipSync();
    void checkOffsets();
    void checkOffset(const std::string& key, const std::optional<Range>& range, int64_t samples,
                     int64_t us, const FrameAt& seen);
    void checkLatencies();
    void checkLog();

    const Expectations& mExpect;
    const PlaybackRecord& mRecord;
    const Summary& mSummary;
    const std::vector<LogCount>& mLog;
    std::vector<std::string> mFailures;
};

void Checker::checkEnd() {
    if (mExpect.end != mRecord.end) {
        fail("end", toString(mExpect.end), toString(mRecord.end));
    }
    if (mExpect.buffersReturned && !mSummary.buffersBack) {
        fail("buffers_returned", "every buffer back",
             counted(mRecord.buffersKept, "buffer") + " kept, " +
                 std::to_string(mRecord.pool.unknownReturned) + " unknown",
             mRecord.firstKept);
    }
    count("buffers_kept", mExpect.buffersKept, mRecord.buffersKept, mRecord.firstKept);
    if (!mSummary.sumHolds) {
        fail("ledger", std::to_string(mSummary.framesIn) + " frames in the outcomes' sum",
             "another sum");
    }
    count("overwritten", mExpect.overwritten, mRecord.overwrittenOnScreen);
    const int64_t tookUs = (mRecord.stopNs - mRecord.startNs) / 1000;
    time("playback", mExpect.playbackUs, tookUs);
    time("stop_within", mExpect.stopUs, mRecord.stopTookNs / 1000);
    count("underflows", mExpect.underflows, mRecord.audioUnderflows);
    count("reanchors", mExpect.reanchors, mRecord.audioReanchors);
    count("holds", mExpect.holds, mRecord.sync.holds);
}

void Checker::checkFrames() {
    count("frames", mExpect.framesIn, mSummary.framesIn);
    if (mExpect.shownAll) {
        checkShownAll();
    }
    for (const auto& [outcome, range] : mExpect.outcomes) {
        count(toString(outcome), range, mSummary.count(outcome),
              mSummary.firstOf[static_cast<size_t>(outcome)]);
    }
    if (mExpect.outcomes.count(Outcome::Lost) == 0) {
        count("lost", Range{0, 0}, mSummary.count(Outcome::Lost),
              mSummary.firstOf[static_cast<size_t>(Outcome::Lost)]);
    }
}

void Checker::checkShownAll() {
    const int64_t shown = mSummary.count(Outcome::Shown);
    if (shown == mSummary.framesIn && shown > 0) {
        return;
    }
    FrameAt first;
    std::string what = std::to_string(shown) + " of " + std::to_string(mSummary.framesIn);
    for (int i = 0; i < kOutcomes; ++i) {
        const auto outcome = static_cast<Outcome>(i);
        const FrameAt& seen = mSummary.firstOf[static_cast<size_t>(i)];
        if (outcome == Outcome::Shown || seen.frameNo < 0) {
            continue;
        }
        what +=
            std::string(", ") + std::to_string(mSummary.count(outcome)) + " " + toString(outcome);
        if (first.frameNo < 0 || seen.frameNo < first.frameNo) {
            first = seen;
        }
    }
    fail("shown", "all", what, first);
}

void Checker::checkDrops() {
    count("dropped", mExpect.dropped, mSummary.count(Outcome::Dropped),
          mSummary.firstOf[static_cast<size_t>(Outcome::Dropped)]);
    int64_t longest = 0;
    FrameAt longestAt;
    for (const auto& [reason, group] : mSummary.drops) {
        if (group.runs.longest > longest) {
            longest = group.runs.longest;
            longestAt = group.first;
        }
    }
    count("longest_drop_run", mExpect.longestDropRun, longest, longestAt);
    for (const auto& [reason, range] : mExpect.drops) {
        const auto found = mSummary.drops.find(reason);
        const bool any = found != mSummary.drops.end();
        count(std::string("dropped_") + toString(reason), range,
              any ? found->second.runs.frames : 0, any ? found->second.first : FrameAt{});
    }
}

void Checker::checkCadence() {
    const auto& wanted = mExpect.patterns;
    const size_t stretches = mSummary.stretches.size();
    if (wanted.size() > 1 && wanted.size() != stretches) {
        fail("patterns", std::to_string(wanted.size()) + " stretches", std::to_string(stretches));
        return;
    }
    if (wanted.size() == 1 && stretches == 0) {
        fail("pattern", wanted.front(), "nothing shown");
    }
    for (size_t i = 0; !wanted.empty() && i < stretches; ++i) {
        checkPattern(i, wanted.size() == 1 ? wanted.front() : wanted[i]);
    }
    FrameAt firstBreak;
    for (const auto& stretch : mSummary.stretches) {
        if (firstBreak.frameNo < 0 && !stretch.breaks.empty()) {
            firstBreak = {stretch.breaks.front().frameNo, stretch.breaks.front().shownUs};
        }
    }
    flag("even", mExpect.even, mSummary.even);
    if (mExpect.inSync && !mSummary.inSync) {
        fail("in_sync", *mExpect.inSync ? "true" : "false", kNoSound);
    } else {
        flag("in_sync", mExpect.inSync, mSummary.inSync.value_or(false));
    }
    count("slips", mExpect.slips, mSummary.byArithmetic);
    count("unexpected", mExpect.unexpected, mSummary.unexpected, firstBreak);
    count("unexplained", mExpect.unexplained, mSummary.unexplained(), firstBreak);
    checkDwell();
}

void Checker::checkPattern(size_t index, const std::string& wanted) {
    const StretchReport& stretch = mSummary.stretches[index];
    const std::string key =
        mSummary.stretches.size() == 1 ? "pattern" : "pattern " + std::to_string(index + 1);
    if (wanted == "none") {
        if (stretch.cadence.held) {
            fail(key, "none", stretch.seen);
        }
        return;
    }
    const bool same = stretch.seen == wanted;
    if (!same || !stretch.cadence.held) {
        fail(key, wanted + " held",
             stretch.seen.empty() ? "none" : stretch.seen + (same ? ", not held" : ""),
             stretch.firstOut);
        return;
    }
    time(key + "_within", mExpect.patternWithinUs, stretch.heldAfterUs, stretch.firstOut);
}

void Checker::checkDwell() {
    if (!mExpect.dwell) {
        return;
    }
    int64_t outside = 0;
    FrameAt first;
    for (const auto& [dwell, seen] : mSummary.cadenceDwells) {
        if (mExpect.dwell->holds(dwell)) {
            continue;
        }
        if (first.frameNo < 0 || seen.frameNo < first.frameNo) {
            first = seen;
            outside = dwell;
        }
    }
    if (first.frameNo >= 0) {
        fail("dwell", describe(*mExpect.dwell) + " vsyncs", std::to_string(outside), first);
    }
}

void Checker::checkOffset(const std::string& key, const std::optional<Range>& range,
                          int64_t samples, int64_t us, const FrameAt& seen) {
    if (range && samples == 0) {
        fail(key, times(*range), "no frame that could be compared");
    } else if (range && !range->holds(us)) {
        fail(key, times(*range), milliseconds(us), seen);
    }
}

/// The band is kept if it is left for one vsync at most: pictures change at vsyncs only.
void Checker::checkLipSync() {
    const LipSync& sync = mSummary.lipSync;
    checkOffset("lip_sync_median", mExpect.lipSyncMedianUs, sync.samples, sync.medianUs, {});
    checkOffset("lip_sync_worst", mExpect.lipSyncWorstUs, sync.samples, sync.worstUs, sync.worst);
    if (mExpect.lipSync == LipSyncLimit::None) {
        return;
    }
    const bool ebu = mExpect.lipSync == LipSyncLimit::Ebu;
    const LipSyncBand& band = ebu ? kEbuBand : kItuAcceptableBand;
    const double outside = ebu ? sync.secondsOutsideEbu : sync.secondsOutsideItuAcceptable;
    if (sync.samples == 0 || outside > 1.0 / mSummary.displayHz) {
        const std::string worst =
            signedMilliseconds(sync.worstUs) + " at frame " + std::to_string(sync.worst.frameNo);
        fail("lip_sync", times({band.leastUs, band.mostUs}),
             sync.samples == 0 ? kNoSound
                               : seconds(std::llround(outside * 1e6)) + " outside, worst " + worst);
    }
}

void Checker::checkOffsets() {
    const OffsetReport& offset = mSummary.offset;
    checkOffset("offset_median", mExpect.offsetMedianUs, offset.us.samples, offset.us.median, {});
    if (!mExpect.offsetWorstUs) {
        return;
    }
    const bool early = offset.least.us < mExpect.offsetWorstUs->least;
    const MeasuredAt& worst = early ? offset.least : offset.most;
    checkOffset("offset_worst", mExpect.offsetWorstUs, offset.us.samples, worst.us, worst.frame);
}

void Checker::checkLatencies() {
    int64_t seekUs = -1;
    const StretchReport* first = nullptr;
    for (const auto& stretch : mSummary.stretches) {
        if (stretch.begin != StretchBegin::Section) {
            continue;
        }
        if (stretch.section == 0) {
            first = &stretch;
        } else {
            seekUs = std::max(seekUs, stretch.firstFrameUs);
        }
    }
    time("first_frame_within", mExpect.firstFrameUs, first == nullptr ? -1 : first->firstFrameUs);
    time("second_frame_within", mExpect.secondFrameUs,
         first == nullptr ? -1 : first->secondFrameUs);
    time("seek_within", mExpect.seekUs, seekUs);
    count("splices", mExpect.splices, static_cast<int64_t>(mSummary.splices.size()));
    time("splice_lost", mExpect.spliceLostUs, mSummary.worstSpliceUs());
    time("resume_within", mExpect.resumeUs, mSummary.longestResume.us,
         mSummary.longestResume.frame);
}

void Checker::checkLog() {
    for (size_t i = 0; i < mExpect.log.size(); ++i) {
        const LogExpectation& wanted = mExpect.log[i];
        const LogCount& seen = mLog[i];
        if (wanted.count.holds(seen.lines)) {
            continue;
        }
        const std::string what = wanted.text.empty() ? "lines of its priority or above"
                                                     : "lines with '" + wanted.text + "'";
        std::string text = std::to_string(seen.lines);
        if (seen.lines > 0) {
            text += ", the first at t = " + seconds(seen.firstAtUs) + ": " + seen.first;
        }
        fail("log", describe(wanted.count) + " " + what, text);
    }
}

}  // namespace

std::string describe(const Range& range) {
    if (range.least == range.most) {
        return std::to_string(range.least);
    }
    if (range.least == INT64_MIN) {
        return "at most " + std::to_string(range.most);
    }
    if (range.most == INT64_MAX) {
        return "at least " + std::to_string(range.least);
    }
    return std::to_string(range.least) + " to " + std::to_string(range.most);
}

std::vector<std::string> neverHappened(const std::vector<TimedAction>& actions,
                                       const PlaybackRecord& record) {
    const int64_t endUs = (record.stopNs - record.startNs) / 1000;
    std::vector<std::string> lines;
    for (const auto& action : actions) {
        if (action.atUs > endUs) {
            lines.push_back(action.key + " at " + seconds(action.atUs) +
                            " never happened: playback ended at " + seconds(endUs));
        }
    }
    return lines;
}

std::vector<std::string> failures(const Expectations& expect, const PlaybackRecord& record,
                                  const Summary& summary, const std::vector<LogCount>& log) {
    return Checker(expect, record, summary, log).run();
}

}  // namespace korvane::player
