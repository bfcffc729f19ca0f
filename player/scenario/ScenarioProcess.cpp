// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/ScenarioProcess.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <map>
#include <optional>
#include <sstream>
#include <system_error>

#include "player/base/ChildProcess.h"
#include "player/base/Errors.h"
#include "player/base/Units.h"
#include "player/media/FrameSource.h"
#include "player/scenario/ScenarioRun.h"
#include "tv/Log.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::player {
namespace {

using std::chrono::steady_clock;

constexpr int kPlayed = 0;
constexpr int kWrongInput = 2;
/// In virtual time a scenario that takes this long will not end; a day's soak takes a fraction.
constexpr unsigned kLongestSeconds = 900;
constexpr mode_t kNewFolderMode = 0777;
constexpr int kLogVerbose = 4;
constexpr int kLogNothing = 8;

struct Child {
    pid_t pid = -1;
    int pipe = -1;
    size_t index = 0;
    std::string text;
    steady_clock::time_point began;
};

std::string verdictOf(const ScenarioResult& result) {
    return std::to_string(result.shown) + " shown, " + std::to_string(result.dropped) +
           " dropped, " + (result.pattern.empty() ? "-" : result.pattern) + ", " +
           seconds(result.playedUs);
}

void writeAll(int fd, const std::string& text) {
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = write(fd, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) {
            return;  // the parent is gone
        }
        written += count > 0 ? static_cast<size_t>(count) : 0;
    }
}

/// Plays in the child process and writes the result (see ScenarioProcess.h).
[[noreturn]] void playInChild(const Scenario& scenario, const ProcessOptions& options, int pipe) {
    if (options.virtualClock) {
        alarm(kLongestSeconds);
    }
    tv::openLog(options.verbose ? kLogVerbose : kLogNothing);
    ScenarioRunOptions runOptions;
    runOptions.virtualClock = options.virtualClock;
    runOptions.report = options.verbose;
    const auto fileIn = [&scenario](const std::string& folder, const char* ending) {
        return folder.empty() ? "" : folder + "/" + scenario.name + ending;
    };
    runOptions.eventsFile = fileIn(options.eventsFolder, ".events");
    runOptions.traceFile = fileIn(options.traceFolder, ".pftrace");
    runOptions.recordFile = fileIn(options.recordFolder, ".mp4");
    runOptions.repeat = options.repeat(scenario);
    runOptions.version = options.version;
    if (!options.reportFolder.empty()) {
        runOptions.reportFolder = options.reportFolder + "/" + scenario.name;
        // A failure is reported when the files in it cannot be written.
        mkdir(runOptions.reportFolder.c_str(), kNewFolderMode);
    }
    int status = kPlayed;
    std::string text;
    try {
        const ScenarioResult result = runScenario(scenario, runOptions);
        text = verdictOf(result) + "\n" + result.eventsHash + "\n" + result.grade + "\n" +
               result.sentence + "\n";
        for (const auto& failure : result.failures) {
            text += failure + "\n";
        }
    } catch (const InputError& error) {
        text = std::string("\n\n\n\n") + error.what() + "\n";
        status = kWrongInput;
    } catch (const std::exception& error) {
        text = std::string("\n\n\n\n") + error.what() + "\n";
    }
    writeAll(pipe, text);
    // Run no destructors and flush no buffers that belong to the parent.
    _exit(status);
}

Child startScenario(const Scenario& scenario, const ProcessOptions& options, size_t index) {
    const ChildProcess child = startChild([&](int pipe) { playInChild(scenario, options, pipe); });
    return {child.pid, child.pipe, index, "", steady_clock::now()};
}

/// @return a failure, or empty
std::string explainExit(int status) {
    if (WIFSIGNALED(status)) {
        const int signal = WTERMSIG(status);
        return signal == SIGALRM ? "no end after " + std::to_string(kLongestSeconds) + " s"
                                 : std::string("crashed: ") + sigdescr_np(signal);
    }
    if (WEXITSTATUS(status) == tv::kHangStatus) {
        return "hangs: standard error says which thread waits for what";
    }
    return "ended with status " + std::to_string(WEXITSTATUS(status));
}

ProcessResult resultOf(const Child& child, int status) {
    ProcessResult result;
    std::istringstream lines(child.text);
    std::getline(lines, result.verdict);
    std::getline(lines, result.eventsHash);
    std::getline(lines, result.grade);
    std::getline(lines, result.sentence);
    for (std::string line; std::getline(lines, line);) {
        result.failures.push_back(line);
    }
    const bool ended = WIFEXITED(status) != 0;
    result.wrongInput = ended && WEXITSTATUS(status) == kWrongInput;
    if ((!ended || WEXITSTATUS(status) != kPlayed) && !result.wrongInput) {
        result.failures.insert(result.failures.begin(), explainExit(status));
    }
    if (result.verdict.empty() && result.failures.empty()) {
        result.failures.push_back("ended without a result");
    }
    result.wallUs =
        std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - child.began)
            .count();
    return result;
}

/// Waits until a child has written or ended, and reads what it wrote.
/// @return index and result of a scenario that ended
std::optional<std::pair<size_t, ProcessResult>> waitForOne(std::vector<Child>* children) {
    std::vector<pollfd> fds;
    for (const auto& child : *children) {
        fds.push_back({child.pipe, POLLIN, 0});
    }
    if (poll(fds.data(), fds.size(), -1) < 0) {
        return std::nullopt;
    }
    for (size_t i = 0; i < fds.size(); ++i) {
        if (fds[i].revents == 0) {
            continue;
        }
        Child& child = (*children)[i];
        char block[4096];
        const ssize_t count = read(child.pipe, block, sizeof block);
        if (count > 0) {
            child.text.append(block, static_cast<size_t>(count));
            continue;
        }
        int status = 0;
        close(child.pipe);
        while (waitpid(child.pid, &status, 0) < 0 && errno == EINTR) {
        }
        std::pair<size_t, ProcessResult> ended(child.index, resultOf(child, status));
        children->erase(children->begin() + static_cast<std::ptrdiff_t>(i));
        return ended;
    }
    return std::nullopt;
}

}  // namespace

void playInProcesses(const std::vector<Scenario>& scenarios, const ProcessOptions& options,
                     const std::function<void(size_t index, const ProcessResult& result)>& take) {
    std::vector<Child> children;
    std::map<size_t, ProcessResult> ended;
    size_t nextToStart = 0;
    size_t nextToTake = 0;
    while (nextToTake < scenarios.size()) {
        while (nextToStart < scenarios.size() &&
               children.size() < static_cast<size_t>(options.jobs)) {
            children.push_back(startScenario(scenarios[nextToStart], options, nextToStart));
            ++nextToStart;
        }
        if (auto one = waitForOne(&children)) {
            ended.insert(std::move(*one));
        }
        for (auto found = ended.find(nextToTake); found != ended.end();
             found = ended.find(nextToTake)) {
            take(nextToTake++, found->second);
            ended.erase(found);
        }
    }
}

}  // namespace korvane::player
