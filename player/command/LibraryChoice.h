// SPDX-License-Identifier: Apache-2.0
// The option --library: plays on another build of libkorvane_tunnelrenderer.so.
//
// The program is linked with the library, so the dynamic loader has to choose it: the program
// starts itself again with the other build preloaded. The loader then finds that build under the
// library's own name and loads no other. All else stays in its place in the order of symbols, so
// that the TV's devices and the virtual clock reach the other build as they do this one.
#pragma once

#include <string>

namespace korvane::player {

/// Returns only in a process in which the renderer's factory comes from this file; starts the
/// program again if it does not yet.
/// @param path  empty: the library that the program is linked with
/// @throws UsageError if the file is no such library, or the loader does not take it
void useLibrary(const std::string& path, char** argv);

/// 16 digits over the bytes of the file; empty: it cannot be read.
std::string hashOfFile(const std::string& path);

}  // namespace korvane::player
