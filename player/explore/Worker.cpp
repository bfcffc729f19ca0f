// SPDX-License-Identifier: Apache-2.0
#include "player/explore/Worker.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

#include "player/explore/Message.h"
#include "tv/Log.h"
#include "tv/explore/SharedPlaces.h"

namespace korvane::player {
namespace {

constexpr int kLogNoLine = 8;
/// A run that hangs leaves its threads and what they hold behind; then a fresh process goes on.
constexpr int kMostHangs = 100;
constexpr int kLearningRuns = 15;
constexpr size_t kSignalStackBytes = size_t{256} << 10;
constexpr int kCrashSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};

/// For the signal handler.
struct CrashTeller {
    int pipe = -1;
    const Runner* runner = nullptr;
    const tv::Strategy* strategy = nullptr;
    CrashRecord record;
};
CrashTeller gCrash;

const void* codeOf(void* context) {
    const auto& machine = static_cast<ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
    // The kernel tells the instruction as a number.
    return reinterpret_cast<const void*>(  // NOLINT(performance-no-int-to-ptr)
        machine.gregs[REG_RIP]);
#elif defined(__aarch64__)
    return reinterpret_cast<const void*>(machine.pc);  // NOLINT(performance-no-int-to-ptr)
#else
    return nullptr;
#endif
}

/// The schedule first, which needs nothing that the crash may have broken; then what helps to
/// understand it. A second crash ends the process.
void onCrash(int signal, siginfo_t* /*info*/, void* context) {
    if (gCrash.strategy != nullptr) {
        const auto& deviations = gCrash.strategy->deviations();
        gCrash.record.signal = signal;
        gCrash.record.code = codeOf(context);
        gCrash.record.deviations = static_cast<uint32_t>(deviations.size());
        sendCrash(gCrash.pipe, gCrash.record, deviations.data());
        const auto calls = gCrash.runner->callStack();
        sendMessage(gCrash.pipe, MessageKind::CrashCalls,
                    {reinterpret_cast<const char*>(calls.data()), calls.size() * sizeof(void*)});
    }
    _exit(128 + signal);
}

/// @param points  that a run of the program has, about
std::unique_ptr<tv::Strategy> makeStrategy(const ExploreOptions& options, StrategyKind kind,
                                           uint64_t seed, uint64_t points) {
    tv::RandomOptions random;
    random.seed = seed;
    switch (kind) {
        case StrategyKind::Random:
            return std::make_unique<tv::RandomWalk>(random);
        case StrategyKind::Pct:
            return std::make_unique<tv::Pct>(random, options.depth, points);
        case StrategyKind::Exhaustive:
            break;
    }
    return std::make_unique<tv::Exhaustive>(options.preemptions);
}

/// A program and a strategy that visits its schedules.
struct Visit {
    size_t program;
    StrategyKind kind;
    std::unique_ptr<tv::Strategy> strategy;
};

/// What a worker adds its runs to.
struct Tally {
    ExploreShare& share;
    int pipe;

    void add(size_t program, StrategyKind kind, const tv::Strategy& strategy,
             const RunReport& report) const {
        share.runs.fetch_add(1, std::memory_order_relaxed);
        share.points.fetch_add(report.statistics.points, std::memory_order_relaxed);
        share.saw(report.statistics.trace + program);
        const std::string schedule =
            report.faults.empty() ? std::string() : tv::toText(strategy.deviations());
        for (const auto& fault : report.faults) {
            sendMessage(pipe, MessageKind::Fault,
                        joinFields({std::to_string(program), std::to_string(static_cast<int>(kind)),
                                    schedule, fault.what, fault.detail}));
        }
    }
};

/// What is known of a program before it is explored.
struct Learned {
    tv::SharedPlaces places;  ///< where it matters who runs; empty: not known
    uint64_t points = 0;      ///< there, in a run
};

/// A worker that replaces a crashed one starts at once, without the places.
void learn(Runner& runner, const ExploreOptions& options, size_t index, const WorkerId& id,
           const Tally& tally, Learned* learned) {
    const Program& program = options.programs[index];
    tv::RandomOptions random;
    random.seed = options.seed;
    tv::RandomWalk walk(random);
    tellCrashesOf(index, StrategyKind::Random, walk);
    const bool needed = std::any_of(options.strategies.begin(), options.strategies.end(),
                                    [](StrategyKind kind) { return kind != StrategyKind::Random; });
    const int runs = needed && id.life == 0 ? kLearningRuns : 0;
    for (int i = 0; i < runs && !tally.share.stop && walk.next(); ++i) {
        tv::Learning learning(walk, learned->places);
        RunnerOptions learns;
        learns.around = &learning;
        tally.add(index, StrategyKind::Random, walk, runner.play(program, walk, learns));
        learned->places.endRun();
    }
    tv::Replay undisturbed({});
    if (learned->places.count() > 0) {
        undisturbed.onlyAt(&learned->places);
    }
    undisturbed.next();
    tellCrashesOf(index, options.strategies.front(), undisturbed);
    const uint64_t points = runner.play(program, undisturbed).statistics.points;
    learned->points = learned->places.count() > 0 ? undisturbed.pointsThere() : points;
}

/// Each worker visits every program with seeds of its own, but an exhaustive visit is one worker's.
std::vector<Visit> visitsOf(const ExploreOptions& options, const WorkerId& id,
                            const std::vector<Learned>& learned) {
    std::vector<Visit> visits;
    uint64_t seed = (options.seed << 32) + (static_cast<uint64_t>(id.worker) << 24) +
                    (static_cast<uint64_t>(id.life) << 12);
    for (const auto kind : options.strategies) {
        for (size_t i = 0; i < options.programs.size(); ++i) {
            const bool mine =
                i % static_cast<size_t>(options.jobs) == static_cast<size_t>(id.worker);
            if (kind != StrategyKind::Exhaustive || (mine && id.life == 0)) {
                visits.push_back({i, kind, makeStrategy(options, kind, ++seed, learned[i].points)});
                // A walk goes faster where it need not ask at each point.
                if (kind != StrategyKind::Random && learned[i].places.count() > 0) {
                    visits.back().strategy->onlyAt(&learned[i].places);
                }
            }
        }
    }
    return visits;
}

void sendExhausted(int pipe, const Visit& visit, bool complete) {
    const uint64_t runs = visit.strategy->run() - (complete ? 0 : 1);
    sendMessage(
        pipe, MessageKind::Exhausted,
        joinFields({std::to_string(visit.program), std::to_string(runs), complete ? "1" : "0"}));
}

bool wasExhausted(const Visit& visit) {
    const auto& strategy = static_cast<const tv::Exhaustive&>(*visit.strategy);
    return strategy.complete() && !strategy.diverged();
}

}  // namespace

void ExploreShare::saw(uint64_t trace) {
    const uint64_t bit = (trace * 0x9e3779b97f4a7c15) >> (64 - kBitsLog2);
    const uint64_t mask = uint64_t{1} << (bit % 64);
    if ((seen[bit / 64].fetch_or(mask, std::memory_order_relaxed) & mask) == 0) {
        setBits.fetch_add(1, std::memory_order_relaxed);
    }
}

uint64_t ExploreShare::distinct() const {
    const double bits = std::ldexp(1.0, kBitsLog2);
    const double isFree = 1.0 - static_cast<double>(setBits.load()) / bits;
    return static_cast<uint64_t>(std::llround(-bits * std::log(isFree)));
}

std::unique_ptr<ExploreShare, void (*)(ExploreShare*)> makeShare() {
    void* memory = mmap(nullptr, sizeof(ExploreShare), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "cannot share memory");
    }
    return {static_cast<ExploreShare*>(memory),
            [](ExploreShare* share) { munmap(share, sizeof *share); }};
}

void tellCrashes(int pipe, const Runner& runner) {
    gCrash.pipe = pipe;
    gCrash.runner = &runner;
    static std::vector<char> stack(kSignalStackBytes);
    stack_t alternate{};
    alternate.ss_sp = stack.data();
    alternate.ss_size = stack.size();
    sigaltstack(&alternate, nullptr);
    struct sigaction action {};
    action.sa_sigaction = &onCrash;
    action.sa_flags = static_cast<int>(SA_SIGINFO | SA_ONSTACK | SA_RESETHAND);
    for (const int signal : kCrashSignals) {
        sigaction(signal, &action, nullptr);
    }
}

void tellCrashesOf(size_t program, StrategyKind kind, const tv::Strategy& strategy) {
    gCrash.strategy = &strategy;
    gCrash.record.program = static_cast<uint32_t>(program);
    gCrash.record.strategy = static_cast<uint32_t>(kind);
}

void becomeWorker() {
    // The parent takes Ctrl-C and tells when to stop.
    signal(SIGINT, SIG_IGN);
    tv::openLog(kLogNoLine);
}

void work(const ExploreOptions& options, const WorkerId& id, ExploreShare& share, int pipe) {
    Runner runner;
    tellCrashes(pipe, runner);
    const Tally tally{share, pipe};
    std::vector<Learned> learned(options.programs.size());
    for (size_t i = 0; i < learned.size(); ++i) {
        learn(runner, options, i, id, tally, &learned[i]);
    }
    auto visits = visitsOf(options, id, learned);
    int hangs = 0;
    for (size_t turn = 0; !visits.empty() && !share.stop && hangs < kMostHangs; ++turn) {
        const size_t at = turn % visits.size();
        Visit& visit = visits[at];
        if (options.schedules > 0 && share.claimed.fetch_add(1) >= options.schedules) {
            break;
        }
        if (!visit.strategy->next()) {
            sendExhausted(pipe, visit, wasExhausted(visit));
            visits.erase(visits.begin() + static_cast<std::ptrdiff_t>(at));
            continue;
        }
        tellCrashesOf(visit.program, visit.kind, *visit.strategy);
        const RunReport report = runner.play(options.programs[visit.program], *visit.strategy);
        tally.add(visit.program, visit.kind, *visit.strategy, report);
        hangs += report.hung ? 1 : 0;
    }
    for (const auto& visit : visits) {
        if (visit.kind == StrategyKind::Exhaustive) {
            sendExhausted(pipe, visit, false);
        }
    }
    const auto pairs = runner.coverage();
    sendMessage(pipe, MessageKind::Coverage,
                joinFields({std::to_string(pairs.pairs), std::to_string(pairs.inBothOrders)}));
    // Run no destructors and flush no buffers that belong to the parent.
    _exit(hangs < kMostHangs ? 0 : 1);
}

}  // namespace korvane::player
