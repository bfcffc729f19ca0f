// SPDX-License-Identifier: Apache-2.0
// Feeds the TV's audio side with a source's audio packets, as the audio half of a player would.
//
// One thread reads packets and hands their times over, a few seconds ahead of what sounds. It holds
// the first ones back until the renderer waits with its first picture (it then has stopped the
// clock): a player starts its sound when the picture is ready, and a clock that audio had taken
// before would be stopped by the renderer with nobody left to start it. If the renderer never gets
// there the audio starts all the same after a while.
//
// Sound begins where the picture does, or before. Where a source's first packet comes later than
// that, silence is handed over up to it: the clock follows what sounds, and would otherwise begin
// at that packet, with all pictures before it late.
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
    /// Forgets what is queued and hands nothing more over. Call before the renderer's `flush`:
    /// audio that still plays would release the renderer's new first picture at the old position.
    void hold();
    /// Goes on at a picture's media time, waiting for it again. Call after the renderer's `flush`.
    void restart(int64_t pictureUs);
    /// The player's pause: the sound stops and with it the clock. Any thread.
    void pause();
    void resume();
    /// Ends the thread and the audio side. Idempotent.
    void stop();

    tv::AudioReport report() const;
    /// What was audible until now.
    tv::SoundRecord sound() const { return mOutput.sound(); }

private:
    void run();
    void openAt(int64_t pictureUs) KORVANE_REQUIRES(mLock);
    bool readyForMore() KORVANE_REQUIRES(mLock);
    bool pictureWaits() KORVANE_REQUIRES(mLock);
    void handOverOne() KORVANE_REQUIRES(mLock);
    void handOver(int64_t fromUs, int64_t toUs) KORVANE_REQUIRES(mLock);

    const bool mWaitForPicture;
    std::shared_ptr<tv::SyncInstance> mInstance;
    tv::AudioOutput mOutput;
    const std::unique_ptr<PacketSource> mSource KORVANE_PT_GUARDED_BY(mLock);

    std::mutex mLock;
    std::condition_variable mWake;
    bool mStopping KORVANE_GUARDED_BY(mLock) = false;
    bool mEnded KORVANE_GUARDED_BY(mLock) = false;
    bool mHeld KORVANE_GUARDED_BY(mLock) = false;
    bool mOpened KORVANE_GUARDED_BY(mLock) = false;  ///< the picture waits; packets may go over
    int64_t mOpenBeforeNs KORVANE_GUARDED_BY(mLock) = 0;
    int64_t mPictureUs KORVANE_GUARDED_BY(mLock) = 0;
    int64_t mQueuedUpToUs KORVANE_GUARDED_BY(mLock) = 0;
    int64_t mQueuedFromUs KORVANE_GUARDED_BY(mLock) = -1;
    std::thread mThread;
};

}  // namespace korvane::player
