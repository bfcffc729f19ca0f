// SPDX-License-Identifier: Apache-2.0
#include "player/media/MediaRequest.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

extern "C" {
#include <libavformat/avio.h>
}

namespace korvane::player {
namespace {

bool isStandardInput(const std::string& name) {
    return name == "-" || name == "pipe:" || name == "pipe:0";
}

/// "img%d.png" or "img%03d.png".
bool isNumbered(const std::string& name) {
    const size_t percent = name.find('%');
    if (percent == std::string::npos) {
        return false;
    }
    const size_t after = name.find_first_not_of("0123456789", percent + 1);
    return after != std::string::npos && name[after] == 'd';
}

bool isProtocol(const std::string& word) {
    void* state = nullptr;
    while (const char* known = avio_enum_protocols(&state, 0)) {
        if (word == known) {
            return true;
        }
    }
    return false;
}

}  // namespace

InputName inputOf(const std::string& name, std::optional<unsigned> fileMode) {
    const bool standardInput = isStandardInput(name);
    if (fileMode) {
        const bool readAgain = S_ISREG(*fileMode) || S_ISBLK(*fileMode) || S_ISDIR(*fileMode);
        // Through this name a file that was redirected can be opened by each reader for itself.
        const std::string path = standardInput && readAgain ? "/dev/stdin" : name;
        return {readAgain ? InputKind::File : InputKind::Pipe, "", path};
    }
    if (standardInput) {
        return {InputKind::Pipe, "", name};
    }
    const size_t colon = name.find(':');
    if (colon != std::string::npos) {
        const std::string word = name.substr(0, colon);
        const std::string rest = name.substr(colon + 1);
        if (word == "file") {
            return {InputKind::File, "", rest};
        }
        if (word == "lavfi") {
            return {InputKind::Generator, word, rest};
        }
        if (word == "hls" || (word == "concat" && rest.find('|') == std::string::npos)) {
            return {InputKind::Playlist, word, rest};
        }
        if (rest.rfind("//", 0) == 0 || isProtocol(word.substr(0, word.find(',')))) {
            return {InputKind::Address, "", name};
        }
    }
    return isNumbered(name) ? InputName{InputKind::Sequence, "image2", name}
                            : InputName{InputKind::File, "", name};
}

InputName inputOf(const std::string& name) {
    struct stat status {};
    const int result =
        isStandardInput(name) ? fstat(STDIN_FILENO, &status) : stat(name.c_str(), &status);
    return inputOf(name, result == 0 ? std::optional<unsigned>(status.st_mode) : std::nullopt);
}

}  // namespace korvane::player
