// SPDX-License-Identifier: Apache-2.0
#ifdef KORVANE_SDL
#include "player/screen/Sdl.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

namespace korvane::player {
namespace {

class Library {
public:
    explicit Library(const char* name) : mName(name), mHandle(dlopen(name, RTLD_NOW | RTLD_LOCAL)) {
        if (mHandle == nullptr) {
            throw std::runtime_error(mName + " is missing; install libsdl2-2.0-0");
        }
    }

    template <typename Function>
    void bind(Function* function, const char* name) const {
        *function = reinterpret_cast<Function>(dlsym(mHandle, name));
        if (*function == nullptr) {
            throw std::runtime_error(mName + " has no " + name + "; install a newer one");
        }
    }

private:
    const std::string mName;
    void* const mHandle;  ///< until the process ends
};

Sdl bindSdl() {
    const Library library("libSDL2-2.0.so.0");
    Sdl sdl;
    library.bind(&sdl.SetHint, "SDL_SetHint");
    library.bind(&sdl.Init, "SDL_Init");
    library.bind(&sdl.InitSubSystem, "SDL_InitSubSystem");
    library.bind(&sdl.Quit, "SDL_Quit");
    library.bind(&sdl.GetError, "SDL_GetError");
    library.bind(&sdl.GetCurrentVideoDriver, "SDL_GetCurrentVideoDriver");
    library.bind(&sdl.CreateWindow, "SDL_CreateWindow");
    library.bind(&sdl.DestroyWindow, "SDL_DestroyWindow");
    library.bind(&sdl.CreateRenderer, "SDL_CreateRenderer");
    library.bind(&sdl.DestroyRenderer, "SDL_DestroyRenderer");
    library.bind(&sdl.RenderSetLogicalSize, "SDL_RenderSetLogicalSize");
    library.bind(&sdl.CreateTexture, "SDL_CreateTexture");
    library.bind(&sdl.DestroyTexture, "SDL_DestroyTexture");
    library.bind(&sdl.UpdateYUVTexture, "SDL_UpdateYUVTexture");
    library.bind(&sdl.SetYUVConversionMode, "SDL_SetYUVConversionMode");
    library.bind(&sdl.RenderClear, "SDL_RenderClear");
    library.bind(&sdl.RenderCopy, "SDL_RenderCopy");
    library.bind(&sdl.RenderPresent, "SDL_RenderPresent");
    library.bind(&sdl.PollEvent, "SDL_PollEvent");
    library.bind(&sdl.OpenAudioDevice, "SDL_OpenAudioDevice");
    library.bind(&sdl.CloseAudioDevice, "SDL_CloseAudioDevice");
    library.bind(&sdl.PauseAudioDevice, "SDL_PauseAudioDevice");
    library.bind(&sdl.QueueAudio, "SDL_QueueAudio");
    library.bind(&sdl.GetQueuedAudioSize, "SDL_GetQueuedAudioSize");
    library.bind(&sdl.ClearQueuedAudio, "SDL_ClearQueuedAudio");
    return sdl;
}

}  // namespace

const Sdl& loadSdl() {
    static const Sdl sdl = bindSdl();
    return sdl;
}

}  // namespace korvane::player
#endif
