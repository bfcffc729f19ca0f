#include "player/AudioFeeder.h"

#include <algorithm>
#include <chrono>

#include "tv/Tv.h"

namespace korvane::player {
namespace {

/// Media handed over ahead of what sounds: enough for any start, little to read in vain.
constexpr int64_t kAheadUs = 3'000'000;
/// How often the feeder looks whether more is wanted; far below `kAheadUs`.
constexpr std::chrono::milliseconds kPoll{10};
/// Longest wait for the renderer to stop the clock at its first picture.
constexpr int64_t kPictureWaitNs = 1'000'000'000;

}  // namespace

AudioFeeder::AudioFeeder(const std::string& path, std::shared_ptr<tv::SyncInstance> instance,
                         const tv::AudioConfig& config, bool waitForPicture)
    : mWaitForPicture(waitForPicture),
      mInstance(std::move(instance)),
      mOutput(mInstance, config),
      mReader(path) {}

AudioFeeder::~AudioFeeder() {
    stop();
}

void AudioFeeder::start() {
    mOpenBeforeNs = tv::nowNs() + kPictureWaitNs;
    mThread = std::thread([this] { run(); });
}

void AudioFeeder::hold() {
    const std::lock_guard<std::mutex> guard(mLock);
    mHeld = true;
    mOutput.flush();
}

void AudioFeeder::restart(int64_t mediaTimeUs) {
    const std::lock_guard<std::mutex> guard(mLock);
    // From here on, a stopped clock means that the renderer waits with its new first picture.
    if (mWaitForPicture && mInstance->paused()) {
        mInstance->setPause(false, tv::nowNs() / 1000);
    }
    mReader.seek(mediaTimeUs);
    mQueuedUpToUs = mediaTimeUs;
    mQueuedFromUs = -1;
    mHeld = false;
    mEnded = false;
    mOpened = false;
    mOpenBeforeNs = tv::nowNs() + kPictureWaitNs;
    mWake.notify_one();
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

void AudioFeeder::run() {
    std::unique_lock<std::mutex> lock(mLock);
    while (!mStopping) {
        if (!mHeld && !mEnded && readyForMore()) {
            handOverOne();
        } else {
            mWake.wait_for(lock, kPoll);
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

void AudioFeeder::handOverOne() {
    AudioReader::Packet packet;
    if (mReader.next(&packet) != ReadStatus::Ready) {
        mEnded = true;
        mOutput.endOfStream();
        return;
    }
    mOutput.queue(packet.mediaTimeUs, packet.durationUs);
    mQueuedUpToUs = packet.mediaTimeUs + packet.durationUs;
    if (mQueuedFromUs < 0) {
        mQueuedFromUs = packet.mediaTimeUs;
    }
}

}  // namespace korvane::player
