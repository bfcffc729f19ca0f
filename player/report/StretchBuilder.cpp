// SPDX-License-Identifier: Apache-2.0
#include "player/report/StretchBuilder.h"

#include <algorithm>
#include <string>

namespace korvane::player {
namespace {

/// Breaks kept one by one; the rest is only counted.
constexpr size_t kKeptBreaks = 100;
/// The last dwells, from which the pattern that was seen is read.
constexpr size_t kPatternDwells = 512;
/// Frames kept before the first undecided one.
constexpr size_t kKeptFacts = 16;
static_assert(kKeptFacts >= kSteadyRunFrames);
/// A viewer sees breaks within this time as one.
constexpr int64_t kOneDisturbanceUs = 1'000'000;
/// A fault that goes on: breaks at most this far apart, over at least this time, at least so many.
constexpr int64_t kOngoingGapUs = 2'000'000;
constexpr int64_t kOngoingUs = 4'000'000;
constexpr int64_t kOngoingBreaks = 10;
/// A release fence usually signals at the next vsync; one that takes longer than this is late.
constexpr int64_t kLateFenceVsyncs = 2;

}  // namespace

StretchBuilder::StretchBuilder(int section, StretchBegin begin, const ExpectedCadence& expected,
                               int64_t beganUs, const PatternLog& patterns,
                               const std::vector<CadenceListener*>& listeners)
    : mTracker(expected), mPatterns(patterns), mListeners(listeners), mBeganUs(beganUs) {
    mReport.section = section;
    mReport.begin = begin;
    mReport.displayHz = expected.displayHz;
    mReport.expected = expected;
}

void StretchBuilder::add(const FrameEntry& frame, const PlaybackRecord& soFar) {
    mLate = latenessOf(frame, mLate, mLateFence);
    if (!mPending.empty()) {
        addNext(&mPending.back(), frame, mLate, mReport.expected.contentHz,
                mReport.expected.displayHz);
    }
    if (frame.record &&
        static_cast<double>(frame.record->fenceSignalNs - frame.record->releasedNs) >
            kLateFenceVsyncs * 1e9 / mReport.displayHz) {
        mLateFence = {frame.record->releasedNs, frame.record->fenceSignalNs};
    }
    const bool shown = frame.outcome == Outcome::Shown;
    if (shown) {
        noteStart(frame.record->firstVsync.timeNs / 1000, soFar);
    } else if (frame.outcome != Outcome::Superseded) {
        return;
    }
    if (frame.record->atOnce) {
        ++mOutside[static_cast<int>(frame.record->dwellVsyncs)];
        return;
    }
    if (shown) {
        for (const auto& facts : mPending) {
            addToCadence(facts, soFar);
        }
        mPending.clear();
    }
    mPending.push_back(dwellFacts(frame, mLate));
}

void StretchBuilder::noteStart(int64_t shownUs, const PlaybackRecord& soFar) {
    if (mFirstShownUs < 0) {
        mFirstShownUs = shownUs;
        const Section& section = soFar.sections[static_cast<size_t>(mReport.section)];
        mReport.firstFrameUs = shownUs - section.beganNs / 1000;
    } else if (mReport.secondFrameUs < 0) {
        mReport.secondFrameUs = shownUs - mFirstShownUs;
    }
}

void StretchBuilder::addToCadence(const DwellFacts& facts, const PlaybackRecord& soFar) {
    mReport.firstByDwell.emplace(facts.dwell,
                                 FrameAt{facts.frameNo, facts.shownUs - soFar.startNs / 1000});
    mLastDwells.push_back(facts.dwell);
    if (mLastDwells.size() > kPatternDwells) {
        mLastDwells.pop_front();
    }
    mLastMediaUs = facts.mediaTimeUs;
    mFacts.push_back(facts);
    takeBreaks(mTracker.add(facts.dwell), soFar);
    noteWhenHeld();
    // A run that is not yet long enough to hold, or a cause, began at most so many dwells ago.
    while (mFactsFrom + kKeptFacts < mTracker.decided()) {
        mFacts.pop_front();
        ++mFactsFrom;
    }
}

void StretchBuilder::takeBreaks(const std::vector<DwellBreak>& breaks,
                                const PlaybackRecord& soFar) {
    for (const auto& found : breaks) {
        if (found.atStart) {
            mOffAtStart = found.dwell;
        }
        takeBreak(found, soFar);
    }
}

void StretchBuilder::takeBreak(const DwellBreak& found, const PlaybackRecord& soFar) {
    const DwellFacts& facts = mFacts[found.index - mFactsFrom];
    FrameBreak told;
    told.frameNo = facts.frameNo;
    told.dwell = found.dwell;
    told.expected = found.expected;
    told.kind = found.atStart        ? BreakKind::AtStart
                : found.byArithmetic ? BreakKind::ByArithmetic
                                     : BreakKind::Unexpected;
    if (told.kind == BreakKind::Unexpected) {
        const FoundCause cause =
            causeOfBreak(mFacts, found.index - mFactsFrom,
                         {soFar.clockStops, start(soFar), wrongPatternAt(facts.shownUs, soFar),
                          soFar.passthrough});
        told.cause = cause.cause;
        countCause(cause, facts, found);
        const bool kept = mReport.breaks.size() < kKeptBreaks;
        if (kept || !mListeners.empty()) {
            told.text = tellCause(cause);
        }
        if (kept) {
            mReport.breaks.push_back({facts.frameNo, facts.mediaTimeUs,
                                      facts.shownUs - soFar.startNs / 1000, found.dwell,
                                      found.expected, told.text});
        }
    }
    for (CadenceListener* listener : mListeners) {
        listener->onBreak(told);
    }
}

/// What the renderer has in force and the content does not have; else empty.
std::string StretchBuilder::wrongPatternAt(int64_t shownUs, const PlaybackRecord& soFar) const {
    const Section& section = soFar.sections[static_cast<size_t>(mReport.section)];
    const std::string inForce = mPatterns.inForceAt(shownUs, section.beganNs / 1000);
    return inForce == mReport.expected.name() ? "" : inForce;
}

int64_t StretchBuilder::judgedUpTo() const {
    const size_t undecided = mTracker.decided() - mFactsFrom;
    return undecided < mFacts.size() ? mFacts[undecided].frameNo
           : !mPending.empty()       ? mPending.front().frameNo
                                     : INT64_MAX;
}

/// With audio, the pattern cannot hold before it has started.
StretchStart StretchBuilder::start(const PlaybackRecord& soFar) const {
    switch (mReport.begin) {
        case StretchBegin::ModeChange:
            return {BreakCause::ModeChange, std::max(mBeganUs, mFirstShownUs)};
        case StretchBegin::RateChange:
            return {BreakCause::RateChange, mFirstShownUs};
        case StretchBegin::Section:
            break;
    }
    const Section& section = soFar.sections[static_cast<size_t>(mReport.section)];
    return {mReport.section == 0 ? BreakCause::Start : BreakCause::Flush,
            std::max(mFirstShownUs, section.audioStartedRealUs)};
}

void StretchBuilder::countCause(const FoundCause& cause, const DwellFacts& facts,
                                const DwellBreak& found) {
    ++mReport.causes[cause.cause];
    if (cause.cause == BreakCause::WrongPattern) {
        mReport.wrongPattern = cause.wrongPattern;
    }
    if (askedFor(cause.cause)) {
        return;
    }
    if (mDisturbedUs < 0 || facts.shownUs - mDisturbedUs > kOneDisturbanceUs) {
        ++mReport.disturbances;
        mDisturbedUs = facts.shownUs;
    }
    if (mSpan.breaks > 0 && facts.shownUs - mSpanShownUs > kOngoingGapUs) {
        endSpan();
    }
    mSpan.fromUs = mSpan.breaks == 0 ? facts.mediaTimeUs : mSpan.fromUs;
    mSpan.toUs = facts.mediaTimeUs;
    mSpanShownUs = facts.shownUs;
    ++mSpan.breaks;
    mReport.firstBreakUs = mReport.firstBreakUs < 0 ? facts.mediaTimeUs : mReport.firstBreakUs;
    mReport.lastBreakUs = facts.shownUs - mFirstShownUs;
    mSpan.longer += found.dwell > found.expected ? 1 : 0;
}

/// Keeps the longest of the spans that count as one fault that goes on.
void StretchBuilder::endSpan() {
    if (mSpan.breaks >= kOngoingBreaks && mSpan.lengthUs() >= kOngoingUs &&
        mSpan.lengthUs() > mReport.ongoing.lengthUs()) {
        mReport.ongoing = mSpan;
    }
    mSpan = {};
}

void StretchBuilder::noteWhenHeld() {
    const CadenceResult& result = mTracker.result();
    if (result.held && mHeldShownUs < 0) {
        mHeldShownUs = mFacts[result.heldFrom - mFactsFrom].shownUs;
    }
}

std::optional<StretchReport> StretchBuilder::finish(const PlaybackRecord& soFar) {
    const auto breaks = mTracker.finish();
    // Of fewer frames no dwell is judged.
    if (mTracker.dwells() >= kSteadyRunFrames) {
        takeBreaks(breaks, soFar);
    }
    mSpan.toEnd = mSpan.toUs + kOngoingGapUs >= mLastMediaUs;
    endSpan();
    noteWhenHeld();
    if (mFirstShownUs < 0) {
        return std::nullopt;
    }
    reportCadence();
    reportHeldAfter(soFar);
    countUnjudged();
    return mReport;
}

std::optional<FrameAt> StretchBuilder::firstOut() const {
    const auto& breaks = mReport.breaks;
    return breaks.empty() ? std::nullopt
                          : std::optional(FrameAt{breaks.front().frameNo, breaks.front().shownUs});
}

void StretchBuilder::reportCadence() {
    mReport.dwells = mTracker.dwells();
    if (mReport.judged()) {
        mReport.cadence = mTracker.result();
    }
    const std::vector<int> last(mLastDwells.begin(), mLastDwells.end());
    const CadenceResult& cadence = mReport.cadence;
    // A pattern that held for ten frames only is not the one that was seen.
    const bool mostlyInStep =
        cadence.held && cadence.inStep * 10 >= (mReport.dwells - cadence.heldFrom) * 9;
    const bool asExpected =
        mostlyInStep || samePattern(seenPattern(last), mReport.expected.pattern);
    mReport.seen = asExpected ? mReport.expected.name() : seenPatternName(last);
    mReport.firstOut = firstOut().value_or(FrameAt{});
}

void StretchBuilder::reportHeldAfter(const PlaybackRecord& soFar) {
    if (!mReport.cadence.held) {
        return;
    }
    const Section& section = soFar.sections[static_cast<size_t>(mReport.section)];
    mReport.afterAudio = mReport.begin == StretchBegin::Section && section.audioStartedRealUs >= 0;
    const int64_t sinceUs = mBeganUs >= 0        ? mBeganUs
                            : mReport.afterAudio ? section.audioStartedRealUs
                                                 : mFirstShownUs;
    mReport.heldAfterUs = std::max<int64_t>(mHeldShownUs - sinceUs, 0);
}

/// Counts the dwells that take no part in the cadence, so that one that looks like a fault is still
/// reported.
void StretchBuilder::countUnjudged() {
    for (const auto& facts : mPending) {
        ++mOutside[facts.dwell];
    }
    if (!mReport.judged()) {
        for (const int dwell : mLastDwells) {
            ++mOutside[dwell];
        }
    } else if (mOffAtStart) {
        ++mOutside[*mOffAtStart];
    }
    const auto& pattern = mReport.expected.pattern;
    for (const auto& [dwell, frames] : mOutside) {
        if (dwell > 0 && std::find(pattern.begin(), pattern.end(), dwell) == pattern.end()) {
            mReport.unjudged[dwell] += frames;
        }
    }
}

}  // namespace korvane::player
