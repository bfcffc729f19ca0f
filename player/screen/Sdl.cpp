// SPDX-License-Identifier: Apache-2.0
#ifdef KORVANE_SDL
#include "player/screen/Sdl.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

namespace korvane::player {
namespace {

Sdl bindSdl() {
    constexpr char kName[] = "libSDL2-2.0.so.0";
    void* library = dlopen(kName, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        throw std::runtime_error(std::string(kName) + " is missing; install libsdl2-2.0-0");
    }
    Sdl sdl;
    bool whole = true;
#define KORVANE_SDL_BIND(name)                                                          \
    sdl.name = reinterpret_cast<decltype(&::SDL_##name)>(dlsym(library, "SDL_" #name)); \
    whole = whole && sdl.name != nullptr;
    KORVANE_SDL_FUNCTIONS(KORVANE_SDL_BIND)
#undef KORVANE_SDL_BIND
    if (!whole) {
        throw std::runtime_error(std::string(kName) + " is older than SDL 2.0.8");
    }
    return sdl;
}

}  // namespace

const Sdl& loadSdl() {
    static const Sdl sdl = bindSdl();
    return sdl;
}

}  // namespace korvane::player
#endif
