// SPDX-License-Identifier: Apache-2.0
#include "player/explore/Runner.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "VideoTunnelRenderer.h"
#include "player/report/EventLine.h"
#include "tv/Log.h"
#include "tv/Properties.h"
#include "tv/Trace.h"

/// What an instrumented program calls before it reads; tv/explore/Runtime.cpp has it.
extern "C" void __tsan_read_range(void* object,
                                  size_t bytes);  // NOLINT(bugprone-reserved-identifier)

namespace korvane::player {
namespace {

constexpr int kErrorPriority = 6;

/// Errors that a healthy library logs here.
constexpr const char* kUsualErrors[] = {"SCHED_FIFO", "deleted while running"};

/// The renderer's locks, by their places in it. The binary interface fixes the order of members.
struct NamedLock {
    int64_t offset;
    const char* name;
};
constexpr NamedLock kRendererLocks[] = {{96, "the queue's lock"},
                                        {168, "mInputLock"},
                                        {256, "mShowLock"},
                                        {368, "mRenderTimeLock"},
                                        {568, "mCallbackLock"}};

std::string lockName(int64_t offset) {
    for (const auto& lock : kRendererLocks) {
        if (lock.offset == offset) {
            return lock.name;
        }
    }
    return "a lock outside the renderer";
}

}  // namespace

std::string unnamedLocks(int type, bool peeked, const std::vector<int64_t>& offsets) {
    std::string unnamed;
    for (const int64_t offset : offsets) {
        const std::string name = lockName(offset);
        const bool named = name == "mRenderTimeLock"
                               ? type == kRenderTimeCallback || peeked
                               : name == "mInputLock" && peeked && type != kRenderTimeCallback;
        if (!named) {
            unnamed += (unnamed.empty() ? "" : ", ") + name;
        }
    }
    return unnamed;
}

Runner::Runner(int buffers) : mBuffers(buffers) {
    tv::setProperty(tv::kLogMaskProperty, "0");
    tv::observeLog([this](const tv::LogLine& line) {
        const auto contains = [&](const char* text) {
            return line.text.find(text) != std::string::npos;
        };
        if (line.priority >= kErrorPriority &&
            std::none_of(std::begin(kUsualErrors), std::end(kUsualErrors), contains)) {
            mErrors.insert(withoutNumbers(line.text));
        }
    });
}

Runner::~Runner() {
    tv::observeLog(nullptr);
}

RunReport Runner::play(const Program& program, tv::Strategy& strategy,
                       const RunnerOptions& runnerOptions) {
    mStrategy = &strategy;
    mErrors.clear();
    RunReport report;
    tv::VirtualTimeOptions options;
    options.schedule = runnerOptions.around != nullptr ? runnerOptions.around : &strategy;
    options.plainAccesses = runnerOptions.plainAccesses;
    options.observer = &mExploration;
    options.computeSeconds = 0;
    options.longestRunNs = program.longestUs * 1000;
    mExploration.beginRun();
    {
        tv::VirtualTime time(1, options);
        // In virtual time a trace is written without a thread of its own.
        std::string error;
        const bool traces =
            !runnerOptions.traceFile.empty() && tv::startTrace(runnerOptions.traceFile, &error);
        const std::string hang =
            time.run([&] { report.faults = playProgram(program, mBuffers, *this); });
        error = traces ? tv::stopTrace().failure : error;
        if (!error.empty()) {
            report.faults.push_back({"--trace: " + error, ""});
        }
        report.statistics = time.statistics();
        if (!hang.empty()) {
            report.hung = true;
            const bool runsAway = hang.find("longestRunNs") != std::string::npos;
            report.faults.push_back(
                {runsAway ? "hang: threads wait for what never comes" : "hang: " + hang,
                 time.failure()});
        }
    }
    mExploration.endRun(!report.hung);
    for (const auto& fault : mExploration.faults()) {
        // A descriptor that is no fence stays open.
        const bool meant =
            fault.kind == tv::ExploredFault::Kind::DescriptorLeak &&
            hasFault(program, [](const TvFaults& faults) { return faults.tunnel.fenceWrongMode; });
        if (fault.inThisRun && !meant) {
            report.faults.push_back({fault.what, fault.details});
        }
    }
    if (!mayLogErrors(program)) {
        for (const auto& error : mErrors) {
            report.faults.push_back({"the library logs an error: " + error, ""});
        }
    }
    return report;
}

void Runner::onCallback(const VideoTunnelRenderer* renderer, int type, bool peeked,
                        std::vector<Fault>* faults) {
    std::vector<int64_t> offsets;
    for (const auto& held : mExploration.heldLocks()) {
        offsets.push_back(static_cast<const char*>(held.lock) -
                          reinterpret_cast<const char*>(renderer));
    }
    const std::string unnamed = unnamedLocks(type, peeked, offsets);
    if (!unnamed.empty()) {
        faults->push_back({fmt::format("a callback of type {} runs under {}", type, unnamed), ""});
    }
}

void Runner::onRead(const void* record, size_t bytes) {
    __tsan_read_range(const_cast<void*>(record), bytes);
}

int64_t Runner::awayNs() const {
    return mStrategy->awayNs();
}

}  // namespace korvane::player
