// SPDX-License-Identifier: Apache-2.0
#include "player/command/RunCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "player/base/Errors.h"
#include "player/base/Text.h"
#include "player/base/Units.h"
#include "player/command/ExitStatus.h"
#include "player/command/Message.h"
#include "player/command/OutputFolder.h"
#include "player/command/ProgramPlace.h"
#include "player/page/Page.h"
#include "player/page/PageAssets.h"
#include "player/scenario/ScenarioFile.h"
#include "player/scenario/ScenarioProcess.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::player {
namespace {

namespace fs = std::filesystem;

fs::path installedScenarios() {
    return treeFolder() / "share/korvane-tv/scenarios";
}

/// A name without a slash that is no file here means the installed scenario of that name, if any.
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

/// The folder "scenarios" here, else the installed one.
std::string usualScenarios() {
    const std::string here = "scenarios";
    const fs::path installed = installedScenarios();
    std::error_code error;
    return !fs::exists(here, error) && fs::exists(installed, error) ? installed.string() : here;
}

/// Makes names distinct, and so their event logs: the second "seek" becomes "seek-2".
void numberEqualNames(std::vector<Scenario>* scenarios) {
    std::set<std::string> names;
    for (const auto& scenario : *scenarios) {
        names.insert(scenario.name);
    }
    std::set<std::string> taken;
    for (auto& scenario : *scenarios) {
        const std::string name = scenario.name;
        for (int number = 2; !taken.insert(scenario.name).second; ++number) {
            const std::string next = fmt::format("{}-{}", name, number);
            scenario.name = names.count(next) == 0 ? next : scenario.name;
        }
    }
}

/// Another seed is to be another run, which the order of ready threads alone makes of a third of
/// the scenarios.
Scenario withSeed(Scenario scenario, uint64_t seed, bool preempt) {
    scenario.preempt = scenario.preempt.value_or(preempt || seed != scenario.seed);
    scenario.seed = seed;
    return scenario;
}

/// Each scenario with each seed. Several seeds are part of the names, and so of the event logs'.
std::vector<Scenario> withSeeds(const std::vector<Scenario>& scenarios, const SeedRange& seeds,
                                bool preempt) {
    std::vector<Scenario> all;
    for (const Scenario& scenario : scenarios) {
        for (uint64_t seed = seeds.first; seed - seeds.first <= seeds.last - seeds.first; ++seed) {
            all.push_back(withSeed(scenario, seed, preempt));
            all.back().name += seeds.first != seeds.last ? fmt::format("-seed{}", seed) : "";
        }
    }
    return all;
}

std::vector<Scenario> readAll(const RunOptions& options) {
    std::vector<Scenario> scenarios;
    for (const auto& file : scenarioFiles(options.paths)) {
        scenarios.push_back(readScenario(file));
    }
    numberEqualNames(&scenarios);
    if (options.seeds) {
        return withSeeds(scenarios, *options.seeds, options.preempt);
    }
    for (Scenario& scenario : scenarios) {
        scenario = withSeed(scenario, options.seed.value_or(scenario.seed), options.preempt);
    }
    return scenarios;
}

size_t longestName(const std::vector<Scenario>& scenarios) {
    size_t longest = 0;
    for (const auto& scenario : scenarios) {
        longest = std::max(longest, printable(scenario.name).size());
    }
    return longest;
}

/// What a playback is repeated with, beside its scenario.
struct Repeat {
    bool virtualClock;
    const std::string& library;
};

std::string repeatLine(const Scenario& scenario, const Repeat& repeat) {
    return fmt::format("korvane-tv run {} --seed {}{}{}{}", shellWord(scenario.path), scenario.seed,
                       scenario.preempt.value_or(false) ? " --preempt" : "",
                       repeat.virtualClock ? "" : " --clock real",
                       repeat.library.empty() ? "" : " --library " + shellWord(repeat.library));
}

void printVerdict(std::ostream& out, const Scenario& scenario, const ProcessResult& result,
                  const Repeat& repeat, size_t nameWidth) {
    out << fmt::format("{:<6}  {:<{}}  ", result.ok() ? "ok" : "FAILED", printable(scenario.name),
                       nameWidth);
    if (!result.verdict.empty()) {
        out << fmt::format("{} in {}, seed {}, events {}  ", result.verdict, seconds(result.wallUs),
                           scenario.seed, result.eventsHash);
    }
    out << fmt::format("# {}\n", repeatLine(scenario, repeat));
    for (const auto& failure : result.failures) {
        out << fmt::format("        {}\n", printable(failure));
    }
    out.flush();
}

int statusOf(const ProcessResult& result) {
    return result.wrongInput ? kExitUsage : result.ok() ? kExitOk : kExitFailed;
}

IndexEntry entryOf(const Scenario& scenario, const ProcessResult& result,
                   const ProcessOptions& options) {
    const bool played = !result.verdict.empty();
    return {scenario.name,
            scenario.title,
            result.sentence,
            result.grade,
            result.verdict,
            options.repeat(scenario),
            played ? scenario.name + "/report.html" : "",
            result.failures};
}

/// The index of the pages, written anew with each playback that ends: a run that is broken off
/// leaves it whole.
class Index {
public:
    Index(const std::string& folder, size_t planned)
        : mPath(inFolder(folder, "index.html")), mPlanned(planned) {}

    void add(IndexEntry entry) {
        mEntries.push_back(std::move(entry));
        if (mPath.empty()) {
            return;
        }
        const std::string next = mPath + ".next";
        std::ofstream file(next);
        writeIndex(file, mEntries, mPlanned);
        file.close();
        mWhole = file && std::rename(next.c_str(), mPath.c_str()) == 0;
        if (!mWhole) {
            std::remove(next.c_str());
        }
    }
    bool whole() const { return mWhole; }

private:
    const std::string mPath;
    const size_t mPlanned;
    std::vector<IndexEntry> mEntries;
    bool mWhole = true;
};

int playAll(const std::vector<Scenario>& scenarios, const ProcessOptions& options,
            const std::string& library, std::ostream& out) {
    const size_t width = longestName(scenarios);
    size_t failed = 0;
    int status = kExitOk;
    Index index(options.reportFolder, scenarios.size());
    playInProcesses(scenarios, options, [&](size_t at, const ProcessResult& result) {
        index.add(entryOf(scenarios[at], result, options));
        printVerdict(out, scenarios[at], result, {options.virtualClock, library}, width);
        failed += result.ok() ? 0 : 1;
        status = std::max(status, statusOf(result));
    });
    if (scenarios.size() > 1) {
        out << fmt::format("{}, {} ok, {} failed\n",
                           counted(static_cast<int64_t>(scenarios.size()), "scenario"),
                           scenarios.size() - failed, failed);
    }
    if (!index.whole()) {
        say("--report " + options.reportFolder +
            "/index.html: could not be written whole; free some space and run again");
        status = std::max(status, kExitFailed);
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
    // All are read before the first one plays: a mistake in any is told at once.
    const auto scenarios = readAll(options);
    if (!options.reportFolder.empty() && !pageLacks().empty()) {
        throw std::runtime_error("--report: " + std::string(pageLacks()));
    }
    OutputFolder events("--events", options.eventsFolder);
    OutputFolder trace("--trace", options.traceFolder);
    OutputFolder record("--record", options.recordFolder);
    OutputFolder report("--report", options.reportFolder);
    events.keep();
    trace.keep();
    record.keep();
    report.keep();
    ProcessOptions processOptions;
    processOptions.jobs = options.jobs;
    processOptions.virtualClock = options.virtualClock && tv::VirtualTime::available();
    processOptions.verbose = options.verbose;
    processOptions.eventsFolder = options.eventsFolder;
    processOptions.traceFolder = options.traceFolder;
    processOptions.recordFolder = options.recordFolder;
    processOptions.reportFolder = options.reportFolder;
    processOptions.version = options.version;
    processOptions.repeat = [virtualClock = processOptions.virtualClock,
                             library = options.library](const Scenario& scenario) {
        return repeatLine(scenario, {virtualClock, library});
    };
    if (processOptions.virtualClock != options.virtualClock) {
        say("this build has no virtual clock; scenarios are played in real time");
    }
    return playAll(scenarios, processOptions, options.library, out);
}

int listScenarios(const ListOptions& options, std::ostream& out) {
    for (const auto& file :
         scenarioFiles({options.path.empty() ? usualScenarios() : options.path})) {
        const Scenario scenario = readScenario(file);
        out << fmt::format("{}\n    shows  {}\n    holds  {}\n", printable(scenario.name),
                           printable(scenario.title), printable(scenario.holds));
    }
    return kExitOk;
}

}  // namespace korvane::player
