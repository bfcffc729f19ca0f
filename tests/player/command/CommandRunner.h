// SPDX-License-Identifier: Apache-2.0
// Runs a command as a person would and keeps what it said: exit status, standard output and error,
// and, for the player, its summary as read from --json.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace korvane::test {

struct Command {
    struct Signal {
        int number = 0;
        std::string text;  ///< sent once this stands in the file
        std::string file;  ///< empty: in what the command has said so far
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

/// Reads a flat JSON object with one key per line; texts lose their quotes.
std::map<std::string, std::string> readFlatJson(const std::string& path);

std::string readFile(const std::string& path);

}  // namespace korvane::test
