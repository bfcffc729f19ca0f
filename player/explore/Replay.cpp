// SPDX-License-Identifier: Apache-2.0
#include "player/explore/Replay.h"
#include "player/base/ChildProcess.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <optional>
#include <utility>

#include "player/explore/Listing.h"
#include "player/explore/Message.h"
#include "player/explore/Worker.h"

namespace korvane::player {
namespace {

using std::chrono::steady_clock;
using Schedule = std::vector<tv::Deviation>;

constexpr unsigned kLongestReplaySeconds = 20;

[[noreturn]] void replayInChild(const Program& program, const Schedule& schedule,
                                const ReplayOptions& options, int pipe) {
    alarm(kLongestReplaySeconds);
    Runner runner;
    tellCrashes(pipe, runner);
    ListedReplay strategy(schedule, options.listing);
    strategy.next();
    tellCrashesOf(0, StrategyKind::Random, strategy);
    RunnerOptions traced;
    traced.traceFile = options.traceFile;
    const RunReport report = runner.play(program, strategy, traced);
    const std::string text = tv::toText(strategy.deviations());
    sendMessage(pipe, MessageKind::Listing, joinFields({text, strategy.text()}));
    for (const auto& fault : report.faults) {
        sendMessage(pipe, MessageKind::Fault, joinFields({fault.what, fault.detail}));
    }
    _exit(0);
}

void take(const Message& message, ReplayResult* result, std::optional<Crash>* crash) {
    if (message.kind == MessageKind::Listing) {
        const Fields fields = splitFields(message.bytes);
        result->schedule = fields.at(0);
        result->listing = fields.at(1);
        result->complete = true;
    } else if (message.kind == MessageKind::Fault) {
        const Fields fields = splitFields(message.bytes);
        result->faults.push_back({fields.at(0), fields.at(1)});
    } else if (message.kind == MessageKind::Crash) {
        crash->emplace();
        (*crash)->schedule = readCrash(message.bytes, &(*crash)->record);
    } else if (message.kind == MessageKind::CrashCalls) {
        (*crash)->calls = readCalls(message.bytes);
    }
}

/// Tries smaller programs and schedules, as long as the fault and the time last.
class Shrinker {
public:
    Shrinker(Program program, const FoundFault& found, int64_t limitUs)
        : mProgram(std::move(program)),
          mWhat(found.fault.what),
          mSchedule(tv::parseSchedule(found.schedule)),
          mEnd(steady_clock::now() + std::chrono::microseconds(limitUs)) {}

    ShrunkFault run() {
        ShrunkFault shrunk;
        if (holds(mProgram, mSchedule)) {
            shrinkFrames();
            shrinkPreemptions();
            shrinkTimes();
        }
        ReplayOptions options;
        options.listing = true;
        const ReplayResult last = replay(mProgram, tv::toText(mSchedule), options);
        shrunk.repeats = last.has(mWhat);
        shrunk.frames = std::max(framesOf(mProgram), 1);
        shrunk.schedule = tv::toText(mSchedule);
        shrunk.listing = last.listing;
        for (const auto& fault : last.faults) {
            shrunk.fault = fault.what == mWhat ? fault : shrunk.fault;
        }
        shrunk.replays = mReplays;
        return shrunk;
    }

private:
    bool holds(const Program& program, const Schedule& schedule) {
        if (steady_clock::now() >= mEnd) {
            return false;
        }
        ++mReplays;
        return replay(program, tv::toText(schedule)).has(mWhat);
    }

    bool keep(const Schedule& schedule) {
        if (schedule.size() == mSchedule.size() || !holds(mProgram, schedule)) {
            return false;
        }
        mSchedule = schedule;
        return true;
    }

    void shrinkFrames() {
        for (int frames = 1; frames < framesOf(mProgram); ++frames) {
            Program smaller = withFrames(mProgram, frames);
            if (holds(smaller, mSchedule)) {
                mProgram = std::move(smaller);
                return;
            }
        }
    }

    void shrinkPreemptions() {
        keep({});
        for (size_t part = std::max<size_t>(mSchedule.size() / 2, 1);; part = part / 2) {
            for (size_t from = 0; from < mSchedule.size();) {
                Schedule without = mSchedule;
                const auto first = without.begin() + static_cast<std::ptrdiff_t>(from);
                without.erase(first, first + static_cast<std::ptrdiff_t>(
                                                 std::min(part, mSchedule.size() - from)));
                from += keep(without) ? 0 : part;
            }
            if (part <= 1) {
                return;
            }
        }
    }

    void shrinkTimes() {
        for (size_t i = 0; i < mSchedule.size(); ++i) {
            Schedule sooner = mSchedule;
            if (std::exchange(sooner[i].awayNs, 0) > 0 && sooner[i].next > 0 &&
                holds(mProgram, sooner)) {
                mSchedule = sooner;
            }
        }
    }

    Program mProgram;
    const std::string mWhat;
    Schedule mSchedule;
    const steady_clock::time_point mEnd;
    int mReplays = 0;
};

}  // namespace

bool ReplayResult::has(const std::string& what) const {
    return std::any_of(faults.begin(), faults.end(),
                       [&](const Fault& fault) { return fault.what == what; });
}

ReplayResult replay(const Program& program, const std::string& schedule,
                    const ReplayOptions& options) {
    const Schedule deviations = tv::parseSchedule(schedule);
    const ChildProcess child = startChild([&](int pipe) {
        becomeWorker();
        replayInChild(program, deviations, options, pipe);
    });
    std::string text;
    char block[1 << 14];
    for (ssize_t count = 1; count > 0;) {
        count = read(child.pipe, block, sizeof block);
        text.append(block, count > 0 ? static_cast<size_t>(count) : 0);
        count = count < 0 && errno == EINTR ? 1 : count;
    }
    close(child.pipe);
    int status = 0;
    while (waitpid(child.pid, &status, 0) < 0 && errno == EINTR) {
    }
    ReplayResult result;
    std::optional<Crash> crash;
    for (const auto& message : takeMessages(&text)) {
        take(message, &result, &crash);
    }
    if (crash) {
        result.schedule = tv::toText(crash->schedule);
        result.faults.push_back(faultOf(*crash));
        result.complete = true;
    }
    return result;
}

ShrunkFault shrink(const Program& program, const FoundFault& found, int64_t limitUs) {
    return Shrinker(program, found, limitUs).run();
}

}  // namespace korvane::player
