// SPDX-License-Identifier: Apache-2.0
// What the TV's screen shows at each vsync, with its picture: for recordings, window and live view.
//
//   player's thread   `keep`: a reference to each picture whose buffer goes to the library
//   display's thread  `see`: at each vsync the number that the buffer on screen has in its memory,
//                     the picture of that number, and what is known of it, to the listeners
//
// A reference is kept until its buffer is filled again, so there are as many as there are buffers.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "player/playback/FrameLedger.h"
#include "tv/Display.h"
#include "tv/SoundRecord.h"
#include "tv/Tunnel.h"

struct AVFrame;

namespace korvane::player {

/// The screen at one vsync.
struct ScreenMoment {
    tv::Vsync vsync;
    int64_t playedUs = 0;  ///< since the library's `start`
    int64_t frameNo = -1;  ///< -1: the screen is black
    int64_t mediaTimeUs = -1;
    int64_t dwell = 0;  ///< vsyncs on screen so far, with this one
    /// From the sync clock's time for it to this vsync; empty: unknown.
    std::optional<int64_t> offsetUs;
    /// Null: black, or content without pictures.
    std::shared_ptr<const AVFrame> picture;
};

/// Receives what the screen shows, from the library's `start` on. A listener that throws ends the
/// playback.
class ScreenListener {
public:
    virtual ~ScreenListener() = default;
    /// Each vsync in order, on the display's thread; must be quick in real time.
    /// @param sound  what was audible until now
    virtual void onVsync(const ScreenMoment& moment, const tv::SoundRecord& sound) = 0;
    /// The last vsync has been told. On the player's thread.
    virtual void onScreenEnd(const tv::SoundRecord& sound) = 0;
};

class ScreenFeed {
public:
    /// Both must outlive the feed.
    ScreenFeed(const std::vector<ScreenListener*>& listeners, const FrameLedger& ledger,
               int buffers)
        : mListeners(listeners), mLedger(ledger), mKept(static_cast<size_t>(buffers)) {}

    /// Whether anybody wants to see the screen.
    bool wanted() const { return !mListeners.empty(); }
    /// Times count from here.
    void begin(int64_t startNs) { mStartNs = startNs; }
    /// @param picture  null for content without pictures
    void keep(int buffer, int64_t frameNo, const AVFrame* picture);
    /// @param onScreen  empty: black
    void see(const tv::Vsync& vsync, const std::optional<tv::BufferRecord>& onScreen,
             const tv::SoundRecord& sound);
    void end(const tv::SoundRecord& sound);

private:
    struct Kept {
        int64_t frameNo = -1;
        std::shared_ptr<const AVFrame> picture;
    };
    std::shared_ptr<const AVFrame> pictureOf(int64_t frameNo) const;

    const std::vector<ScreenListener*>& mListeners;
    const FrameLedger& mLedger;
    int64_t mStartNs = 0;
    mutable std::mutex mLock;
    std::vector<Kept> mKept KORVANE_GUARDED_BY(mLock);  ///< by buffer
};

}  // namespace korvane::player
