// SPDX-License-Identifier: Apache-2.0
#include "tv/AudioModel.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace korvane::tv {
namespace {

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

AudioConfig sane(AudioConfig config) {
    config.stepUs = std::max<int64_t>(config.stepUs, 1);
    const auto earlier = [](const auto& a, const auto& b) { return a.atMediaUs < b.atMediaUs; };
    std::sort(config.underflows.begin(), config.underflows.end(), earlier);
    std::sort(config.stepBacks.begin(), config.stepBacks.end(), earlier);
    return config;
}

}  // namespace

const char* toString(AudioState state) {
    switch (state) {
        case AudioState::Waiting:
            return "waiting";
        case AudioState::Playing:
            return "playing";
        case AudioState::Paused:
            return "paused";
        case AudioState::Underflow:
            return "underflow";
        case AudioState::Ended:
            return "ended";
    }
    return "?";
}

AudioModel::AudioModel(std::shared_ptr<SyncInstance> instance, const AudioConfig& config)
    : mInstance(std::move(instance)), mConfig(sane(config)), mCorrectionRealUs(kNever) {}

void AudioModel::queue(int64_t mediaTimeUs, int64_t durationUs, int64_t nowUs) {
    if (!mHasPackets) {
        mHasPackets = true;
        mFirstPacketRealUs = nowUs;
        mFirstMediaUs = mediaTimeUs;
        mBufferedEndUs = mediaTimeUs;
    }
    mBufferedEndUs = std::max(mBufferedEndUs, mediaTimeUs + durationUs);
}

void AudioModel::endOfStream() {
    mEndOfStream = true;
}

void AudioModel::pause(int64_t nowUs) {
    step(nowUs);
    if (!mPaused && (mState == AudioState::Playing || mState == AudioState::Ended)) {
        stopSound(mediaAt(nowUs), nowUs);
        stepDraining(nowUs);
    }
    mPaused = true;
}

void AudioModel::resume(int64_t nowUs) {
    step(nowUs);
    if (mPaused && (mState == AudioState::Playing || mState == AudioState::Ended)) {
        goOn(nowUs);
    }
    mPaused = false;
}

void AudioModel::flush(int64_t nowUs) {
    recordSilence(nowUs);
    mSoundAheadUs = 0;
    mState = AudioState::Waiting;
    mHasPackets = false;
    mEndOfStream = false;
    mDraining = false;
    mCorrectionRealUs = kNever;
    mReport.startedRealUs = -1;
    mReport.startedMediaUs = -1;
    mReport.positionUs = -1;
}

void AudioModel::setDriftPpm(double driftPpm, int64_t nowUs) {
    step(nowUs);
    const int64_t trackUs = mReferenceMediaUs + mSteps * mConfig.stepUs;
    mReferenceRealUs = realAt(trackUs);
    mReferenceMediaUs = trackUs;
    mSteps = 0;
    mConfig.driftPpm = driftPpm;
    if (mSound.mediaAt(nowUs)) {
        recordSound(mReferenceRealUs);
    }
}

int64_t AudioModel::step(int64_t nowUs) {
    if (mConfig.neverStarts) {
        return kNever;
    }
    if (mPaused) {
        return stepDraining(nowUs);
    }
    // A step can change the state; then the new state is stepped at the same time.
    for (;;) {
        const AudioState before = mState;
        const int64_t nextUs = stepState(nowUs);
        if (mState == before) {
            return nextUs;
        }
    }
}

int64_t AudioModel::stepState(int64_t nowUs) {
    switch (mState) {
        case AudioState::Waiting:
            return stepWaiting(nowUs);
        case AudioState::Underflow:
            return stepUnderflow(nowUs);
        default:
            return stepPlaying(nowUs);
    }
}

int64_t AudioModel::stepWaiting(int64_t nowUs) {
    if (!mHasPackets) {
        return mEndOfStream ? stepEmpty(nowUs) : kNever;
    }
    if (!enoughBuffered(mFirstMediaUs)) {
        return kNever;
    }
    const int64_t startUs = mFirstPacketRealUs + mConfig.startDelayUs;
    if (nowUs < startUs) {
        return startUs;
    }
    begin(mFirstMediaUs, nowUs);
    mState = AudioState::Playing;
    mReport.startedRealUs = nowUs;
    mReport.startedMediaUs = mFirstMediaUs;
    return nowUs;
}

/// Without a packet, the only media time to start at is the one at which video waits.
int64_t AudioModel::stepEmpty(int64_t nowUs) {
    const int64_t clockMediaUs = mInstance->mediaTimeAt(nowUs);
    if (clockMediaUs == -1 || !mInstance->paused()) {
        return nowUs + mConfig.stepUs;
    }
    mBufferedEndUs = clockMediaUs;
    begin(clockMediaUs, nowUs);
    mState = AudioState::Ended;
    return nowUs;
}

int64_t AudioModel::stepUnderflow(int64_t nowUs) {
    const bool refilled = nowUs >= mFaultEndsUs && enoughBuffered(mStoppedMediaUs);
    if (!refilled || mFaultEndsUs >= mSilentRealUs) {
        const int64_t nextUs = stepDraining(nowUs);
        if (!refilled) {
            return nowUs < mFaultEndsUs ? std::min(mFaultEndsUs, nextUs) : nextUs;
        }
    }
    goOn(nowUs);
    mState = AudioState::Playing;
    return nowUs;
}

/// Plays out what an external receiver still holds, then pauses the clock.
/// @return when to continue, or INT64_MAX when the receiver is silent
int64_t AudioModel::stepDraining(int64_t nowUs) {
    if (!mDraining) {
        return kNever;
    }
    if (nowUs < mSilentRealUs) {
        return std::min(advanceTrack(nowUs), mSilentRealUs);
    }
    mDraining = false;
    mCorrectionRealUs = kNever;
    mReport.positionUs = mStoppedMediaUs;
    recordSilence(mSilentRealUs);
    mInstance->pauseFromAudio(mStoppedMediaUs, mSilentRealUs);
    return kNever;
}

int64_t AudioModel::stepPlaying(int64_t nowUs) {
    int64_t nextUs = stepBack(nowUs);
    if (mState == AudioState::Playing) {
        const int64_t limit = limitUs();
        const int64_t stopUs = realAt(limit);
        nextUs = std::min(nextUs, stopUs);
        if (nowUs >= stopUs) {
            if (mEndOfStream && nextFault() == nullptr) {
                recordSilence(stopUs);
                mState = AudioState::Ended;
            } else {
                underflow(limit, stopUs);
            }
            return nowUs;
        }
    }
    return std::min(advanceTrack(nowUs), nextUs);
}

/// Moves the reference for each step back that is due.
/// @return when the next one is due, or INT64_MAX if the sound stops before it
int64_t AudioModel::stepBack(int64_t nowUs) {
    for (;;) {
        const auto next = std::find_if(
            mConfig.stepBacks.begin(), mConfig.stepBacks.end(),
            [this](const auto& fault) { return fault.atMediaUs >= mReferenceMediaUs; });
        if (next == mConfig.stepBacks.end() || next->atMediaUs > limitUs()) {
            return kNever;
        }
        const int64_t atRealUs = realAt(next->atMediaUs);
        if (nowUs < atRealUs) {
            return atRealUs;
        }
        mReferenceMediaUs = next->atMediaUs - next->byUs;
        mReferenceRealUs = atRealUs;
        mSoundAheadUs += next->byUs;
        mSteps = 0;
        mConfig.stepBacks.erase(next);
        reportTrack(mReferenceMediaUs, nowUs);
    }
}

/// Reports the whole periods that have come out.
/// @return when the next one will have come out
int64_t AudioModel::advanceTrack(int64_t nowUs) {
    const int64_t steps = (mediaAt(nowUs) - mReferenceMediaUs) / mConfig.stepUs;
    if (steps > mSteps) {
        mSteps = steps;
        reportTrack(mReferenceMediaUs + steps * mConfig.stepUs, nowUs);
    }
    if (nowUs >= mCorrectionRealUs) {
        mCorrectionRealUs = kNever;
        reanchor(nowUs);
    }
    return std::min(realAt(mReferenceMediaUs + (mSteps + 1) * mConfig.stepUs), mCorrectionRealUs);
}

void AudioModel::reportTrack(int64_t trackUs, int64_t nowUs) {
    if (!mInstance->stepFromAudio(trackUs)) {
        begin(mediaAt(nowUs), nowUs);
        return;
    }
    mReport.positionUs = trackUs;
    if (mCorrectionRealUs == kNever && driftedAway(nowUs)) {
        reanchor(nowUs);
    }
}

bool AudioModel::driftedAway(int64_t nowUs) const {
    return std::llabs(mediaAt(nowUs) - mInstance->mediaTimeAt(nowUs)) >
           mInstance->updateThresholdUs();
}

void AudioModel::reanchor(int64_t nowUs) {
    const int64_t clockUs = mInstance->mediaTimeAt(nowUs);
    ++mReport.reanchors;
    if (!mInstance->anchorFromAudio(mediaAt(nowUs), nowUs)) {
        mReferenceMediaUs = clockUs;  // video leads: skip or wait to follow it
        mReferenceRealUs = nowUs;
        mSteps = 0;
        recordSound(nowUs);
    }
}

/// After a pause or an underflow. If a receiver is still draining, the sound never stopped.
void AudioModel::goOn(int64_t nowUs) {
    if (mDraining) {
        mDraining = false;
    } else {
        begin(mStoppedMediaUs, nowUs, mConfig.latencyJumpUs);
    }
}

/// Starts the sound at a media time and takes the clock, with an error of `clockOffUs`.
void AudioModel::begin(int64_t mediaUs, int64_t nowUs, int64_t clockOffUs) {
    mReferenceMediaUs = mediaUs;
    mCorrectionRealUs = kNever;
    if (!mInstance->takeFromAudio(mediaUs, nowUs + clockOffUs)) {
        mReferenceMediaUs = mInstance->mediaTimeAt(nowUs);
    } else if (clockOffUs != 0) {
        mCorrectionRealUs = nowUs + mConfig.latencyJumpForUs;
    }
    mReferenceRealUs = nowUs;
    mSteps = 0;
    mReport.positionUs = mReferenceMediaUs;
    recordSound(nowUs);
}

/// The sound goes on from the reference.
void AudioModel::recordSound(int64_t nowUs) {
    const int64_t mediaUs = mReferenceMediaUs + mSoundAheadUs;
    if (mState != AudioState::Ended && mediaUs < mBufferedEndUs) {
        mSound.begin(nowUs, mediaUs, 1.0 + mConfig.driftPpm * 1e-6);
    }
}

/// The sound stops now, or stopped earlier at the end of what was buffered.
void AudioModel::recordSilence(int64_t fromRealUs) {
    mSound.end(std::min(fromRealUs, realAt(mBufferedEndUs - mSoundAheadUs)));
}

void AudioModel::underflow(int64_t atMediaUs, int64_t atRealUs) {
    mFaultEndsUs = atRealUs;
    if (const auto* fault = nextFault(); fault != nullptr && fault->atMediaUs <= atMediaUs) {
        mFaultEndsUs = atRealUs + fault->durationUs;
        mConfig.underflows.erase(mConfig.underflows.begin() + (fault - mConfig.underflows.data()));
    }
    ++mReport.underflows;
    stopSound(atMediaUs, atRealUs);
    mState = AudioState::Underflow;
}

/// Stops the sound; an external receiver may drain what was queued.
void AudioModel::stopSound(int64_t mediaUs, int64_t realUs) {
    mDraining = true;
    mStoppedMediaUs = mediaUs;
    mSilentRealUs = realUs;
    if (mConfig.drainUs > 0) {
        const int64_t drainedMediaUs = mediaAt(realUs + mConfig.drainUs);
        const int64_t queuedMediaUs = mState == AudioState::Ended ? kNever : mBufferedEndUs;
        mStoppedMediaUs = std::max(mediaUs, std::min(drainedMediaUs, queuedMediaUs));
        mSilentRealUs = std::max(realUs, realAt(mStoppedMediaUs));
    }
}

/// The next underflow fault within what is buffered, or null.
const AudioConfig::Underflow* AudioModel::nextFault() const {
    for (const auto& fault : mConfig.underflows) {
        if (fault.atMediaUs >= mReferenceMediaUs) {
            return fault.atMediaUs <= mBufferedEndUs ? &fault : nullptr;
        }
    }
    return nullptr;
}

int64_t AudioModel::limitUs() const {
    if (mState == AudioState::Ended) {
        return kNever;
    }
    const auto* fault = nextFault();
    return fault != nullptr ? fault->atMediaUs : mBufferedEndUs;
}

bool AudioModel::enoughBuffered(int64_t fromMediaUs) const {
    return mEndOfStream ||
           mBufferedEndUs - fromMediaUs >= std::max<int64_t>(mConfig.prebufferUs, 1);
}

int64_t AudioModel::mediaAt(int64_t realUs) const {
    const auto elapsedUs = static_cast<double>(realUs - mReferenceRealUs);
    return mReferenceMediaUs +
           static_cast<int64_t>(std::floor(elapsedUs * (1.0 + mConfig.driftPpm * 1e-6)));
}

/// The first microsecond at which the position has reached a media time.
int64_t AudioModel::realAt(int64_t mediaUs) const {
    const auto aheadUs = static_cast<double>(mediaUs - mReferenceMediaUs);
    int64_t realUs = mReferenceRealUs +
                     static_cast<int64_t>(std::ceil(aheadUs / (1.0 + mConfig.driftPpm * 1e-6)));
    while (mediaAt(realUs) < mediaUs) {
        ++realUs;  // the division's rounding
    }
    return realUs;
}

AudioReport AudioModel::report() const {
    AudioReport report = mReport;
    report.state = mPaused && mState != AudioState::Waiting ? AudioState::Paused : mState;
    return report;
}

std::string AudioModel::dump() const {
    const AudioReport now = report();
    return fmt::format(
        "audio: {} at media {} us, started at media {} us, real {} us; buffered up to {} us{}; {} "
        "underflows, {} re-anchors\n",
        toString(now.state), now.positionUs, now.startedMediaUs, now.startedRealUs, mBufferedEndUs,
        mEndOfStream ? ", the end" : "", now.underflows, now.reanchors);
}

}  // namespace korvane::tv
