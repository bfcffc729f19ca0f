// SPDX-License-Identifier: Apache-2.0
#include "player/playback/PlannedAudio.h"

#include "tv/Tv.h"

namespace korvane::player {

const AudioFeeder* PlannedAudio::create(std::shared_ptr<tv::SyncInstance> clock) {
    if (mPlan.withAudio) {
        mFeeder = std::make_unique<AudioFeeder>(std::move(mSource), std::move(clock), mPlan.audio,
                                                !mPlan.passthrough);
    }
    return mFeeder.get();
}

void PlannedAudio::start(int64_t pictureUs) {
    if (mFeeder) {
        mFeeder->start(pictureUs);
    }
}

void PlannedAudio::hold() {
    if (mFeeder) {
        mFeeder->hold();
    }
}

void PlannedAudio::restart(int64_t pictureUs) {
    if (mFeeder) {
        mFeeder->restart(pictureUs);
    }
}

void PlannedAudio::pauseOrResume(bool paused) {
    if (!mFeeder) {
        mWatch.heldOrReleased(paused, tv::nowNs());
        return;
    }
    mWatch.pausedOrResumed(tv::nowNs());
    paused ? mFeeder->pause() : mFeeder->resume();
}

void PlannedAudio::end(int64_t nowNs) {
    if (mFeeder) {
        mFeeder->stop();
        mRecord.soundFromUs = mFeeder->soundFromUs();
        mRecord.audioUnderflows = mFeeder->report().underflows;
        mRecord.audioReanchors = mFeeder->report().reanchors;
    }
    mWatch.end(nowNs);
}

void PlannedAudio::followDevice(double driftPpm) {
    if (mFeeder && driftPpm != mDeviceDriftPpm) {
        mDeviceDriftPpm = driftPpm;
        mFeeder->setDriftPpm(mPlan.audio.driftPpm + mDeviceDriftPpm);
    }
}

std::optional<tv::AudioState> PlannedAudio::look() {
    return mFeeder ? mWatch.see(mFeeder->report(), tv::nowNs()) : std::nullopt;
}

std::string PlannedAudio::note() const {
    const tv::AudioState state = mWatch.audioState();
    const bool runs = state == tv::AudioState::Playing || state == tv::AudioState::Ended;
    return mFeeder && !runs ? std::string("audio: ") + tv::toString(state) : std::string();
}

tv::SoundRecord PlannedAudio::sound() const {
    return mFeeder ? mFeeder->sound() : tv::SoundRecord();
}

}  // namespace korvane::player
