// SPDX-License-Identifier: Apache-2.0
// Runs a command as a user would and keeps its exit status, standard output and standard error; for
// the player also the summary, as read from --json.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace korvane::test {

struct Command {
    struct Signal {
        int number = 0;
        std::string text;  ///< sent once the file has this text; empty: once the file exists
        std::string file;  ///< empty: standard output and error
    };
    std::vector<std::string> arguments;  ///< program first
    std::vector<Signal> signals;         ///< one after the other
    /// Standard output goes here instead of being kept.
    std::string outputPath;
};

struct CommandResult {
    int status = -1;  ///< exit status, or the number of the signal that killed it plus 128
    std::string output;
    std::string error;
};

/// Runs it to its end. Several may run at the same time, from different threads.
CommandResult runCommand(const Command& command);

/// Runs the player with these.
CommandResult korvaneTv(const std::vector<std::string>& arguments);

/// Reads a flat JSON object; values that are no texts come as JSON writes them.
std::map<std::string, std::string> readFlatJson(const std::string& path);

/// Path of a temporary file or folder of this process.
std::string scratch(const std::string& name);

std::string readFile(const std::string& path);

}  // namespace korvane::test
