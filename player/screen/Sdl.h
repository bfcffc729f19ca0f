// SPDX-License-Identifier: Apache-2.0
// The functions of SDL 2 that the window needs. The library is loaded when a window is asked for:
// it brings some forty others, which would take longer to load than a short clip takes to play, and
// a server that never shows a window need not have it.
#pragma once

#include <SDL2/SDL.h>

namespace korvane::player {

/// Named as SDL names them, without its prefix.
struct Sdl {
    decltype(&::SDL_SetHint) SetHint = nullptr;
    decltype(&::SDL_Init) Init = nullptr;
    decltype(&::SDL_InitSubSystem) InitSubSystem = nullptr;
    decltype(&::SDL_Quit) Quit = nullptr;
    decltype(&::SDL_GetError) GetError = nullptr;
    decltype(&::SDL_GetCurrentVideoDriver) GetCurrentVideoDriver = nullptr;
    decltype(&::SDL_CreateWindow) CreateWindow = nullptr;
    decltype(&::SDL_DestroyWindow) DestroyWindow = nullptr;
    decltype(&::SDL_CreateRenderer) CreateRenderer = nullptr;
    decltype(&::SDL_DestroyRenderer) DestroyRenderer = nullptr;
    decltype(&::SDL_RenderSetLogicalSize) RenderSetLogicalSize = nullptr;
    decltype(&::SDL_CreateTexture) CreateTexture = nullptr;
    decltype(&::SDL_DestroyTexture) DestroyTexture = nullptr;
    decltype(&::SDL_UpdateYUVTexture) UpdateYUVTexture = nullptr;
    decltype(&::SDL_SetYUVConversionMode) SetYUVConversionMode = nullptr;
    decltype(&::SDL_RenderClear) RenderClear = nullptr;
    decltype(&::SDL_RenderCopy) RenderCopy = nullptr;
    decltype(&::SDL_RenderPresent) RenderPresent = nullptr;
    decltype(&::SDL_PollEvent) PollEvent = nullptr;
    decltype(&::SDL_OpenAudioDevice) OpenAudioDevice = nullptr;
    decltype(&::SDL_CloseAudioDevice) CloseAudioDevice = nullptr;
    decltype(&::SDL_PauseAudioDevice) PauseAudioDevice = nullptr;
    decltype(&::SDL_QueueAudio) QueueAudio = nullptr;
    decltype(&::SDL_GetQueuedAudioSize) GetQueuedAudioSize = nullptr;
    decltype(&::SDL_ClearQueuedAudio) ClearQueuedAudio = nullptr;
};

/// Loads it, once per process.
/// @throws std::runtime_error when it is not installed
const Sdl& loadSdl();

}  // namespace korvane::player
