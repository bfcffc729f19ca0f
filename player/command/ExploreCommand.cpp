// SPDX-License-Identifier: Apache-2.0
#include "player/command/ExploreCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <stdexcept>

#include "player/base/Errors.h"
#include "player/base/Text.h"
#include "player/base/Units.h"
#include "player/command/ExitStatus.h"
#include "player/command/Interrupt.h"
#include "player/command/Message.h"
#include "player/command/ProgramPlace.h"
#include "player/command/RunCommand.h"
#include "player/explore/Explore.h"
#include "player/explore/Replay.h"
#include "player/explore/ScenarioProgram.h"
#include "player/scenario/ScenarioFile.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::player {
namespace {

constexpr int64_t kUsualTimeUs = 60'000'000;
constexpr int64_t kShrinkUs = 6'000'000;

std::vector<Program> programsOf(const ExploreCommandOptions& options) {
    const auto& builtIn = builtInPrograms();
    std::vector<Program> programs;
    if (options.paths.empty()) {
        programs = builtIn;
    }
    for (const auto& path : options.paths) {
        const auto known = std::find_if(builtIn.begin(), builtIn.end(),
                                        [&](const auto& program) { return program.name == path; });
        if (known != builtIn.end()) {
            programs.push_back(withFrames(*known, options.frames));
            continue;
        }
        for (const auto& file : scenarioFiles({path})) {
            if (access(file.c_str(), F_OK) != 0) {
                throw ScenarioError("'" + path +
                                    "' is no built-in program and no scenario; korvane-tv explore "
                                    "--help lists the programs");
            }
            programs.push_back(programOf(readScenario(file), options.frames));
        }
    }
    return programs;
}

std::string replayLine(const Program& program, const ShrunkFault& shrunk,
                       const std::string& library) {
    return fmt::format("korvane-tv explore {} --frames {} --replay {}{}", shellWord(program.name),
                       shrunk.frames, shrunk.schedule,
                       library.empty() ? "" : " --library " + shellWord(library));
}

std::string indented(const std::string& text) {
    std::string result;
    size_t from = 0;
    for (size_t end = text.find('\n'); from < text.size(); end = text.find('\n', from)) {
        end = std::min(end, text.size());
        result += "    " + text.substr(from, end - from) + "\n";
        from = end + 1;
    }
    return result;
}

void printFault(std::ostream& out, const ExploreOptions& options, const FoundFault& found,
                const std::string& library) {
    const Program& program = options.programs[found.program];
    out << fmt::format("\nFAULT   {}\n", printable(found.fault.what));
    out << fmt::format("    in {}, {} times, first after {} ({}) by {}\n", printable(program.name),
                       found.count, counted(static_cast<int64_t>(found.afterSchedules), "schedule"),
                       seconds(found.afterUs), toString(found.strategy));
    if (found.schedule.empty()) {
        return;
    }
    const ShrunkFault shrunk = shrink(program, found, kShrinkUs);
    out << fmt::format("    repeat  {}\n", replayLine(program, shrunk, library));
    if (!shrunk.repeats) {
        out << fmt::format("    it did not come again with this schedule\n");
    }
    const std::string& detail = shrunk.repeats ? shrunk.fault.detail : found.fault.detail;
    out << indented(detail) << "    the library's steps before each preemption, and the last ones\n"
        << indented(shrunk.listing);
}

void printResult(std::ostream& out, const ExploreOptions& options, const ExploreResult& result,
                 const std::string& library) {
    const double tookSeconds = std::max(static_cast<double>(result.tookUs) / 1e6, 1e-6);
    const auto runs = static_cast<double>(std::max<uint64_t>(result.schedules, 1));
    out << fmt::format(
        "{} in {} ({:.0f} a second, {} at a time), {} of them distinct ({:.1f} %), {:.0f} "
        "points each\n",
        counted(static_cast<int64_t>(result.schedules), "schedule"), seconds(result.tookUs),
        runs / tookSeconds, options.jobs, result.distinct,
        100.0 * static_cast<double>(result.distinct) / runs,
        static_cast<double>(result.points) / runs);
    out << fmt::format(
        "pairs of places that touch the same object on two threads: {}, in both orders {}\n",
        result.pairs.pairs, result.pairs.inBothOrders);
    for (const auto& exhausted : result.exhausted) {
        out << fmt::format("{}: {} with at most {}, {}\n",
                           printable(options.programs[exhausted.program].name),
                           counted(static_cast<int64_t>(exhausted.schedules), "schedule"),
                           counted(options.preemptions, "preemption"),
                           exhausted.complete ? "all of them visited" : "not all of them visited");
    }
    for (const auto& found : result.deliberate) {
        out << fmt::format("meant so: {}: {} times\n    {}\n", found.fault.what, found.count,
                           deliberateReason(found.fault));
    }
    for (const auto& found : result.faults) {
        printFault(out, options, found, library);
    }
    out << fmt::format("{}\n", result.faults.empty()
                                   ? "no fault found"
                                   : counted(static_cast<int64_t>(result.faults.size()), "fault"));
}

int replayOnce(const ExploreCommandOptions& options, const Program& program, std::ostream& out) {
    ReplayOptions replayOptions;
    replayOptions.listing = true;
    replayOptions.traceFile = options.traceFile;
    ReplayResult result;
    try {
        result = replay(program, options.replay, replayOptions);
    } catch (const std::invalid_argument& error) {
        throw UsageError(std::string("--replay: ") + error.what());
    }
    if (!result.complete) {
        say("the replay did not come to its end");
        return kExitFailed;
    }
    out << fmt::format("the program\n{}", indented(toText(program)));
    bool failed = false;
    for (const auto& fault : result.faults) {
        const char* const reason = deliberateReason(fault);
        out << fmt::format("{}  {}\n{}", reason == nullptr ? "FAULT " : "meant so", fault.what,
                           indented(fault.detail));
        failed = failed || reason == nullptr;
    }
    out << fmt::format("the library's steps before each preemption, and the last ones\n{}",
                       result.listing);
    out << fmt::format("{}\n", failed ? "it fails" : "no fault");
    return failed ? kExitFailed : kExitOk;
}

void showProgress(const ExploreResult& soFar) {
    if (isatty(STDERR_FILENO) != 0) {
        fmt::print(stderr, "\r{} schedules, {} distinct, {} faults, {}   ", soFar.schedules,
                   soFar.distinct, soFar.faults.size(), seconds(soFar.tookUs));
    }
}

}  // namespace

std::string exploredLibrary(const ExploreCommandOptions& options) {
    if (!options.library.empty()) {
        return options.library;
    }
    const std::string built = treeFolder() / "lib/explore/libkorvane_tunnelrenderer.so";
    return access(built.c_str(), R_OK) == 0 ? built : "";
}

int explorePrograms(const ExploreCommandOptions& options, std::ostream& out) {
    if (!tv::VirtualTime::available()) {
        throw UsageError("this build has no virtual clock, which exploring needs");
    }
    const auto programs = programsOf(options);
    if (!options.replay.empty()) {
        if (programs.size() != 1) {
            throw UsageError("--replay needs the one scenario or program that the schedule is of");
        }
        return replayOnce(options, programs.front(), out);
    }
    if (exploredLibrary(options).empty()) {
        say("the instrumented library is not there: only locks, waits and calls are preempted; "
            "build it with: make explore");
    }
    ExploreOptions exploring;
    exploring.programs = programs;
    exploring.strategies = options.strategies.empty()
                               ? std::vector{StrategyKind::Random, StrategyKind::Pct}
                               : options.strategies;
    const bool exhaustive = exploring.strategies.front() == StrategyKind::Exhaustive;
    exploring.forUs =
        options.forUs > 0 || options.schedules > 0 || exhaustive ? options.forUs : kUsualTimeUs;
    exploring.schedules = options.schedules;
    exploring.seed = options.seed;
    exploring.jobs = options.jobs;
    exploring.untilFault = options.untilFault;
    exploring.preemptions = options.preemptions;
    catchInterrupts();
    ExploreResult result = explore(exploring, {&showProgress, &interrupted});
    if (options.untilFault && result.faults.size() > 1) {
        result.faults.resize(1);  // others that came with it are often its consequences
    }
    if (isatty(STDERR_FILENO) != 0) {
        fmt::print(stderr, "\n");
    }
    printResult(out, exploring, result, options.library);
    return result.faults.empty() ? kExitOk : kExitFailed;
}

}  // namespace korvane::player
