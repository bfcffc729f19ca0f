// SPDX-License-Identifier: Apache-2.0
#include "player/command/RunCommand.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iomanip>
#include <ostream>
#include <system_error>

#include "player/base/Units.h"
#include "player/scenario/ScenarioFile.h"
#include "player/scenario/ScenarioProcess.h"

namespace korvane::player {
namespace {

constexpr int kAllHeld = 0;
constexpr int kSomeFailed = 1;
constexpr int kWrongInput = 2;

namespace fs = std::filesystem;

/// Where an installed program has its scenarios, seen from the program, wherever it was moved to.
fs::path installedScenarios() {
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    return program.parent_path().parent_path() / "share/korvane-tv/scenarios";
}

/// A plain name that is no file here stands for an installed scenario, where there is one.
std::string fileOrInstalled(const std::string& path) {
    std::error_code error;
    if (path.find('/') == std::string::npos && !fs::exists(path, error)) {
        const fs::path installed = installedScenarios() / (path + ".toml");
        if (fs::exists(installed, error)) {
            return installed.string();
        }
    }
    return path;
}

/// The scenarios at hand, else those that are installed.
std::string usualScenarios() {
    const std::string here = "scenarios";
    const fs::path installed = installedScenarios();
    std::error_code error;
    return !fs::exists(here, error) && fs::exists(installed, error) ? installed.string() : here;
}

std::vector<Scenario> readAll(const RunOptions& options) {
    std::vector<Scenario> scenarios;
    for (const auto& file : scenarioFiles(options.paths)) {
        scenarios.push_back(readScenario(file));
        if (options.seed) {
            scenarios.back().seed = *options.seed;
        }
    }
    return scenarios;
}

size_t longestName(const std::vector<Scenario>& scenarios) {
    size_t longest = 0;
    for (const auto& scenario : scenarios) {
        longest = std::max(longest, scenario.name.size());
    }
    return longest;
}

std::string commandLine(const Scenario& scenario, bool virtualClock) {
    return "korvane-tv run " + scenario.path + " --seed " + std::to_string(scenario.seed) +
           (virtualClock ? "" : " --clock real");
}

void printVerdict(std::ostream& out, const Scenario& scenario, const ProcessResult& result,
                  const RunOptions& options, size_t nameWidth) {
    out << (result.ok() ? "ok      " : "FAILED  ") << std::left
        << std::setw(static_cast<int>(nameWidth)) << scenario.name << "  ";
    if (!result.verdict.empty()) {
        out << result.verdict << " in " << seconds(result.wallUs) << ", seed " << scenario.seed
            << ", events " << result.eventsHash << "  ";
    }
    out << "# " << commandLine(scenario, options.virtualClock) << "\n";
    for (const auto& failure : result.failures) {
        out << "        " << failure << "\n";
    }
    out.flush();
}

void printSum(std::ostream& out, size_t scenarios, size_t failed) {
    out << counted(static_cast<int64_t>(scenarios), "scenario") << ", " << scenarios - failed
        << " ok, " << failed << " failed\n";
}

int refuse(const std::exception& error) {
    std::fprintf(stderr, "korvane-tv: %s\n", error.what());
    return kWrongInput;
}

int playAll(const std::vector<Scenario>& scenarios, const RunOptions& options, std::ostream& out) {
    const size_t width = longestName(scenarios);
    size_t failed = 0;
    int status = kAllHeld;
    ProcessOptions processOptions;
    processOptions.jobs = options.jobs;
    processOptions.virtualClock = options.virtualClock;
    processOptions.verbose = options.verbose;
    processOptions.eventsFolder = options.eventsFolder;
    playInProcesses(scenarios, processOptions, [&](size_t index, const ProcessResult& result) {
        printVerdict(out, scenarios[index], result, options, width);
        failed += result.ok() ? 0 : 1;
        status = std::max(status, result.wrongInput ? kWrongInput
                                  : result.ok()     ? kAllHeld
                                                    : kSomeFailed);
    });
    if (scenarios.size() > 1) {
        printSum(out, scenarios.size(), failed);
    }
    return status;
}

}  // namespace

std::vector<std::string> scenarioFiles(const std::vector<std::string>& paths) {
    std::vector<std::string> files;
    for (const auto& path : paths) {
        std::error_code error;
        if (!fs::is_directory(path, error)) {
            files.push_back(fileOrInstalled(path));
            continue;
        }
        std::vector<std::string> inFolder;
        for (const auto& entry : fs::directory_iterator(path, error)) {
            if (entry.path().extension() == ".toml") {
                inFolder.push_back(entry.path().string());
            }
        }
        if (error || inFolder.empty()) {
            throw ScenarioError("'" + path + "' holds no scenario (*.toml)" +
                                (error ? ": " + error.message() : std::string()) +
                                "; give a folder that does");
        }
        std::sort(inFolder.begin(), inFolder.end());
        files.insert(files.end(), inFolder.begin(), inFolder.end());
    }
    return files;
}

int runScenarios(const RunOptions& options, std::ostream& out) {
    try {
        // All are read before the first is played: a typing error is told at once.
        const auto scenarios = readAll(options);
        if (!options.eventsFolder.empty()) {
            std::filesystem::create_directories(options.eventsFolder);
        }
        return playAll(scenarios, options, out);
    } catch (const ScenarioError& error) {
        return refuse(error);
    } catch (const std::filesystem::filesystem_error& error) {
        return refuse(error);
    }
}

int listScenarios(const ListOptions& options, std::ostream& out) {
    try {
        const std::string path = options.path.empty() ? usualScenarios() : options.path;
        for (const auto& file : scenarioFiles({path})) {
            const Scenario scenario = readScenario(file);
            out << scenario.name << "\n    shows  " << scenario.title << "\n    holds  "
                << scenario.holds << "\n";
        }
        return kAllHeld;
    } catch (const ScenarioError& error) {
        return refuse(error);
    }
}

}  // namespace korvane::player
