// SPDX-License-Identifier: Apache-2.0
#include "player/command/ProgramPlace.h"

#include <unistd.h>

#include <system_error>

namespace korvane::player {
namespace {

constexpr const char* kBuiltTestbench = "bin/korvane-tv-testbench";
constexpr const char* kInstalledTestbench = "libexec/korvane-tv/korvane-tv-testbench";

}  // namespace

std::filesystem::path treeFolder() {
    std::error_code error;
    const auto folder = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
    const bool inLibexec = folder.parent_path().filename() == "libexec";
    return inLibexec ? folder.parent_path().parent_path() : folder.parent_path();
}

std::filesystem::path testbenchProgram() {
    for (const char* const place : {kBuiltTestbench, kInstalledTestbench}) {
        if (auto program = treeFolder() / place; access(program.c_str(), X_OK) == 0) {
            return program;
        }
    }
    return {};
}

}  // namespace korvane::player
