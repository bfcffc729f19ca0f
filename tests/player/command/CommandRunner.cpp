// SPDX-License-Identifier: Apache-2.0
#include "tests/player/command/CommandRunner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace korvane::test {
namespace {

/// A file that exists as long as this does, for a child to write into.
struct ScratchFile {
    ScratchFile() { close(mkstemp(path)); }
    ~ScratchFile() { unlink(path); }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;
    char path[32] = "/tmp/korvane-test-XXXXXX";
};

pid_t spawn(const Command& command, const std::string& outputPath, const std::string& errorPath) {
    std::vector<char*> arguments;
    for (const auto& argument : command.arguments) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, outputPath.c_str(), O_WRONLY | O_TRUNC, 0);
    posix_spawn_file_actions_addopen(&files, 2, errorPath.c_str(), O_WRONLY | O_TRUNC, 0);
    // A shell makes its background jobs, such as the shards, ignore SIGINT; that would be
    // inherited.
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    pid_t child = -1;
    const int result =
        posix_spawn(&child, arguments[0], &files, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    if (result != 0) {
        throw std::runtime_error("cannot run " + command.arguments[0]);
    }
    return child;
}

bool hasEnded(pid_t child) {
    siginfo_t ended{};
    waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT);
    return ended.si_pid == child;
}

int waitFor(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

CommandResult runCommand(const Command& command) {
    const ScratchFile output;
    const ScratchFile error;
    const pid_t child =
        spawn(command, command.outputPath.empty() ? std::string(output.path) : command.outputPath,
              error.path);
    for (const auto& signal : command.signals) {
        const auto isTime = [&] {
            const std::string said = signal.file.empty()
                                         ? readFile(output.path) + readFile(error.path)
                                         : readFile(signal.file);
            return signal.text.empty() ? access(signal.file.c_str(), F_OK) == 0
                                       : said.find(signal.text) != std::string::npos;
        };
        while (!hasEnded(child) && !isTime()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        kill(child, signal.number);
    }
    CommandResult result;
    result.status = waitFor(child);
    result.output = readFile(output.path);
    result.error = readFile(error.path);
    return result;
}

CommandResult korvaneTv(const std::vector<std::string>& arguments) {
    Command command;
    command.arguments = {KORVANE_TV};
    command.arguments.insert(command.arguments.end(), arguments.begin(), arguments.end());
    return runCommand(command);
}

std::string scratch(const std::string& name) {
    return ::testing::TempDir() + "korvane-" + std::to_string(getpid()) + "-" + name;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::map<std::string, std::string> readFlatJson(const std::string& path) {
    std::map<std::string, std::string> values;
    const nlohmann::json object = nlohmann::json::parse(readFile(path));
    for (const auto& [key, value] : object.items()) {
        values[key] = value.is_string() ? value.get<std::string>() : value.dump();
    }
    return values;
}

}  // namespace korvane::test
