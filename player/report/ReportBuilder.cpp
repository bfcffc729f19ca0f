// SPDX-License-Identifier: Apache-2.0
#include "player/report/ReportBuilder.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "player/base/Units.h"
#include "player/report/ReportVerdict.h"

namespace korvane::player {
namespace {

/// The file's rate is believed when the timestamps agree with it this well.
constexpr double kRateAgreement = 0.01;
/// Timestamps of a constant rate are rounded by at most a millisecond each way.
constexpr double kTimestampRoundingUs = 2'000;
/// A dwell is put down to a clock stop that ended this much before it at most.
constexpr int64_t kAfterStopUs = 500'000;
/// Breaks kept one by one; the rest is only counted.
constexpr size_t kKeptBreaks = 100;
/// Dwells from which the pattern that was seen is read.
constexpr size_t kPatternDwells = 512;

/// Mean of the steps that are no gap and no repetition: those within half of the median.
double meanStep(std::vector<int64_t> steps) {
    std::sort(steps.begin(), steps.end());
    const auto median = static_cast<double>(steps[steps.size() / 2]);
    double total = 0.0;
    int64_t count = 0;
    for (const int64_t step : steps) {
        if (std::abs(static_cast<double>(step) - median) <= median / 2) {
            total += static_cast<double>(step);
            ++count;
        }
    }
    return count > 0 ? total / static_cast<double>(count) : 0.0;
}

}  // namespace

ReportBuilder::ReportBuilder(double nominalHz, const PlaybackPlan& plan) : mPlan(plan) {
    mSummary.contentHz = nominalHz;
    mSummary.displayHz = trueHz(plan.tv.display.rateHz);
}

/// Vsyncs per second of a display that calls it that many: its crystal may be off.
double ReportBuilder::trueHz(double nominalHz) const {
    return nominalHz * (1.0 + mPlan.tv.display.driftPpm * 1e-6);
}

/// Pictures follow audio where audio has the clock, as fast or slow as its crystal is.
ExpectedCadence ReportBuilder::expectedOn(double displayHz) const {
    const bool audioLeads = mPlan.withAudio && !mPlan.passthrough;
    const double speed = audioLeads ? 1.0 + mPlan.audio.driftPpm * 1e-6 : 1.0;
    return expectedCadence(mSummary.contentHz * speed, displayHz);
}

void ReportBuilder::onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) {
    mRecord = &soFar;
    ++mSummary.framesIn;
    if (!mOpen) {
        mOpening.push_back(frame);
        if (mOpening.size() == kOpeningFrames) {
            openContent();
        }
        return;
    }
    countStep(frame);
    process(*mLast, &frame);
    mLast = frame;
}

/// Settles the content's rate from the first frames and adds them up.
void ReportBuilder::openContent() {
    mOpen = true;
    std::vector<int64_t> steps;
    for (size_t i = 1; i < mOpening.size(); ++i) {
        if (mOpening[i].section == mOpening[i - 1].section) {
            steps.push_back(mOpening[i].mediaTimeUs - mOpening[i - 1].mediaTimeUs);
        }
    }
    if (steps.size() >= kSteadyRunFrames) {
        mStepUs = meanStep(steps);
        const double measuredHz = mStepUs > 0.0 ? 1e6 / mStepUs : mSummary.contentHz;
        if (std::abs(measuredHz - mSummary.contentHz) > kRateAgreement * measuredHz) {
            mSummary.contentHz = measuredHz;
        }
    }
    mSummary.expected = expectedOn(mSummary.displayHz);
    std::vector<FrameEntry> opening;
    opening.swap(mOpening);
    for (size_t i = 0; i < opening.size(); ++i) {
        countStep(opening[i]);
        if (i + 1 < opening.size()) {
            process(opening[i], &opening[i + 1]);
        } else {
            mLast = opening[i];
        }
    }
}

void ReportBuilder::countStep(const FrameEntry& frame) {
    if (mBefore && mBefore->section == frame.section && mStepUs > 0.0) {
        const auto step = static_cast<double>(frame.mediaTimeUs - mBefore->mediaTimeUs);
        ++mSteps;
        mStepsOff += std::abs(step - mStepUs) > kTimestampRoundingUs ? 1 : 0;
    }
    mBefore = frame;
}

void ReportBuilder::process(const FrameEntry& frame, const FrameEntry* next) {
    followStretches(frame);
    count(frame);
    addToCadence(frame, next);
}

FrameAt ReportBuilder::seenAt(int64_t frameNo, int64_t timeUs) const {
    return {frameNo, timeUs - mRecord->startNs / 1000};
}

void ReportBuilder::count(const FrameEntry& frame) {
    const auto outcome = static_cast<size_t>(frame.outcome);
    const FrameAt sent = seenAt(frame.frameNo, frame.sentNs / 1000);
    if (mSummary.outcomes[outcome]++ == 0) {
        mSummary.firstOf[outcome] = sent;
    }
    mSummary.sentLate += frame.sentLate ? 1 : 0;
    if (frame.outcome == Outcome::Dropped) {
        DropGroup& group = mSummary.drops[frame.dropReason];
        group.first = group.runs.frames == 0 ? sent : group.first;
        group.runs.add(frame.frameNo);
        group.fromLog += frame.dropEvidence == DropEvidence::LogLine ? 1 : 0;
    } else if (frame.outcome == Outcome::Shown) {
        countShown(frame);
    }
}

void ReportBuilder::countShown(const FrameEntry& frame) {
    const tv::BufferRecord& record = *frame.record;
    const int64_t shownUs = record.firstVsync.timeNs / 1000;
    const FrameAt seen = seenAt(frame.frameNo, shownUs);
    ++mSummary.dwells[static_cast<int>(record.dwellVsyncs)];
    mSummary.fences += record.fenceSignalNs != 0 ? 1 : 0;
    if (frame.clockRealUs && !record.atOnce) {
        countOffset(shownUs - *frame.clockRealUs, seen);
    }
    if (frame.returns > 0 && record.releasedNs > 0) {
        mBack.add(frame.returnedNs - record.releasedNs);
    }
    countResumes(shownUs, seen);
}

void ReportBuilder::countOffset(int64_t offsetUs, const FrameAt& seen) {
    if (mSummary.offsetLeast.frameNo < 0 || offsetUs < mSummary.offsetLeastUs) {
        mSummary.offsetLeastUs = offsetUs;
        mSummary.offsetLeast = seen;
    }
    if (mSummary.offsetMost.frameNo < 0 || offsetUs > mSummary.offsetMostUs) {
        mSummary.offsetMostUs = offsetUs;
        mSummary.offsetMost = seen;
    }
    mOffsets.add(offsetUs);
}

/// The first frame on screen after the end of each clock stop.
void ReportBuilder::countResumes(int64_t shownUs, const FrameAt& seen) {
    const auto& stops = mRecord->clockStops;
    while (mResumes < stops.size() && stops[mResumes].toUs != 0 &&
           shownUs >= stops[mResumes].toUs) {
        const int64_t tookUs = shownUs - stops[mResumes].toUs;
        if (tookUs > mSummary.longestResumeUs) {
            mSummary.longestResumeUs = tookUs;
            mSummary.longestResume = seen;
        }
        ++mResumes;
    }
}

/// A frame of a new section, or the first one on screen in a new display mode, begins a stretch.
void ReportBuilder::followStretches(const FrameEntry& frame) {
    if (!mStretch || frame.section != mStretch->report.section) {
        const double hz = mStretch ? mStretch->report.displayHz : mSummary.displayHz;
        beginStretch(frame.section, false, hz);
    }
    if (frame.outcome != Outcome::Shown) {
        return;
    }
    const auto& changes = mPlan.modeChanges;
    while (mModeChanges < changes.size() &&
           frame.record->firstVsync.timeNs >=
               mRecord->startNs + changes[mModeChanges].atUs * 1000) {
        beginStretch(frame.section, true, trueHz(changes[mModeChanges].rateHz));
        mStretch->beganUs = mRecord->startNs / 1000 + changes[mModeChanges].atUs;
        ++mModeChanges;
    }
    StretchReport& report = mStretch->report;
    const int64_t shownUs = frame.record->firstVsync.timeNs / 1000;
    if (mStretch->firstShownUs < 0) {
        mStretch->firstShownUs = shownUs;
        const auto& section = mRecord->sections[static_cast<size_t>(report.section)];
        report.firstFrameUs = shownUs - section.beganNs / 1000;
    } else if (report.secondFrameUs < 0) {
        report.secondFrameUs = shownUs - mStretch->firstShownUs;
    }
}

void ReportBuilder::beginStretch(int section, bool modeChange, double displayHz) {
    endStretch();
    mStretch = std::make_unique<Stretch>();
    StretchReport& report = mStretch->report;
    report.section = section;
    report.modeChange = modeChange;
    report.displayHz = displayHz;
    report.expected = expectedOn(displayHz);
    mStretch->tracker = std::make_unique<CadenceTracker>(
        report.expected, [this](const DwellBreak& found) { takeBreak(found); });
}

void ReportBuilder::addToCadence(const FrameEntry& frame, const FrameEntry* next) {
    const bool shown = frame.outcome == Outcome::Shown;
    if (!shown && frame.outcome != Outcome::Superseded) {
        return;
    }
    if (frame.record->atOnce) {
        ++mStretch->outside[static_cast<int>(frame.record->dwellVsyncs)];
        return;
    }
    if (shown) {
        for (const auto& facts : mStretch->pending) {
            addDwell(facts);
        }
        mStretch->pending.clear();
    }
    Facts facts;
    facts.frameNo = frame.frameNo;
    facts.mediaTimeUs = frame.mediaTimeUs;
    facts.goneUs = frame.record->releasedNs / 1000;
    facts.dwell = static_cast<int>(frame.record->dwellVsyncs);
    facts.shownUs = facts.dwell > 0 ? frame.record->firstVsync.timeNs / 1000 : facts.goneUs;
    facts.sentLate = frame.sentLate;
    if (next != nullptr) {
        facts.nextSentLate = next->sentLate;
        if (next->outcome == Outcome::Dropped) {
            facts.nextDropped = next->dropReason;
        }
    }
    mStretch->pending.push_back(facts);
}

void ReportBuilder::addDwell(const Facts& facts) {
    Stretch& stretch = *mStretch;
    mSummary.cadenceDwells.emplace(facts.dwell, seenAt(facts.frameNo, facts.shownUs));
    if (stretch.firstDwells.size() < kPatternDwells) {
        stretch.firstDwells.push_back(facts.dwell);
    }
    stretch.facts.push_back(facts);
    stretch.tracker->add(facts.dwell);
    noteWhenHeld();
    // A run that is not yet long enough to hold began at most so many dwells ago.
    while (stretch.factsFrom + kSteadyRunFrames < stretch.tracker->decided()) {
        stretch.facts.pop_front();
        ++stretch.factsFrom;
    }
}

void ReportBuilder::takeBreak(const DwellBreak& found) {
    Stretch& stretch = *mStretch;
    stretch.breaksSinceHeld += stretch.tracker->held() ? 1 : 0;
    if (found.atStart) {
        stretch.offAtStart = found.dwell;
    }
    if (found.atStart || found.byArithmetic) {
        return;
    }
    const Facts& facts = stretch.facts[found.index - stretch.factsFrom];
    const std::string cause = causeOf(facts);
    stretch.report.explained += cause.empty() ? 0 : 1;
    if (stretch.report.breaks.size() < kKeptBreaks) {
        stretch.report.breaks.push_back({facts.frameNo, facts.mediaTimeUs,
                                         facts.shownUs - mRecord->startNs / 1000, found.dwell,
                                         found.expected, false, cause});
    }
}

std::string ReportBuilder::causeOf(const Facts& facts) const {
    for (const auto& stop : mRecord->clockStops) {
        const int64_t toUs = stop.toUs == 0 ? INT64_MAX - kAfterStopUs : stop.toUs;
        if (facts.shownUs <= toUs + kAfterStopUs &&
            stop.fromUs <= std::max(facts.goneUs, facts.shownUs)) {
            return stop.byPlayer ? "the clock stood still: pause"
                                 : "the clock stood still: audio underflow";
        }
    }
    if (facts.nextDropped) {
        return std::string("the next frame was dropped: ") + toString(*facts.nextDropped);
    }
    if (facts.sentLate || facts.nextSentLate) {
        const int64_t late = facts.sentLate ? facts.frameNo : facts.frameNo + 1;
        return "frame " + std::to_string(late) + " was handed in late";
    }
    return "";
}

void ReportBuilder::endStretch() {
    if (!mStretch) {
        return;
    }
    mStretch->tracker->finish();
    noteWhenHeld();
    if (mStretch->firstShownUs >= 0) {
        reportCadence();
        countUnjudged();
        mSummary.sections.push_back(mStretch->report);
    }
    mStretch.reset();
}

void ReportBuilder::noteWhenHeld() {
    const CadenceTracker& tracker = *mStretch->tracker;
    if (tracker.held() && mStretch->heldShownUs < 0) {
        mStretch->heldShownUs = mStretch->facts[tracker.heldFrom() - mStretch->factsFrom].shownUs;
    }
}

void ReportBuilder::reportCadence() {
    const CadenceTracker& tracker = *mStretch->tracker;
    StretchReport& report = mStretch->report;
    report.dwells = tracker.dwells();
    if (report.judged()) {
        report.cadence.held = tracker.held();
        report.cadence.heldFrom = tracker.heldFrom();
        report.cadence.byArithmetic = tracker.byArithmetic();
        report.cadence.unexpected = tracker.unexpected();
        report.cadence.unexpectedBefore = tracker.unexpectedBefore();
    } else {
        report.breaks.clear();
        report.explained = 0;
    }
    const auto seen = seenPattern(mStretch->firstDwells);
    const bool asExpected = report.cadence.held || samePattern(seen, report.expected.pattern);
    report.seen = asExpected ? report.expected.name() : patternName(seen);
    if (!report.breaks.empty()) {
        report.firstOut = {report.breaks.front().frameNo, report.breaks.front().shownUs};
    }
    if (!report.cadence.held) {
        return;
    }
    const auto& section = mRecord->sections[static_cast<size_t>(report.section)];
    report.afterAudio = !report.modeChange && section.audioStartedRealUs >= 0;
    const int64_t sinceUs = report.modeChange   ? mStretch->beganUs
                            : report.afterAudio ? section.audioStartedRealUs
                                                : mStretch->firstShownUs;
    report.heldAfterUs = std::max<int64_t>(mStretch->heldShownUs - sinceUs, 0);
    report.framesInStep =
        static_cast<int64_t>(report.dwells - tracker.heldFrom()) - mStretch->breaksSinceHeld;
}

/// A dwell that is no part of the cadence says nothing, but if it looks like a fault, it is told.
void ReportBuilder::countUnjudged() {
    const StretchReport& report = mStretch->report;
    auto& outside = mStretch->outside;
    for (const auto& facts : mStretch->pending) {
        ++outside[facts.dwell];
    }
    if (!report.judged()) {
        for (const int dwell : mStretch->firstDwells) {
            ++outside[dwell];
        }
    } else if (mStretch->offAtStart) {
        ++outside[*mStretch->offAtStart];
    }
    const auto& pattern = report.expected.pattern;
    for (const auto& [dwell, frames] : outside) {
        if (dwell > 0 && std::find(pattern.begin(), pattern.end(), dwell) == pattern.end()) {
            mSummary.unjudged[dwell] += frames;
        }
    }
}

/// Adds up what the stretches say of the cadence; where the rate varies there is none.
void ReportBuilder::judge() {
    // A lost picture here and there leaves the rate constant; one step in twenty does not.
    mSummary.variableRate = mStepsOff * 20 > mSteps;
    if (mSummary.variableRate) {
        mSummary.expected = ExpectedCadence{};
        mSummary.unjudged.clear();
    }
    for (auto& section : mSummary.sections) {
        if (mSummary.variableRate) {
            section.expected = ExpectedCadence{};
            section.cadence = CadenceResult{};
            section.breaks.clear();
            section.explained = 0;
        }
        mSummary.byArithmetic += static_cast<int64_t>(section.cadence.byArithmetic);
        mSummary.unexpected += static_cast<int64_t>(section.cadence.unexpected);
        mSummary.explained += section.explained;
    }
}

Summary ReportBuilder::finish(const PlaybackRecord& record) {
    mRecord = &record;
    if (!mOpen) {
        openContent();
    }
    if (mLast) {
        process(*mLast, nullptr);
    }
    endStretch();
    mSummary.offsetUs = mOffsets.spread();
    mSummary.backToPlayerNs = mBack.spread();
    judge();
    giveVerdict(record, &mSummary);
    return mSummary;
}

}  // namespace korvane::player
