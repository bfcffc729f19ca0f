// SPDX-License-Identifier: Apache-2.0
#include "tv/explore/Symbols.h"

#include <cxxabi.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>

namespace korvane::tv {
namespace {

std::string hexadecimal(size_t value) {
    char text[24];
    std::snprintf(text, sizeof(text), "0x%zx", value);
    return text;
}

std::string fileName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

/// The instruction before a return address, in its library's file.
size_t offsetIn(const Dl_info& library, const void* code) {
    return static_cast<size_t>(static_cast<const char*>(code) -
                               static_cast<const char*>(library.dli_fbase)) -
           1;
}

std::string placeWithoutLines(const Dl_info& library, const void* code) {
    std::string text;
    if (library.dli_sname != nullptr) {
        char* const readable = abi::__cxa_demangle(library.dli_sname, nullptr, nullptr, nullptr);
        text = std::string(readable != nullptr ? readable : library.dli_sname) + " ";
        std::free(readable);
    }
    return text + fileName(library.dli_fname) + "+" + hexadecimal(offsetIn(library, code));
}

/// "function(arguments) at folder/file:line (discriminator 2)" as "function file:line"; empty where
/// the line is not known.
std::string shortened(const std::string& answer) {
    const size_t at = answer.rfind(" at ");
    if (at == std::string::npos || answer.find(":?") != std::string::npos ||
        answer.find("??") != std::string::npos) {
        return {};
    }
    const std::string function = answer.substr(0, answer.find('('));
    const std::string file = fileName(answer.substr(at + 4));
    return function + " " + file.substr(0, file.find(' '));
}

/// @param offsets  in the file
/// @return answers by offset
std::map<size_t, std::string> askAddr2line(const std::string& file,
                                           const std::vector<size_t>& offsets) {
    std::string command = "addr2line -a -C -f -p -e '" + file + "'";
    for (const size_t offset : offsets) {
        command += " " + hexadecimal(offset);
    }
    std::map<size_t, std::string> answers;
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen((command + " 2>/dev/null").c_str(), "r"),
                                                     pclose);
    char line[4096];
    while (pipe != nullptr && std::fgets(line, sizeof(line), pipe.get()) != nullptr) {
        char* rest = nullptr;
        const size_t offset = std::strtoull(line, &rest, 16);
        std::string answer = rest + 1;
        answer.erase(answer.find_last_not_of('\n') + 1);
        answers[offset] = shortened(answer.substr(answer.find_first_not_of(' ')));
    }
    return answers;
}

}  // namespace

std::vector<std::string> placesOf(const std::vector<const void*>& codes) {
    static auto& known = *new std::map<const void*, std::string>;
    std::map<std::string, std::vector<size_t>> toAsk;
    for (const void* code : codes) {
        Dl_info library{};
        if (known.count(code) == 0 && dladdr(code, &library) != 0) {
            known[code] = placeWithoutLines(library, code);
            toAsk[library.dli_fname].push_back(offsetIn(library, code));
        }
    }
    std::map<std::string, std::map<size_t, std::string>> answers;
    for (const auto& [file, offsets] : toAsk) {
        answers[file] = askAddr2line(file, offsets);
    }
    std::vector<std::string> places;
    for (const void* code : codes) {
        Dl_info library{};
        if (code != nullptr && dladdr(code, &library) != 0) {
            const std::string& line = answers[library.dli_fname][offsetIn(library, code)];
            known[code] = line.empty() ? known[code] : line;
        }
        places.push_back(known[code]);
    }
    return places;
}

}  // namespace korvane::tv
