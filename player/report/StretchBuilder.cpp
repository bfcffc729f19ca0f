// SPDX-License-Identifier: Apache-2.0
#include "player/report/StretchBuilder.h"

#include <algorithm>
#include <string>

namespace korvane::player {
namespace {

/// Breaks kept one by one; the rest is only counted.
constexpr size_t kKeptBreaks = 100;
/// Dwells from which the pattern that was seen is read.
constexpr size_t kPatternDwells = 512;
/// A viewer sees breaks that follow each other so closely as one.
constexpr int64_t kOneDisturbanceUs = 1'000'000;

}  // namespace

StretchBuilder::StretchBuilder(int section, double displayHz, const ExpectedCadence& expected)
    : mTracker(expected) {
    mReport.section = section;
    mReport.displayHz = displayHz;
    mReport.expected = expected;
}

StretchBuilder::StretchBuilder(int section, double displayHz, const ExpectedCadence& expected,
                               int64_t modeChangedUs)
    : StretchBuilder(section, displayHz, expected) {
    mReport.modeChange = true;
    mModeChangedUs = modeChangedUs;
}

void StretchBuilder::add(const FrameEntry& frame, const FrameEntry* next,
                         const PlaybackRecord& soFar) {
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
    mPending.push_back(dwellFacts(frame, next));
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
    if (mFirstDwells.size() < kPatternDwells) {
        mFirstDwells.push_back(facts.dwell);
    }
    mFacts.push_back(facts);
    takeBreaks(mTracker.add(facts.dwell), soFar);
    noteWhenHeld();
    // A run that is not yet long enough to hold began at most so many dwells ago.
    while (mFactsFrom + kSteadyRunFrames < mTracker.decided()) {
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
        if (found.atStart || found.byArithmetic) {
            continue;
        }
        const DwellFacts& facts = mFacts[found.index - mFactsFrom];
        const BreakCause cause = causeOfBreak(facts, soFar.clockStops);
        countCause(cause, facts.shownUs);
        if (mReport.breaks.size() < kKeptBreaks) {
            mReport.breaks.push_back({facts.frameNo, facts.mediaTimeUs,
                                      facts.shownUs - soFar.startNs / 1000, found.dwell,
                                      found.expected, tellCause(cause, facts)});
        }
    }
}

void StretchBuilder::countCause(BreakCause cause, int64_t shownUs) {
    ++mReport.causes[cause];
    if (askedFor(cause)) {
        return;
    }
    if (mLastBreakUs < 0 || shownUs - mLastBreakUs > kOneDisturbanceUs) {
        ++mReport.disturbances;
    }
    mLastBreakUs = shownUs;
}

void StretchBuilder::noteWhenHeld() {
    const CadenceResult& result = mTracker.result();
    if (result.held && mHeldShownUs < 0) {
        mHeldShownUs = mFacts[result.heldFrom - mFactsFrom].shownUs;
    }
}

std::optional<StretchReport> StretchBuilder::finish(const PlaybackRecord& soFar) {
    takeBreaks(mTracker.finish(), soFar);
    noteWhenHeld();
    if (mFirstShownUs < 0) {
        return std::nullopt;
    }
    reportCadence();
    reportHeldAfter(soFar);
    countUnjudged();
    return mReport;
}

void StretchBuilder::reportCadence() {
    mReport.dwells = mTracker.dwells();
    if (mReport.judged()) {
        mReport.cadence = mTracker.result();
    } else {
        mReport.breaks.clear();
        mReport.causes.clear();
        mReport.disturbances = 0;
    }
    const auto seen = seenPattern(mFirstDwells);
    const bool asExpected = mReport.cadence.held || samePattern(seen, mReport.expected.pattern);
    mReport.seen = asExpected ? mReport.expected.name() : patternName(seen);
    if (!mReport.breaks.empty()) {
        mReport.firstOut = {mReport.breaks.front().frameNo, mReport.breaks.front().shownUs};
    }
}

void StretchBuilder::reportHeldAfter(const PlaybackRecord& soFar) {
    if (!mReport.cadence.held) {
        return;
    }
    const Section& section = soFar.sections[static_cast<size_t>(mReport.section)];
    mReport.afterAudio = !mReport.modeChange && section.audioStartedRealUs >= 0;
    const int64_t sinceUs = mReport.modeChange   ? mModeChangedUs
                            : mReport.afterAudio ? section.audioStartedRealUs
                                                 : mFirstShownUs;
    mReport.heldAfterUs = std::max<int64_t>(mHeldShownUs - sinceUs, 0);
}

/// A dwell that is no part of the cadence says nothing, but if it looks like a fault, it is told.
void StretchBuilder::countUnjudged() {
    for (const auto& facts : mPending) {
        ++mOutside[facts.dwell];
    }
    if (!mReport.judged()) {
        for (const int dwell : mFirstDwells) {
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
