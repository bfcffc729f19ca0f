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

constexpr char kSystem[] = "/usr/";

/// "f" of "(anonymous namespace)::f(int (*)(int)) const".
std::string withoutArguments(std::string function) {
    constexpr char kAnonymous[] = "(anonymous namespace)::";
    constexpr char kCall[] = "operator()";
    for (size_t at = 0; (at = function.find(kAnonymous)) != std::string::npos;) {
        function.erase(at, sizeof(kAnonymous) - 1);
    }
    size_t begin = function.find_last_of(')') + 1;
    int open = 0;
    do {
        open += begin == 0 ? 0 : (function[begin - 1] == ')') - (function[begin - 1] == '(');
        begin -= begin == 0 ? 0 : 1;
    } while (open > 0 && begin > 0);
    const size_t name = sizeof(kCall) - 3;  // without its brackets
    const bool isCall = begin >= name && function.compare(begin - name, name + 2, kCall) == 0;
    return begin == 0 || isCall ? function : function.substr(0, begin);
}

/// "function(arguments) at folder/file:line (discriminator 2)" as "function file:line"; empty where
/// the line is not known.
SourcePlace shortened(const std::string& answer) {
    const size_t at = answer.rfind(" at ");
    if (at == std::string::npos || answer.find(":?") != std::string::npos ||
        answer.find("??") != std::string::npos) {
        return {};
    }
    const std::string function = withoutArguments(answer.substr(0, at));
    const std::string path = answer.substr(at + 4);
    const std::string file = fileName(path);
    return {function + " " + file.substr(0, file.find(' ')), path.rfind(kSystem, 0) == 0};
}

/// @param offsets  in the file
/// @return answers by offset
std::map<size_t, SourcePlace> askAddr2line(const std::string& file,
                                           const std::vector<size_t>& offsets) {
    constexpr char kInlined[] = " (inlined by) ";
    std::string command = "addr2line -a -C -f -i -p -e '" + file + "'";
    for (const size_t offset : offsets) {
        command += " " + hexadecimal(offset);
    }
    std::map<size_t, SourcePlace> answers;
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen((command + " 2>/dev/null").c_str(), "r"),
                                                     pclose);
    SourcePlace* latest = nullptr;
    char line[4096];
    while (pipe != nullptr && std::fgets(line, sizeof(line), pipe.get()) != nullptr) {
        std::string answer = line;
        answer.erase(answer.find_last_not_of('\n') + 1);
        if (answer.rfind(kInlined, 0) == 0) {
            const SourcePlace outer = shortened(answer.substr(sizeof(kInlined) - 1));
            if (latest != nullptr && latest->ofSystem && !outer.text.empty()) {
                *latest = outer;
            }
            continue;
        }
        const size_t begin = answer.find(": ");
        latest = &answers[std::strtoull(line, nullptr, 16)];
        *latest = shortened(begin != std::string::npos ? answer.substr(begin + 2) : answer);
    }
    return answers;
}

}  // namespace

std::vector<SourcePlace> placesOf(const std::vector<const void*>& codes) {
    static auto& known = *new std::map<const void*, SourcePlace>{{nullptr, {}}};
    std::map<std::string, std::map<size_t, const void*>> toAsk;
    for (const void* code : codes) {
        Dl_info library{};
        if (known.count(code) == 0 && dladdr(code, &library) != 0) {
            known[code] = {placeWithoutLines(library, code), true};
            toAsk[library.dli_fname][offsetIn(library, code)] = code;
        }
    }
    for (const auto& [file, asked] : toAsk) {
        std::vector<size_t> offsets;
        for (const auto& [offset, code] : asked) {
            offsets.push_back(offset);
        }
        for (const auto& [offset, place] : askAddr2line(file, offsets)) {
            const auto code = asked.find(offset);
            if (code != asked.end() && !place.text.empty()) {
                known[code->second] = place;
            }
        }
    }
    std::vector<SourcePlace> places;
    places.reserve(codes.size());
    for (const void* code : codes) {
        places.push_back(known[code]);
    }
    return places;
}

}  // namespace korvane::tv
