// SPDX-License-Identifier: Apache-2.0
#include "player/playback/AudioFeeder.h"

#include <algorithm>
#include <chrono>

#include "tv/ScopedLock.h"
#include "tv/Tv.h"

namespace korvane::player {
namespace {

/// Media queued ahead of what is audible: enough for any start, little to discard on a seek.
constexpr int64_t kAheadUs = 3'000'000;
/// How often the feeder checks whether the renderer holds its first picture.
constexpr std::chrono::milliseconds kOpeningPoll{10};
/// How often it checks whether to queue more; far below `kAheadUs`.
constexpr std::chrono::milliseconds kPoll{500};
/// Longest wait for the renderer to pause the clock at its first picture.
constexpr int64_t kPictureWaitNs = 1'000'000'000;

}  // namespace

AudioFeeder::AudioFeeder(std::unique_ptr<PacketSource> source,
                         std::shared_ptr<tv::SyncInstance> instance, const tv::AudioConfig& config,
                         bool waitForPicture)
    : mWaitForPicture(waitForPicture),
      mInstance(std::move(instance)),
      mOutput(mInstance, config),
      mSource(std::move(source)) {}

AudioFeeder::~AudioFeeder() {
    stop();
}

void AudioFeeder::start(int64_t pictureUs) {
    {
        const std::lock_guard<std::mutex> guard(mLock);
        openAt(pictureUs);
    }
    mThread = std::thread([this] { run(); });
}

void AudioFeeder::hold() {
    const std::lock_guard<std::mutex> guard(mLock);
    mHeld = true;
    mOutput.flush();
}

void AudioFeeder::restart(int64_t pictureUs) {
    const std::lock_guard<std::mutex> guard(mLock);
    mSource->seek(pictureUs);
    mHeld = false;
    mEnded = false;
    mOpened = false;
    openAt(pictureUs);
    mWake.notify_one();
}

void AudioFeeder::openAt(int64_t pictureUs) {
    mPictureUs = pictureUs;
    mQueuedFromUs = -1;
    mOpenBeforeNs = tv::nowNs() + kPictureWaitNs;
}

void AudioFeeder::pause() {
    mOutput.pause();
}

void AudioFeeder::resume() {
    mOutput.resume();
}

void AudioFeeder::stop() {
    {
        const std::lock_guard<std::mutex> guard(mLock);
        mStopping = true;
        mWake.notify_one();
    }
    if (mThread.joinable()) {
        mThread.join();
    }
    mOutput.stop();
}

tv::AudioReport AudioFeeder::report() const {
    return mOutput.report();
}

int64_t AudioFeeder::soundFromUs() {
    const std::lock_guard<std::mutex> guard(mLock);
    return mSoundFromUs;
}

void AudioFeeder::run() {
    tv::WaitLock lock(mLock);
    while (!mStopping) {
        if (!mHeld && !mEnded && readyForMore()) {
            queueOne();
        } else {
            mWake.wait_for(lock.forWait(), mOpened || mHeld ? kPoll : kOpeningPoll);
        }
    }
}

bool AudioFeeder::readyForMore() {
    if (!mOpened) {
        mOpened = pictureWaits();
        return mOpened;
    }
    const int64_t positionUs = std::max(mOutput.report().positionUs, mQueuedFromUs);
    return mQueuedUpToUs < positionUs + kAheadUs;
}

bool AudioFeeder::pictureWaits() {
    return !mWaitForPicture || mInstance->paused() || tv::nowNs() > mOpenBeforeNs;
}

void AudioFeeder::queueOne() {
    AudioPacket packet;
    if (mSource->next(&packet) != ReadStatus::Ready) {
        mEnded = true;
        mOutput.endOfStream();
        return;
    }
    mSoundFromUs = mSoundFromUs < 0 ? packet.mediaTimeUs : mSoundFromUs;
    if (mQueuedFromUs < 0 && packet.mediaTimeUs > mPictureUs) {
        queue(mPictureUs, packet.mediaTimeUs);
    }
    queue(packet.mediaTimeUs, packet.mediaTimeUs + packet.durationUs);
}

void AudioFeeder::queue(int64_t fromUs, int64_t toUs) {
    mOutput.queue(fromUs, toUs - fromUs);
    mQueuedUpToUs = toUs;
    if (mQueuedFromUs < 0) {
        mQueuedFromUs = fromUs;
    }
}

}  // namespace korvane::player
