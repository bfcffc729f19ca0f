// SPDX-License-Identifier: Apache-2.0
// Looking up entry points of a library that was opened by name.
#pragma once

#include <dlfcn.h>

namespace korvane {

/// What went wrong in this thread's last call of the dynamic loader. The C libraries that we run on
/// keep that text per thread.
inline const char* loadError() {
    return dlerror();  // NOLINT(concurrency-mt-unsafe)
}

/// Stores the address of an entry point, or null.
/// @return whether the library has it; else `loadError` says why not
template <typename EntryPoint>
bool resolve(void* library, const char* name, EntryPoint* entryPoint) {
    *entryPoint = reinterpret_cast<EntryPoint>(dlsym(library, name));
    return *entryPoint != nullptr;
}

}  // namespace korvane
