// SPDX-License-Identifier: Apache-2.0
// What the player calls in the library, with the arguments that the plan asks for. LibraryCallbacks
// is the way back.
//
//   create   a renderer, with a video tunnel and the sync instance that is playback's clock: the
//            player's own with audio or in pass-through, else one that the library creates
//   anchor   sets the clock to a media time, where audio does not do it
//   send     one frame, with what the plan wants done at a section's first one
//   flush    all frames come back
//   stop     so they do; a new renderer, or the same one, may start afterwards
//
// Player's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "VideoTunnelRenderer.h"
#include "player/playback/LibraryCallbacks.h"
#include "player/playback/PlaybackPlan.h"
#include "tv/Tv.h"

namespace korvane::player {

/// A frame as the library takes it.
struct LibraryFrame {
    int fd = -1;
    size_t bytes = 0;
    int64_t mediaTimeUs = 0;
    bool first = false;  ///< of its section
};

class LibraryCalls {
public:
    /// All must outlive the object; exceptions in callbacks go to `failure`.
    LibraryCalls(const PlaybackPlan& plan, BufferPool* pool, FrameLedger* ledger,
                 FailureSlot* failure)
        : mPlan(plan), mCallbacks(plan, pool, ledger, failure) {}

    /// Replaces the renderer, if there is one.
    /// @throws std::runtime_error when the library gives no renderer, or the TV no tunnel
    void create(tv::Tv& tv);
    /// Destroys it.
    void destroy() { mRenderer.reset(); }
    /// @param audio  null: playback has none
    void setAudio(const AudioFeeder* audio) { mCallbacks.setAudio(audio); }

    void start() { mRenderer->start(); }
    /// Does nothing without a renderer.
    void stop();
    void anchor(int64_t mediaTimeUs);
    /// @throws std::runtime_error when the library has no memory for it
    void send(const LibraryFrame& frame);
    /// With audio the library holds a lone picture back until a second one comes. When none will,
    /// this asks for it to be shown.
    void showLonePicture();
    /// @param lastSentUs  media time of the last frame sent
    void flush(int64_t lastSentUs);

    int tunnelId() const { return mTunnelId; }
    /// Set from `create` on.
    const std::shared_ptr<tv::SyncInstance>& clock() const { return mClock; }

private:
    struct Delete {
        void operator()(VideoTunnelRenderer* renderer) const { delete renderer; }
    };

    const PlaybackPlan& mPlan;
    std::shared_ptr<tv::SyncInstance> mClock;
    LibraryCallbacks mCallbacks;
    std::unique_ptr<VideoTunnelRenderer, Delete> mRenderer;
    int mTunnelId = -1;
};

}  // namespace korvane::player
