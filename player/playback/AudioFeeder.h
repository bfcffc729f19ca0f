// SPDX-License-Identifier: Apache-2.0
// The audio half of the player: queues a source's audio packets to the TV's audio side.
//
// One thread reads packets and queues their times, 3 s ahead of what is audible. It starts when the
// renderer holds its first picture and has paused the clock. If audio took the clock before that,
// the renderer would pause it afterwards, and nobody would resume it. If the renderer does not
// pause the clock within 1 s, audio starts all the same.
//
// Audio begins at the first picture or before. If the source's first packet is later, silence fills
// the gap: the clock follows audio and would otherwise begin at that packet, with every picture
// before it late.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "include/ThreadAnnotations.h"
#include "player/media/FrameSource.h"
#include "tv/AudioOutput.h"

namespace korvane::player {

class AudioFeeder {
public:
    /// @param waitForPicture  false: audio starts by itself (pass-through)
    AudioFeeder(std::unique_ptr<PacketSource> source, std::shared_ptr<tv::SyncInstance> instance,
                const tv::AudioConfig& config, bool waitForPicture);
    ~AudioFeeder();
    AudioFeeder(const AudioFeeder&) = delete;
    AudioFeeder& operator=(const AudioFeeder&) = delete;

    /// Starts reading. Call after the renderer's `start`.
    /// @param pictureUs  media time of the first picture
    void start(int64_t pictureUs);
    /// Forgets what is queued and queues nothing more. Call before the renderer's `flush`: audio
    /// that still plays would start the clock at the old position for the new first picture.
    void hold();
    /// Goes on at a picture's media time; waits for that picture as `start` does. Call after the
    /// renderer's `flush`.
    void restart(int64_t pictureUs);
    /// The player's pause: audio and the clock stop. Any thread.
    void pause();
    void resume();
    /// As `AudioConfig::driftPpm`, from now on.
    void setDriftPpm(double driftPpm) { mOutput.setDriftPpm(driftPpm); }
    /// Ends the thread and the audio side. Idempotent.
    void stop();

    tv::AudioReport report() const;
    /// What was audible until now.
    tv::SoundRecord sound() const { return mOutput.sound(); }
    /// Media time of the first packet that came; -1: none did.
    int64_t soundFromUs();

private:
    void run();
    void openAt(int64_t pictureUs) KORVANE_REQUIRES(mLock);
    bool readyForMore() KORVANE_REQUIRES(mLock);
    bool pictureWaits() KORVANE_REQUIRES(mLock);
    void queueOne() KORVANE_REQUIRES(mLock);
    void queue(int64_t fromUs, int64_t toUs) KORVANE_REQUIRES(mLock);

    const bool mWaitForPicture;
    std::shared_ptr<tv::SyncInstance> mInstance;
    tv::AudioOutput mOutput;
    const std::unique_ptr<PacketSource> mSource KORVANE_PT_GUARDED_BY(mLock);

    std::mutex mLock;
    std::condition_variable mWake;
    bool mStopping KORVANE_GUARDED_BY(mLock) = false;
    bool mEnded KORVANE_GUARDED_BY(mLock) = false;
    bool mHeld KORVANE_GUARDED_BY(mLock) = false;
    bool mOpened KORVANE_GUARDED_BY(mLock) =
        false;  ///< the picture is ready; packets may be queued
    int64_t mOpenBeforeNs KORVANE_GUARDED_BY(mLock) = 0;
    int64_t mPictureUs KORVANE_GUARDED_BY(mLock) = 0;
    int64_t mSoundFromUs KORVANE_GUARDED_BY(mLock) = -1;
    int64_t mQueuedUpToUs KORVANE_GUARDED_BY(mLock) = 0;
    int64_t mQueuedFromUs KORVANE_GUARDED_BY(mLock) = -1;
    std::thread mThread;
};

}  // namespace korvane::player
