// SPDX-License-Identifier: Apache-2.0
// A window that shows the TV's screen in real time, with the sound that is heard.
//
//   display's thread  `onVsync`: leaves the newest vsync for the window
//   window's thread   draws it, feeds the audio device, passes the viewer's keys on
//
//   key          does
//   space        pauses, goes on
//   left, right  5 s back, on; up, down: 60 s on, back
//   .            goes on for one vsync and pauses
//   i            shows the live figures, hides them
//   q, escape    ends playback, as closing the window does
//
// The device gets the sound a little ahead of the time at which the TV has it audible, so that both
// come out together. The device's clock leads, as on a TV: the TV's audio plays as fast as the
// device does, and the pictures follow audio.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "player/media/SoundStore.h"
#include "player/playback/Remote.h"
#include "player/screen/LiveView.h"

namespace korvane::player {

struct WindowSpec {
    std::string title;
    int width = 0;  ///< of the film's pictures, turned
    int height = 0;
    int turnDegrees = 0;                      ///< as for Canvas
    std::shared_ptr<const SoundStore> sound;  ///< null: the film has none
};

class Window final : public ScreenListener {
public:
    /// Opens it.
    /// @param remote  receives what the viewer asks for; outlives the window
    /// @throws std::runtime_error when there is no display, or this build has no windows
    Window(const WindowSpec& spec, Remote* remote);
    ~Window() override;
    Window(const Window&) = delete;
    Window& operator=(const Window&) = delete;

    void onVsync(const ScreenMoment& moment, const tv::SoundRecord& sound) override;
    /// Closes the window.
    void onScreenEnd(const tv::SoundRecord& sound) override;
    /// For the figures. Any thread.
    void update(const PlaybackProgress& progress);

    /// Why there is no sound; empty: there is, or the film has none.
    std::string soundFailure() const;

private:
    class Impl;
    std::unique_ptr<Impl> mImpl;
};

}  // namespace korvane::player
