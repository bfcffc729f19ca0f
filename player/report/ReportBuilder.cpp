// SPDX-License-Identifier: Apache-2.0
#include "player/report/ReportBuilder.h"

#include <algorithm>
#include <utility>

#include "player/report/ReportVerdict.h"

namespace korvane::player {
namespace {

FrameAt frameAt(const FrameEntry& frame, int64_t timeNs, const PlaybackRecord& soFar) {
    return {frame.frameNo, timeNs / 1000 - soFar.startNs / 1000};
}

}  // namespace

ReportBuilder::ReportBuilder(double nominalHz, const PlaybackPlan& plan,
                             std::vector<CadenceListener*> listeners)
    : mPlan(plan), mListeners(std::move(listeners)), mRate(nominalHz) {
    mSummary.displayHz = trueHz(plan.tv.display.rateHz);
}

/// A display's vsyncs per second: its nominal rate with the drift of its crystal.
double ReportBuilder::trueHz(double nominalHz) const {
    return nominalHz * (1.0 + mPlan.tv.display.driftPpm * 1e-6);
}

/// Where audio leads the clock, its drift makes pictures come faster or slower.
ExpectedCadence ReportBuilder::expectedFor(const ContentSpan& content, double displayHz) const {
    const bool audioLeads = mPlan.withAudio && !mPlan.passthrough;
    const double speed = audioLeads ? 1.0 + mPlan.audio.driftPpm * 1e-6 : 1.0;
    return expectedCadence(content.hz * speed, displayHz, content.cycle);
}

void ReportBuilder::onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) {
    ++mSummary.framesIn;
    mRate.add(frame.section, frame.mediaTimeUs);
    mWaiting.push_back(frame);
    processKnown(soFar);
}

void ReportBuilder::processKnown(const PlaybackRecord& soFar) {
    while (const auto pace = mRate.take()) {
        process({mWaiting.front(), *pace}, soFar);
        mWaiting.pop_front();
    }
}

std::optional<FrameAt> ReportBuilder::firstUnexpected() const {
    for (const auto& stretch : mSummary.stretches) {
        if (!stretch.breaks.empty()) {
            return stretch.firstOut;
        }
    }
    return mStretch ? mStretch->firstOut() : std::nullopt;
}

Summary ReportBuilder::finish(const PlaybackRecord& record) {
    mRate.end();
    processKnown(record);
    endStretch(record);
    for (CadenceListener* listener : mListeners) {
        listener->onJudgedUpTo(INT64_MAX);
    }
    SpanFrames most;
    for (const auto& [hz, span] : mFramesByHz) {
        most = span.frames > most.frames ? span : most;
    }
    mSummary.contentHz = most.content.hz;
    mSummary.variableRate = mFramesByHz.size() > 1;
    mSummary.expected = expectedFor(most.content, mSummary.displayHz);
    mJudder.ended(mLastReleasedUs);
    mSummary.judder = mJudder.report();
    mSummary.splices = mSplices.splices();
    mSummary.lipSync = mLipSync.result();
    mSummary.offset = mOffsets.report();
    mSummary.longestResume = mResumes.longest();
    mSummary.backToPlayerNs = mBackToPlayer.spread();
    sumUpStretches();
    giveVerdict(record, &mSummary);
    return mSummary;
}

void ReportBuilder::process(const PacedFrame& paced, const PlaybackRecord& soFar) {
    SpanFrames& span = mFramesByHz[paced.pace.hz];
    ++span.frames;
    span.content = mRate.span();
    followStretches(paced, soFar);
    mStretch->add(paced.frame, soFar);
    const FrameEntry& frame = paced.frame;
    const bool shown = frame.outcome == Outcome::Shown;
    mSplices.add(frame, shown ? frameAt(frame, frame.record->firstVsync.timeNs, soFar) : FrameAt(),
                 paced.pace.hz > 0.0 ? static_cast<int64_t>(1e6 / paced.pace.hz) : 0,
                 static_cast<int64_t>(1e6 / mStretch->displayHz()));
    count(frame, soFar);
    for (CadenceListener* listener : mListeners) {
        listener->onJudgedUpTo(std::min(mStretch->judgedUpTo(), frame.frameNo + 1));
    }
}

/// A frame of a new section, the first one of a new content rate, or the first one on screen at a
/// new display rate begins a stretch.
void ReportBuilder::followStretches(const PacedFrame& paced, const PlaybackRecord& soFar) {
    const FrameEntry& frame = paced.frame;
    const double displayHz = mStretch ? mStretch->displayHz() : mSummary.displayHz;
    if (!mStretch || frame.section != mStretch->section()) {
        beginStretch(paced, StretchBegin::Section, displayHz, -1, soFar);
    } else if (paced.pace.span != mSpan) {
        beginStretch(paced, StretchBegin::RateChange, displayHz, -1, soFar);
    }
    const auto& changes = mPlan.modeChanges;
    while (frame.outcome == Outcome::Shown && mModeChanges < changes.size() &&
           frame.record->firstVsync.timeNs >= soFar.startNs + changes[mModeChanges].atUs * 1000) {
        const ModeChange& change = changes[mModeChanges++];
        beginStretch(paced, StretchBegin::ModeChange, trueHz(change.rateHz),
                     soFar.startNs / 1000 + change.atUs, soFar);
    }
}

void ReportBuilder::beginStretch(const PacedFrame& paced, StretchBegin begin, double displayHz,
                                 int64_t beganUs, const PlaybackRecord& soFar) {
    endStretch(soFar);
    mSpan = paced.pace.span;
    mStretchFrom = paced.frame.frameNo;
    mStretch.emplace(paced.frame.section, begin, expectedFor(mRate.span(), displayHz), beganUs,
                     mPatterns, mListeners);
}

void ReportBuilder::endStretch(const PlaybackRecord& soFar) {
    if (mStretch) {
        const auto report = mStretch->finish(soFar);
        for (CadenceListener* listener : mListeners) {
            listener->onStretch(mStretchFrom, report ? &*report : nullptr);
        }
        if (report) {
            mSummary.stretches.push_back(*report);
        }
        mStretch.reset();
    }
}

void ReportBuilder::count(const FrameEntry& frame, const PlaybackRecord& soFar) {
    const auto outcome = static_cast<size_t>(frame.outcome);
    const FrameAt sent = frameAt(frame, frame.sentNs, soFar);
    if (mSummary.outcomes[outcome]++ == 0) {
        mSummary.firstOf[outcome] = sent;
    }
    mSummary.sentLate += frame.sentLate ? 1 : 0;
    mSummary.refusedByTunnel += frame.refusedByTunnel() ? 1 : 0;
    countJudder(frame, soFar);
    if (frame.outcome == Outcome::Dropped) {
        DropGroup& group = mSummary.drops[frame.dropReason];
        group.first = group.runs.frames == 0 ? sent : group.first;
        group.runs.add(frame.frameNo);
        group.fromLog += frame.dropEvidence == DropEvidence::LogLine ? 1 : 0;
    } else if (frame.outcome == Outcome::Shown) {
        countShown(frame, soFar);
    }
}

void ReportBuilder::countShown(const FrameEntry& frame, const PlaybackRecord& soFar) {
    const tv::BufferRecord& record = *frame.record;
    const int64_t shownUs = record.firstVsync.timeNs / 1000;
    const FrameAt shown = frameAt(frame, record.firstVsync.timeNs, soFar);
    ++mSummary.dwells[static_cast<int>(record.dwellVsyncs)];
    mSummary.fences += record.fenceSignalNs != 0 ? 1 : 0;
    countLipSync(frame, shown);
    if (frame.clockRealUs && !record.atOnce) {
        mOffsets.add(shownUs - *frame.clockRealUs, shown);
    }
    if (frame.returns > 0 && record.releasedNs > 0) {
        mBackToPlayer.add(frame.returnedNs - record.releasedNs);
    }
    mResumes.add(shownUs, shown, soFar.clockStops);
}

/// A flush and a pause of the player end what can be compared; so does a picture shown at once,
/// which waits for audio.
void ReportBuilder::countJudder(const FrameEntry& frame, const PlaybackRecord& soFar) {
    if (frame.outcome == Outcome::Dropped || frame.outcome == Outcome::Superseded) {
        mJudder.skipped(frame.mediaTimeUs);
        return;
    }
    if (frame.outcome != Outcome::Shown) {
        mJudder.restart();
        return;
    }
    const int64_t shownUs = frame.record->firstVsync.timeNs / 1000;
    const auto& stops = soFar.clockStops;
    const bool paused =
        std::any_of(stops.rbegin(), stops.rend(), [this, shownUs](const ClockStop& stop) {
            return stop.byPlayer && stop.fromUs < shownUs &&
                   (stop.toUs == 0 || stop.toUs > mLastShownUs);
        });
    if (paused || frame.section != mJudderSection) {
        mJudder.restart();
    }
    mJudder.shown(frame.frameNo, frame.mediaTimeUs, shownUs);
    if (frame.record->atOnce) {
        mJudder.restart();
    }
    mLastShownUs = shownUs;
    mLastReleasedUs = frame.record->releasedNs / 1000;
    mJudderSection = frame.section;
}

void ReportBuilder::countLipSync(const FrameEntry& frame, const FrameAt& shown) {
    const auto lipSync = lipSyncUs(frame);
    if (!lipSync) {
        return;
    }
    mLipSync.add(*lipSync, frame.heardForUs, shown);
    if (!frame.record->atOnce) {
        mLipSync.addDisplayWait(frame.record->firstVsync.timeNs / 1000 -
                                frame.record->presentationTimeUs);
    }
}

void ReportBuilder::sumUpStretches() {
    for (const auto& stretch : mSummary.stretches) {
        mSummary.byArithmetic += static_cast<int64_t>(stretch.cadence.byArithmetic);
        mSummary.unexpected += static_cast<int64_t>(stretch.cadence.unexpected);
        mSummary.disturbances += stretch.disturbances;
        if (mSummary.firstBreakUs < 0) {
            mSummary.firstBreakUs = stretch.firstBreakUs;
        }
        if (!stretch.wrongPattern.empty()) {
            mSummary.wrongPattern = stretch.wrongPattern;
        }
        if (stretch.ongoing.lengthUs() > mSummary.ongoing.lengthUs()) {
            mSummary.ongoing = stretch.ongoing;
            mSummary.ongoing.toEnd &= &stretch == &mSummary.stretches.back();
        }
        for (const auto& [cause, dwells] : stretch.causes) {
            mSummary.causes[cause] += dwells;
            mSummary.askedFor += askedFor(cause) ? dwells : 0;
        }
        mSummary.cadenceDwells.insert(stretch.firstByDwell.begin(), stretch.firstByDwell.end());
        for (const auto& [dwell, frames] : stretch.unjudged) {
            mSummary.unjudged[dwell] += frames;
        }
    }
}

}  // namespace korvane::player
