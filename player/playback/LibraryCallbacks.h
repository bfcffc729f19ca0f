// SPDX-License-Identifier: Apache-2.0
// What comes back from the library, on its threads: buffers, render times, log lines.
//
//   buffer         the ledger notes the frame's return, with the reason if the library dropped it;
//                  then the buffer is free again
//   render time    the ledger notes it, with the time that the clock has for the frame
//   log line       a line that announces a drop is kept, per thread, for the return that follows
//
// `flush` returns buffers on the caller's thread; those are told apart from what the library gives
// up by itself.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "VideoTunnelRenderer.h"
#include "player/playback/AudioFeeder.h"
#include "player/playback/BufferPool.h"
#include "player/playback/FailureSlot.h"
#include "player/playback/FrameLedger.h"
#include "player/playback/PlaybackPlan.h"
#include "tv/Log.h"

namespace korvane::player {

class LibraryCallbacks {
public:
    /// All must outlive the object; exceptions go to `failure`.
    LibraryCallbacks(const PlaybackPlan& plan, BufferPool* pool, FrameLedger* ledger,
                     FailureSlot* failure)
        : mPlan(plan), mPool(*pool), mLedger(*ledger), mFailure(*failure) {}
    LibraryCallbacks(const LibraryCallbacks&) = delete;
    LibraryCallbacks& operator=(const LibraryCallbacks&) = delete;

    /// Registers the callbacks. Call before the renderer starts, as `setAudio`.
    /// @param clock  the sync instance that the renderer uses
    void attach(VideoTunnelRenderer* renderer, std::shared_ptr<tv::SyncInstance> clock);
    /// @param audio  null: playback has none
    void setAudio(const AudioFeeder* audio) { mAudio = audio; }
    /// Calls the renderer's `flush`.
    void flush(VideoTunnelRenderer* renderer);
    /// A frame has been sent: it ends a flush.
    void frameSent() { mFlushing = false; }
    /// Takes a log line, whoever logged it. Any thread.
    static void onLogLine(const tv::LogLine& line);

private:
    static int bufferBack(void* self, void* status) noexcept;
    static int renderTime(void* self, void* time) noexcept;
    template <typename Code>
    int answer(Code code) noexcept;
    void onBufferBack(int fd, bool rendered);
    void onRenderTime(const rendertime& time);
    /// Notes why a frame was returned without being shown, with the values at this time.
    void noteDrop(int64_t mediaTimeUs, ReturnedBuffer* buffer);
    DropValues valuesNow(int64_t mediaTimeUs);

    const PlaybackPlan& mPlan;
    BufferPool& mPool;
    FrameLedger& mLedger;
    FailureSlot& mFailure;
    std::shared_ptr<tv::SyncInstance> mClock;
    const AudioFeeder* mAudio = nullptr;
    std::atomic<bool> mFlushing{false};  ///< from a flush to the next frame sent
};

}  // namespace korvane::player
