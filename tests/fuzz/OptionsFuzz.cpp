// SPDX-License-Identifier: Apache-2.0
// Bytes as a command line, one argument a line: it is read, or refused in one line.
#include <sstream>
#include <vector>

#include "player/command/CommandLine.h"
#include "tests/fuzz/Refusal.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace korvane;
    std::istringstream lines(test::textOf(data, size));
    std::vector<std::string> arguments{"korvane-tv"};
    for (std::string line; std::getline(lines, line);) {
        arguments.push_back(line);
    }
    std::vector<const char*> argv;
    for (const auto& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    test::takeOrRefuse<player::UsageError>(
        [&] { player::parseCommandLine(static_cast<int>(argv.size()), argv.data(), "1.0"); });
    return 0;
}
