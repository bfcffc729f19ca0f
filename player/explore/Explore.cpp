// SPDX-License-Identifier: Apache-2.0
#include "player/explore/Explore.h"
#include "player/base/ChildProcess.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "player/explore/Message.h"
#include "player/explore/Worker.h"

namespace korvane::player {
namespace {

using std::chrono::steady_clock;

constexpr int kPollMs = 50;
constexpr int64_t kProgressUs = 1'000'000;
/// Longest time without a run that ends: a thread computes without end.
constexpr int64_t kStuckUs = 20'000'000;

struct WorkerProcess {
    WorkerId id;
    pid_t pid = -1;
    int pipe = -1;
    std::string read;
    std::optional<Crash> crash;  ///< its own, once it has told
};

class Parent {
public:
    Parent(const ExploreOptions& options, const ExploreHooks& hooks)
        : mOptions(options), mHooks(hooks), mShare(makeShare()), mBegan(steady_clock::now()) {}

    ExploreResult run() {
        for (int i = 0; i < mOptions.jobs; ++i) {
            start({i, 0});
        }
        while (!mWorkers.empty()) {
            waitForNews();
            if (isOver()) {
                mShare->stop = true;
            }
            watchProgress();
        }
        update();
        return std::move(mResult);
    }

private:
    int64_t tookUs() const {
        return std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - mBegan)
            .count();
    }

    bool isOver() const {
        return (mOptions.forUs > 0 && tookUs() >= mOptions.forUs) ||
               (mOptions.untilFault && !mResult.faults.empty()) ||
               (mHooks.interrupted && mHooks.interrupted());
    }

    void start(const WorkerId& id) {
        const ChildProcess child = startChild([&](int pipe) {
            becomeWorker();
            work(mOptions, id, *mShare, pipe);
        });
        WorkerProcess worker;
        worker.id = id;
        worker.pid = child.pid;
        worker.pipe = child.pipe;
        mWorkers.push_back(std::move(worker));
    }

    void waitForNews() {
        std::vector<pollfd> fds;
        for (const auto& worker : mWorkers) {
            fds.push_back({worker.pipe, POLLIN, 0});
        }
        if (poll(fds.data(), fds.size(), kPollMs) <= 0) {
            return;
        }
        for (size_t i = fds.size(); i-- > 0;) {
            if (fds[i].revents != 0 && !readFrom(mWorkers[i])) {
                end(i);
            }
        }
    }

    /// @return false at the end
    bool readFrom(WorkerProcess& worker) {
        char block[1 << 16];
        const ssize_t count = read(worker.pipe, block, sizeof block);
        if (count <= 0) {
            return count < 0 && errno == EINTR;
        }
        worker.read.append(block, static_cast<size_t>(count));
        for (const auto& message : takeMessages(&worker.read)) {
            take(worker, message);
        }
        return true;
    }

    void take(WorkerProcess& worker, const Message& message) {
        const bool raw =
            message.kind == MessageKind::Crash || message.kind == MessageKind::CrashCalls;
        const Fields fields = raw ? Fields() : splitFields(message.bytes);
        switch (message.kind) {
            case MessageKind::Fault:
                note({{fields.at(3), fields.at(4)},
                      std::stoul(fields.at(0)),
                      static_cast<StrategyKind>(std::stoi(fields.at(1))),
                      fields.at(2)});
                break;
            case MessageKind::Crash:
                worker.crash.emplace();
                worker.crash->schedule = readCrash(message.bytes, &worker.crash->record);
                break;
            case MessageKind::CrashCalls:
                worker.crash->calls = readCalls(message.bytes);
                break;
            case MessageKind::Exhausted:
                mResult.exhausted.push_back(
                    {std::stoul(fields.at(0)), std::stoul(fields.at(1)), fields.at(2) == "1"});
                break;
            case MessageKind::Coverage:
                mResult.pairs.pairs =
                    std::max<size_t>(mResult.pairs.pairs, std::stoul(fields.at(0)));
                mResult.pairs.inBothOrders =
                    std::max<size_t>(mResult.pairs.inBothOrders, std::stoul(fields.at(1)));
                break;
            case MessageKind::Listing:
                break;
        }
    }

    void note(FoundFault found) {
        auto& list = deliberateReason(found.fault) != nullptr ? mResult.deliberate : mResult.faults;
        auto known = std::find_if(list.begin(), list.end(), [&](const FoundFault& other) {
            return other.fault.what == found.fault.what;
        });
        if (known == list.end()) {
            found.afterSchedules = mShare->runs;
            found.afterUs = tookUs();
            list.push_back(std::move(found));
            known = std::prev(list.end());
        }
        ++known->count;
    }

    void end(size_t index) {
        WorkerProcess worker = std::move(mWorkers[index]);
        mWorkers.erase(mWorkers.begin() + static_cast<std::ptrdiff_t>(index));
        close(worker.pipe);
        int status = 0;
        while (waitpid(worker.pid, &status, 0) < 0 && errno == EINTR) {
        }
        if (worker.crash) {
            const CrashRecord& record = worker.crash->record;
            note({faultAt(*worker.crash), record.program,
                  static_cast<StrategyKind>(record.strategy), tv::toText(worker.crash->schedule)});
        }
        const bool whole = WIFEXITED(status) != 0 && WEXITSTATUS(status) == 0;
        const bool told = worker.crash || mShare->runs != mRunsAtDeath;
        mRunsAtDeath = mShare->runs;
        if (!whole && !told) {
            FoundFault found;
            found.fault.what = fmt::format(
                "a process that explores ends with status {} before its first run", status);
            note(std::move(found));
        } else if (!whole && !isOver()) {
            start({worker.id.worker, worker.id.life + 1});
        }
    }

    /// Looks up each place once: many runs crash at the same one.
    Fault faultAt(const Crash& crash) {
        const auto key = std::make_pair(crash.record.signal,
                                        ofTheLibrary(crash.record.code) || crash.calls.empty()
                                            ? crash.record.code
                                            : crash.calls.front());
        const auto known = mCrashes.find(key);
        return known != mCrashes.end() ? known->second
                                       : mCrashes.emplace(key, faultOf(crash)).first->second;
    }

    void watchProgress() {
        const int64_t nowUs = tookUs();
        if (nowUs < mProgressUs + kProgressUs) {
            return;
        }
        mProgressUs = nowUs;
        update();
        if (mResult.schedules != mLastRuns) {
            mLastRuns = mResult.schedules;
            mMovedUs = nowUs;
        } else if (nowUs > mMovedUs + kStuckUs) {
            // The handler tells where they are.
            for (const auto& worker : mWorkers) {
                kill(worker.pid, SIGABRT);
            }
            mMovedUs = nowUs;
        }
        if (mHooks.onProgress) {
            mHooks.onProgress(mResult);
        }
    }

    void update() {
        mResult.schedules = mShare->runs;
        mResult.points = mShare->points;
        mResult.distinct = std::min(mShare->distinct(), mResult.schedules);
        mResult.tookUs = tookUs();
    }

    const ExploreOptions& mOptions;
    const ExploreHooks& mHooks;
    const std::unique_ptr<ExploreShare, void (*)(ExploreShare*)> mShare;
    const steady_clock::time_point mBegan;
    std::vector<WorkerProcess> mWorkers;
    ExploreResult mResult;
    std::map<std::pair<int32_t, const void*>, Fault> mCrashes;
    int64_t mProgressUs = 0;
    uint64_t mRunsAtDeath = UINT64_MAX;
    uint64_t mLastRuns = 0;
    int64_t mMovedUs = 0;
};

}  // namespace

ExploreResult explore(const ExploreOptions& options, const ExploreHooks& hooks) {
    return Parent(options, hooks).run();
}

}  // namespace korvane::player
