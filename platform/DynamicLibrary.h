// SPDX-License-Identifier: Apache-2.0
// Resolves entry points of a library that was opened by name.
#pragma once

#include <dlfcn.h>

namespace korvane {

/// The error of this thread's last call of the dynamic linker. Android's C library and glibc keep
/// it per thread.
inline const char* loadError() {
    return dlerror();  // NOLINT(concurrency-mt-unsafe)
}

/// Stores the address of an entry point, or null.
/// @return whether the library has it; if not, `loadError` says why
template <typename EntryPoint>
bool resolve(void* library, const char* name, EntryPoint* entryPoint) {
    *entryPoint = reinterpret_cast<EntryPoint>(dlsym(library, name));
    return *entryPoint != nullptr;
}

}  // namespace korvane
