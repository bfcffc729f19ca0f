// SPDX-License-Identifier: Apache-2.0
#include "player/playback/FeedSchedule.h"

#include <algorithm>

namespace korvane::player {
namespace {

/// Longest wait before the player's thread looks again.
constexpr int64_t kTickNs = 20'000'000;
/// The same while something depends on the position shown or on the last frame.
constexpr int64_t kFineTickNs = 5'000'000;
/// Playback counts as stalled when something is due and the library gives no sign of life for this
/// long, beyond the longest wait that the plan asks for.
constexpr int64_t kStallNs = 5'000'000'000;
/// Longest wait for the last frame to come on screen after it has left the library.
constexpr int64_t kLastFrameNs = 1'000'000'000;
/// The library's lead when it hands a frame to the tunnel, beside two vsyncs.
constexpr int64_t kLibraryLeadUs = 5000;

}  // namespace

bool isTooLate(int64_t realUs, int64_t nowUs, double vsyncPeriodNs) {
    return realUs - nowUs < static_cast<int64_t>(2 * vsyncPeriodNs / 1000) + kLibraryLeadUs;
}

FeedSchedule::FeedSchedule(const PlaybackPlan& plan, int64_t frameUs)
    : mPlan(plan),
      mFrameUs(frameUs),
      mSeeks(plan.seeks.begin(), plan.seeks.end()),
      mStalls(plan.stalls.begin(), plan.stalls.end()) {}

FeedStep FeedSchedule::next(const FeedState& state) {
    FeedStep step;
    if (ends(state, &step.end)) {
        step.action = FeedAction::End;
        return step;
    }
    if (state.held) {
        step.waitNs = kFineTickNs;
    } else if (seekDue(state)) {
        step.action = FeedAction::Seek;
        step.seek = mSeeks.front();
        mSeeks.pop_front();
        if (mStallEndsNs != 0 && !step.seek.inPlace) {
            endStall();
        }
    } else if (restartDue(state.nowNs)) {
        step.action = FeedAction::Restart;
        mRestarted = true;
    } else if (!state.sourceEnded) {
        step = feed(state);
    } else if (complete(state)) {
        step.action = FeedAction::End;
    } else {
        step.waitNs = untilNextLookNs(state);
    }
    return step;
}

void FeedSchedule::sent(int64_t mediaUs) {
    mSection.firstUs = mSection.frames++ == 0 ? mediaUs : mSection.firstUs;
    mSection.lastUs = mediaUs;
}

void FeedSchedule::leaveSection() {
    mSentBeforeUs += mSection.frames > 0 ? mSection.lastUs - mSection.firstUs + mFrameUs : 0;
    mSection = {};
    mLibraryEmptyNs = 0;
}

bool FeedSchedule::ends(const FeedState& state, EndCause* cause) {
    if (state.interrupted) {
        *cause = EndCause::Interrupted;
        return true;
    }
    if (mStartNs == 0) {
        return false;
    }
    if (state.quit || (mPlan.stopAtUs && state.nowNs >= atPlaybackTime(*mPlan.stopAtUs))) {
        *cause = EndCause::Stopped;
        return true;
    }
    mNothingDueNs = state.dueNs > state.nowNs ? state.nowNs : mNothingDueNs;
    const int64_t stillNs = state.nowNs - std::max(state.lastMoveNs, mNothingDueNs);
    if (nextActionNs() == kNever && stillNs > kStallNs + mPlan.longestWaitUs * 1000) {
        *cause = EndCause::Stalled;
        return true;
    }
    return false;
}

bool FeedSchedule::seekDue(const FeedState& state) const {
    if (mSeeks.empty() || mStartNs == 0) {
        return false;
    }
    const SeekAction& seek = mSeeks.front();
    const bool stalled = mStallEndsNs != 0 && state.positionUs >= 0;
    const int64_t positionUs =
        stalled ? std::max(state.positionUs, state.clockUs) : state.positionUs;
    return seek.atPosition ? mSection.frames > 0 && positionUs >= seek.atUs
                           : state.nowNs >= atPlaybackTime(seek.atUs);
}

bool FeedSchedule::restartDue(int64_t nowNs) const {
    return mPlan.restartAtUs && !mRestarted && mStartNs != 0 &&
           nowNs >= atPlaybackTime(*mPlan.restartAtUs);
}

/// What to do with the next picture now.
FeedStep FeedSchedule::feed(const FeedState& state) {
    FeedStep step;
    if (!state.havePicture) {
        step.action = FeedAction::Decode;
    } else if (overLimit(state.pictureUs)) {
        step.action = FeedAction::EndSource;
    } else if (stalls(state)) {
        step.waitNs = untilNextLookNs(state);
    } else if (const int64_t waitNs = pictureWaitNs(state); waitNs > 0) {
        step.waitNs = std::min(waitNs, untilNextLookNs(state));
    } else {
        step.action = FeedAction::Send;
        step.waitNs = untilNextLookNs(state);
    }
    return step;
}

bool FeedSchedule::overLimit(int64_t pictureUs) const {
    const int64_t inSectionUs = mSection.frames > 0 ? pictureUs - mSection.firstUs : 0;
    return mPlan.limitUs && mSentBeforeUs + inSectionUs >= *mPlan.limitUs;
}

/// A stall begins once all pictures before it have been shown, so that the library runs out of
/// pictures.
bool FeedSchedule::stalls(const FeedState& state) {
    if (mStalls.empty() || state.pictureUs < mStalls.front().atUs) {
        return false;
    }
    if (mStallEndsNs == 0 && (state.inLibrary == 0 || state.positionUs < 0)) {
        mStallEndsNs = state.nowNs + mStalls.front().durationUs * 1000;
    }
    if (mStallEndsNs == 0 || state.nowNs < mStallEndsNs) {
        return true;
    }
    endStall();
    return false;
}

void FeedSchedule::endStall() {
    mStalls.pop_front();
    mStallEndsNs = 0;
}

/// How long the decoder still takes for the picture, or delivers nothing at all.
int64_t FeedSchedule::pictureWaitNs(const FeedState& state) const {
    int64_t readyNs = state.pictureReadyNs;
    for (const auto& gap : mPlan.gaps) {
        const bool inGap = mStartNs != 0 && state.nowNs >= atPlaybackTime(gap.atUs) &&
                           state.nowNs < atPlaybackTime(gap.untilUs);
        readyNs = inGap ? std::max(readyNs, atPlaybackTime(gap.untilUs)) : readyNs;
    }
    return readyNs - state.nowNs;
}

/// A planned stop is not waited for. The last frame is, but not for ever: the TV may never show it.
bool FeedSchedule::complete(const FeedState& state) {
    const bool seekPlanned = !mSeeks.empty() && !mSeeks.front().atPosition;
    if (state.inLibrary > 0 || seekPlanned || (mPlan.restartAtUs && !mRestarted)) {
        mLibraryEmptyNs = 0;
        return false;
    }
    if (mLibraryEmptyNs == 0) {
        mLibraryEmptyNs = state.nowNs;
    }
    return state.lastFrameShown || state.nowNs - mLibraryEmptyNs > kLastFrameNs;
}

/// When the next action is due that is planned for a time.
int64_t FeedSchedule::nextActionNs() const {
    int64_t nextNs = kNever;
    if (!mSeeks.empty() && !mSeeks.front().atPosition) {
        nextNs = std::min(nextNs, atPlaybackTime(mSeeks.front().atUs));
    }
    if (mPlan.restartAtUs && !mRestarted) {
        nextNs = std::min(nextNs, atPlaybackTime(*mPlan.restartAtUs));
    }
    if (mPlan.stopAtUs) {
        nextNs = std::min(nextNs, atPlaybackTime(*mPlan.stopAtUs));
    }
    return nextNs;
}

int64_t FeedSchedule::untilNextLookNs(const FeedState& state) const {
    const bool atPosition = !mStalls.empty() || (!mSeeks.empty() && mSeeks.front().atPosition);
    const int64_t tickNs = atPosition || state.sourceEnded ? kFineTickNs : kTickNs;
    return mStartNs == 0 ? tickNs : std::clamp<int64_t>(nextActionNs() - state.nowNs, 0, tickNs);
}

}  // namespace korvane::player
