// Runs the program that loads the renderer library before a device of the test's choice and tells
// what its two loaders made of it.
//
//   log lines       "tag: I text", the text's line ends written as \n
//   after each step "tunnel inited=1 handle=1 missing=queue_buffer,..." and
//                   "adapter inited=0 handle=1 missing=-"
//   steps           init, release: the tunnel loader's operations, "init=1" before the states
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace korvane::test {

/// @param libraryDir  searched first for the device's libraries
/// @param steps  words as above
/// @return the lines that the program wrote, none when it failed
inline std::vector<std::string> runLoaderProbe(const std::string& libraryDir,
                                               const std::string& steps = "") {
    const std::string command = "LD_LIBRARY_PATH='" + libraryDir +
                                ":" LIBRARY_DIR "' '" LOADER_PROBE "' " + steps + " 2>&1";
    FILE* output = popen(command.c_str(), "r");  // NOLINT(bugprone-command-processor,cert-env33-c)
    std::vector<std::string> lines;
    char line[1024];
    while (output != nullptr && fgets(line, sizeof(line), output) != nullptr) {
        lines.emplace_back(line);
        lines.back().pop_back();
    }
    return output != nullptr && pclose(output) == 0 ? lines : std::vector<std::string>{};
}

/// The lines of one loader, log tag and name taken off.
inline std::vector<std::string> linesOf(const std::vector<std::string>& lines,
                                        const std::string& prefix) {
    std::vector<std::string> kept;
    for (const std::string& line : lines) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            kept.push_back(line.substr(prefix.size()));
        }
    }
    return kept;
}

}  // namespace korvane::test
