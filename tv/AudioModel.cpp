#include "tv/AudioModel.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <limits>

namespace korvane::tv {
namespace {

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

AudioConfig sane(AudioConfig config) {
    config.stepUs = std::max<int64_t>(config.stepUs, 1);
    std::sort(config.underflows.begin(), config.underflows.end(),
              [](const auto& a, const auto& b) { return a.atMediaUs < b.atMediaUs; });
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
    : mInstance(std::move(instance)), mConfig(sane(config)) {}

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
        mStoppedMediaUs = mediaAt(nowUs);
        mReport.positionUs = mStoppedMediaUs;
        mInstance->pauseFromAudio(mStoppedMediaUs, nowUs);
    }
    mPaused = true;
}

void AudioModel::resume(int64_t nowUs) {
    if (mPaused && (mState == AudioState::Playing || mState == AudioState::Ended)) {
        begin(mStoppedMediaUs, nowUs);
    }
    mPaused = false;
}

void AudioModel::flush() {
    mState = AudioState::Waiting;
    mHasPackets = false;
    mEndOfStream = false;
    mReport.startedRealUs = -1;
    mReport.startedMediaUs = -1;
    mReport.positionUs = -1;
}

int64_t AudioModel::step(int64_t nowUs) {
    if (mPaused || mConfig.neverStarts) {
        return kNever;
    }
    // A step can end one state and begin the next; each of those happens once at a given time.
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

/// Without a packet there is no media time to start at but the one at which video waits.
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
    if (nowUs < mFaultEndsUs) {
        return mFaultEndsUs;
    }
    if (!enoughBuffered(mStoppedMediaUs)) {
        return kNever;
    }
    begin(mStoppedMediaUs, nowUs);
    mState = AudioState::Playing;
    return nowUs;
}

int64_t AudioModel::stepPlaying(int64_t nowUs) {
    int64_t stopUs = kNever;
    if (mState == AudioState::Playing) {
        const int64_t limit = limitUs();
        stopUs = realAt(limit);
        if (nowUs >= stopUs) {
            if (mEndOfStream && nextFault() == nullptr) {
                mState = AudioState::Ended;
            } else {
                underflow(limit, stopUs);
            }
            return nowUs;
        }
    }
    return std::min(advanceTrack(nowUs), stopUs);
}

/// Reports the whole periods that have come out.
/// @return when the next one will have
int64_t AudioModel::advanceTrack(int64_t nowUs) {
    const int64_t steps = (mediaAt(nowUs) - mReferenceMediaUs) / mConfig.stepUs;
    if (steps > mSteps) {
        mSteps = steps;
        const int64_t trackUs = mReferenceMediaUs + steps * mConfig.stepUs;
        if (mInstance->stepFromAudio(trackUs)) {
            mReport.positionUs = trackUs;
            followDrift(nowUs);
        } else {
            begin(mediaAt(nowUs), nowUs);
        }
    }
    return realAt(mReferenceMediaUs + (mSteps + 1) * mConfig.stepUs);
}

void AudioModel::followDrift(int64_t nowUs) {
    const int64_t positionUs = mediaAt(nowUs);
    const int64_t clockUs = mInstance->mediaTimeAt(nowUs);
    if (std::llabs(positionUs - clockUs) <= mInstance->updateThresholdUs()) {
        return;
    }
    ++mReport.reanchors;
    if (!mInstance->anchorFromAudio(positionUs, nowUs)) {
        mReferenceMediaUs = clockUs;  // video leads: skip or wait, to be where it is
        mReferenceRealUs = nowUs;
        mSteps = 0;
    }
}

/// Sound comes out from this media time on, now; the clock is audio's.
void AudioModel::begin(int64_t mediaUs, int64_t nowUs) {
    mReferenceMediaUs = mediaUs;
    if (!mInstance->takeFromAudio(mediaUs, nowUs)) {
        mReferenceMediaUs = mInstance->mediaTimeAt(nowUs);
    }
    mReferenceRealUs = nowUs;
    mSteps = 0;
    mReport.positionUs = mReferenceMediaUs;
}

void AudioModel::underflow(int64_t atMediaUs, int64_t atRealUs) {
    mFaultEndsUs = atRealUs;
    if (const auto* fault = nextFault(); fault != nullptr && fault->atMediaUs <= atMediaUs) {
        mFaultEndsUs = atRealUs + fault->durationUs;
        mConfig.underflows.erase(mConfig.underflows.begin() + (fault - mConfig.underflows.data()));
    }
    mState = AudioState::Underflow;
    mStoppedMediaUs = atMediaUs;
    mReport.positionUs = atMediaUs;
    ++mReport.underflows;
    mInstance->pauseFromAudio(atMediaUs, atRealUs);
}

/// The next fault on the way, if it comes before what is buffered ends.
const AudioConfig::Underflow* AudioModel::nextFault() const {
    for (const auto& fault : mConfig.underflows) {
        if (fault.atMediaUs >= mReferenceMediaUs) {
            return fault.atMediaUs <= mBufferedEndUs ? &fault : nullptr;
        }
    }
    return nullptr;
}

int64_t AudioModel::limitUs() const {
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
    char text[320];
    std::snprintf(text, sizeof(text),
                  "audio: %s at media %" PRId64 " us, started at media %" PRId64
                  " us, real %" PRId64 " us; buffered up to %" PRId64 " us%s; %" PRId64
                  " underflows, %" PRId64 " re-anchors\n",
                  toString(now.state), now.positionUs, now.startedMediaUs, now.startedRealUs,
                  mBufferedEndUs, mEndOfStream ? ", the end" : "", now.underflows, now.reanchors);
    return text;
}

}  // namespace korvane::tv
