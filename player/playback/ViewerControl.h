// SPDX-License-Identifier: Apache-2.0
// What a viewer has asked for with the remote: keys in, steps for the player out. No clock is read
// and nothing waits here.
//
//   key     while playing   while paused, with audio   while paused, without audio
//   Pause   Pause           Resume                     Resume
//   Step    Pause           Resume, AwaitVsync, Pause  nothing: one frame may be sent
//   Seek    Seek            Resume, Seek               Resume, Seek
//   Quit    nothing: playback is to end
//
// Without audio a pause is that no frame is sent, and the clock has stood still for the next one.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "player/playback/Remote.h"

namespace korvane::player {

struct ViewerStep {
    enum class Kind { Pause, Resume, AwaitVsync, Seek };
    Kind kind = Kind::Pause;
    int64_t toUs = 0;  ///< Seek: media time
};

/// Where playback is when a key is pressed.
struct ViewerPosition {
    bool sectionShows = false;        ///< a frame of the present section has been shown
    int64_t positionUs = 0;           ///< media time shown last
    std::optional<int64_t> soughtUs;  ///< media time of the seek that began the section
};

class ViewerControl {
public:
    explicit ViewerControl(bool withAudio) : mWithAudio(withAudio) {}

    /// @return what the player has to do, in this order
    std::vector<ViewerStep> press(const RemoteKey& key, const ViewerPosition& at);
    /// A frame is about to be sent.
    /// @return whether it anchors the clock, which stood still in a pause without audio
    bool frameGoesOut();

    bool paused() const { return mPaused; }
    /// No frame may be sent.
    bool holdsFrames() const { return mPaused && !mWithAudio && !mStepping; }
    bool quit() const { return mQuit; }

private:
    std::vector<ViewerStep> pause();

    const bool mWithAudio;
    bool mPaused = false;
    bool mStepping = false;     ///< without audio: one frame may be sent in the pause
    bool mClockStands = false;  ///< without audio, until the next frame is sent
    bool mQuit = false;
};

}  // namespace korvane::player
