// SPDX-License-Identifier: Apache-2.0
// The functions of SDL 2 that the window needs. The library is loaded when a window is asked for:
// it brings some forty others, which would take longer to load than a short clip takes to play, and
// a server that never shows a window need not have it.
#pragma once

#include <SDL2/SDL.h>

#include <memory>

namespace korvane::player {

/// Named as SDL names them, without its prefix.
struct Sdl {
#define KORVANE_SDL_FUNCTIONS(F)                                                                   \
    F(SetHint)                                                                                     \
    F(Init)                                                                                        \
    F(InitSubSystem)                                                                               \
    F(Quit) F(GetError) F(GetCurrentVideoDriver) F(CreateWindow) F(DestroyWindow)                  \
        F(CreateRenderer) F(DestroyRenderer) F(RenderSetLogicalSize) F(CreateTexture)              \
            F(DestroyTexture) F(UpdateYUVTexture) F(SetYUVConversionMode) F(RenderClear)           \
                F(RenderCopy) F(RenderPresent) F(PollEvent) F(OpenAudioDevice) F(CloseAudioDevice) \
                    F(PauseAudioDevice) F(QueueAudio) F(GetQueuedAudioSize) F(ClearQueuedAudio)
#define KORVANE_SDL_POINTER(name) decltype(&::SDL_##name) name = nullptr;
    KORVANE_SDL_FUNCTIONS(KORVANE_SDL_POINTER)
#undef KORVANE_SDL_POINTER
};

/// Loads it, once per process.
/// @throws std::runtime_error when it is not installed
const Sdl& loadSdl();

}  // namespace korvane::player
