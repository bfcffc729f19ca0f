// SPDX-License-Identifier: Apache-2.0
// Where the running program stands. It finds all else from there, since an installed tree may be
// moved:
//
//   built        TREE/bin/korvane-tv, TREE/bin/korvane-tv-testbench
//   installed    TREE/bin/korvane-tv, TREE/libexec/korvane-tv/korvane-tv-testbench
#pragma once

#include <filesystem>

namespace korvane::player {

/// TREE: a build folder, or the prefix of an installation.
std::filesystem::path treeFolder();

/// The program of all commands; empty: there is none.
std::filesystem::path testbenchProgram();

}  // namespace korvane::player
