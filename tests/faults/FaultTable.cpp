// SPDX-License-Identifier: Apache-2.0
// The table of faults: each call of the library x each way to fail x the first call, the tenth, all
// of them, in three kinds of playback; then pairs of them, sampled.
//
// A case is a short playback in virtual time: start, frames, flush, frames, flush, two frames that
// are due much later, stop, delete. Afterwards every frame is accounted for: refused, returned
// once, or kept where the library says that it keeps frames. Descriptors and memory are given back,
// and `stop` has ended in time.
//
// A child process plays the cases. When one crashes or hangs, the parent names it, and another
// child goes on behind it.
#include <dirent.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "VideoTunnelRenderer.h"
#include "mediasync/VideoSyncWraper.h"
#include "tests/faults/Faults.h"
#include "tv/AudioOutput.h"
#include "tv/Log.h"
#include "tv/Properties.h"
#include "tv/Tv.h"
#include "tv/clock/VirtualTime.h"
#include "videotunnel/VideoTunnelOps.h"

namespace korvane::test {
namespace {

enum Kind { kNoAudio, kAudio, kPassthrough, kKinds };
const char* const kKindNames[] = {"no audio", "audio", "pass-through"};

constexpr int kFirstFd = 10'000;  // no open descriptors: buffers without a picture
constexpr long kFrameUs = 41'667;
constexpr long kSeekUs = 10'000'000;

struct Case {
    Kind kind;
    std::vector<Fault> faults;
};

std::string toString(const Case& c) {
    std::string text = kKindNames[c.kind];
    for (const Fault& fault : c.faults) {
        text += ": " + toString(fault);
    }
    return text;
}

std::set<int> openDescriptors() {
    DIR* const folder = opendir("/proc/self/fd");
    std::set<int> descriptors;
    while (const dirent* entry = readdir(folder)) {
        descriptors.insert(std::atoi(entry->d_name));  // "." and ".." count as 0
    }
    closedir(folder);
    return descriptors;
}

/// @return how many descriptors were open that were not open before
int closeNew(const std::set<int>& before) {
    int count = 0;
    for (const int descriptor : openDescriptors()) {
        count += before.count(descriptor) == 0 && close(descriptor) == 0 ? 1 : 0;
    }
    return count;
}

struct Sent {
    bool accepted = false;
    int returned = 0;
};

/// Plays one case.
class Player {
public:
    Player(Kind kind, FaultyRun& run) : mKind(kind), mRun(run) {
        tv::setProperty(tv::kLogMaskProperty, "3");
        tv::TunnelFaults faults;
        faults.vsyncQueryFails = kind == kAudio;  // so the display adapter is asked
        mTv->tunnel().setFaults(faults);
        mSync = mTv->mediaSync().create();
        if (kind == kAudio) {
            tv::AudioConfig audio;
            audio.underflows = {{kSeekUs + 200'000, 150'000}};
            mAudio.emplace(mSync, audio);
        }
    }

    void play() {
        mRenderer.reset(VideoTunnelRenderer_create());
        if (mRenderer == nullptr) {
            return;
        }
        mRenderer->init(mKind == kNoAudio ? 0 : mSync->id() | (mKind == kAudio ? 0 : 0x10000));
        mRenderer->regCallBack(kFrameStatusCallback, &Player::onStatus, this);
        mRenderer->regCallBack(
            kRenderTimeCallback, [](void*, void*) { return 0; }, nullptr);
        mTunnelId = mRenderer->getTunnelId();
        mRenderer->setFrameRate(2400);
        mRenderer->start();
        section(0, 12);
        flush();
        section(kSeekUs, 14);
        flush();
        mSentBeforeFlush = mSent.size();
        send(2 * kSeekUs, false);
        send(2 * kSeekUs + kFrameUs, false);
        usleep(10'000);
        mRun.stopping = true;
        const int64_t start = tv::nowNs();
        mRenderer->stop();
        mStopNs = tv::nowNs() - start;
        mRenderer.reset();
        callWhatNoRendererCalls();
    }

    /// @return empty when the case went well
    std::string complaint() const {
        for (const std::string& text : {frames(), buffers(), resources()}) {
            if (!text.empty()) {
                return text;
            }
        }
        return "";
    }

private:
    /// Each is refused, returned once, or kept by the tunnel.
    std::string frames() const {
        constexpr int kTunnelKeeps = 2;
        int kept = 0;
        int twice = 0;
        for (size_t i = 0; i < mSent.size(); ++i) {
            const Sent& sent = mSent[i];
            const bool offered = mRun.offeredToTunnel.count(kFirstFd + static_cast<int>(i)) != 0;
            if (!sent.accepted && (sent.returned > 0 || offered)) {
                return "frame " + std::to_string(i) + " was refused and played nevertheless";
            }
            twice += std::max(sent.returned - 1, 0);
            // What is sent between a flush and a stop may stay in the queue.
            if (!sent.accepted || sent.returned > 0 || i >= mSentBeforeFlush) {
                continue;
            }
            ++kept;
            if (!offered && mTunnelId >= 0 && gVideoTunnelOps.mQueueBuffer != nullptr) {
                return "frame " + std::to_string(i) + " is lost";
            }
        }
        // With audio, a flush may meet a frame in the wait for audio's start, which is then
        // returned and processed like any other.
        if (twice > (mKind == kAudio ? 2 : 0)) {
            return std::to_string(twice) + " frames were returned twice";
        }
        const bool faultless = std::count(mStruck.begin(), mStruck.end(), 0) == point::kCount;
        return faultless && kept > kTunnelKeeps ? std::to_string(kept) + " frames are kept" : "";
    }

    /// Each that was dequeued is returned, unless its fence fails or the tunnel made it up.
    std::string buffers() const {
        int lost = 0;
        for (const tv::BufferRecord& buffer : mTv->tunnel().record()) {
            lost += buffer.takenBackNs != 0 && mSent.at(buffer.fd - kFirstFd).returned == 0 ? 1 : 0;
        }
        if (lost > mStruck[point::fenceWait] + mStruck[point::fcntl] + mStruck[point::fstat] +
                       mStruck[point::dequeue_buffer]) {
            return std::to_string(lost) + " buffers were dequeued and not returned";
        }
        return mUnknown > mStruck[point::dequeue_buffer] ? "a buffer came back that was never sent"
                                                         : "";
    }

    std::string resources() const {
        constexpr int64_t kLongestStopNs = 1'500'000'000;
        const auto& calls = mRun.calls;
        if (calls[point::pthread_join] !=
            calls[point::pthread_create] - mStruck[point::pthread_create]) {
            return "threads that were created and those that were joined differ";
        }
        const int64_t pieces = mRun.livePieces - calls[point::fenceWait];  // freed elsewhere
        if (pieces != 0) {
            return std::to_string(pieces) + " pieces of memory were not freed";
        }
        const bool closes =
            mStruck[point::open] + mStruck[point::close] == 0 && gVideoTunnelOps.mClose != nullptr;
        if (closes && mTv->tunnel().openDevices() > 0) {
            return "the tunnel's device is open";
        }
        return mStopNs > kLongestStopNs ? "stop took " + std::to_string(mStopNs) + " ns" : "";
    }

    static int onStatus(void* self, void* info) {
        auto* const player = static_cast<Player*>(self);
        const auto index = static_cast<size_t>(static_cast<framestatus*>(info)->fd - kFirstFd);
        if (index < player->mSent.size()) {
            ++player->mSent[index].returned;
        } else {
            ++player->mUnknown;
        }
        return 0;
    }

    void send(long mediaUs, bool peek) {
        const size_t index = mSent.size();
        mSent.emplace_back();
        if (mKind == kPassthrough) {
            mRenderer->onVideoSyncQueueVideoFrame(mediaUs, 1000);
        }
        const int fd = kFirstFd + static_cast<int>(index);
        mSent[index].accepted = mRenderer->sendVideoFrame(fd, mediaUs, peek) == 1;
    }

    void section(long fromUs, int frames) {
        constexpr long kPacketUs = 20'000;
        if (mAudio) {
            for (int i = 0; i < 60; ++i) {
                mAudio->queue(fromUs + i * kPacketUs, kPacketUs);
            }
        } else {
            mRenderer->updateVideoTime(fromUs);
        }
        for (int i = 0; i < frames; ++i) {
            send(fromUs + i * kFrameUs, i == 0);
            usleep(kFrameUs);
        }
    }

    void flush() {
        if (mAudio) {
            mAudio->flush();
        }
        mRenderer->flush();
        usleep(100'000);
    }

    static void callWhatNoRendererCalls() {
        VideoSyncWraper sync;
        long value = 0;
        int number = 0;
        if (sync.hasClient()) {
            sync.getMediaTime(0, &value, false);
            sync.getRealTimeForNextVsync(&value);
            sync.setUpdateTimeThreshold(1);
            sync.getUpdateTimeThreshold(&value);
            sync.getParameter(MEDIASYNC_KEY_PARAM7, &number);
            sync.reset();
        }
    }

    const Kind mKind;
    FaultyRun& mRun;
    const std::array<int, point::kCount>& mStruck = mRun.struck;
    const std::shared_ptr<tv::Tv> mTv = tv::Tv::powerOn({});
    std::shared_ptr<tv::SyncInstance> mSync;
    std::optional<tv::AudioOutput> mAudio;
    std::unique_ptr<VideoTunnelRenderer> mRenderer;
    int mTunnelId = -1;
    std::vector<Sent> mSent;
    size_t mSentBeforeFlush = 0;
    int mUnknown = 0;  ///< returned, never sent
    int64_t mStopNs = 0;
};

struct Outcome {
    std::string complaint;
    std::array<int, point::kCount> calls;
    int struck;
};

Outcome playCase(const Case& c, uint64_t seed) {
    const std::set<int> before = openDescriptors();
    tv::VirtualTimeOptions options;
    options.preemptions = 2048;
    options.longestPreemptionNs = 100'000;
    options.callsPerInstant = 1'000'000;
    options.computeSeconds = 5;
    options.longestRunNs = int64_t{300} * 1'000'000'000;
    Outcome outcome{};
    int fencesLeftOpen = 0;
    {
        const tv::VirtualTime time(seed, options);
        FaultyRun run(c.faults, seed);
        {
            Player player(c.kind, run);
            player.play();
            outcome.complaint = player.complaint();
        }
        tv::clearProperties();
        outcome.calls = run.calls;
        for (const Fault& fault : c.faults) {
            outcome.struck += run.struck[fault.point] > 0 ? 1 : 0;
        }
        // A descriptor that fails the check of a fence stays open: it is none of the library's.
        fencesLeftOpen = run.struck[point::fcntl] + run.struck[point::fstat];
    }
    const int left = closeNew(before);
    if (outcome.complaint.empty() && left > fencesLeftOpen) {
        outcome.complaint = std::to_string(left) + " descriptors are open";
    }
    return outcome;
}

/// Every single fault that a playback of this kind meets.
std::vector<Fault> singles(const std::array<int, point::kCount>& calls) {
    constexpr int kTenth = 10;
    constexpr int kSweep = 24;
    std::vector<Fault> faults;
    for (int i = 0; i < point::kCount; ++i) {
        const auto point = static_cast<Point>(i);
        for (const How how : waysToFail(point)) {
            const auto add = [&](int from, int to) { faults.push_back({point, how, from, to}); };
            if (how != How::Absent && calls[i] > 0) {
                const int last = isSwept(point) ? std::min(calls[i], kSweep) : 1;
                for (int call = 1; call <= last; ++call) {
                    add(call, call);
                }
                if (last < kTenth && calls[i] >= kTenth) {
                    add(kTenth, kTenth);
                }
            }
            if (how == How::Absent || calls[i] > 0) {
                faults.push_back({point, how});
            }
        }
    }
    return faults;
}

struct Options {
    size_t pairs = 6000;
    uint64_t seed = 1;
    std::string only;  ///< part of the name of the cases to play
};

/// What parent and child share.
struct Progress {
    size_t done;  ///< cases that need not be played again
    size_t failed;
    size_t points;
    size_t singles;
    size_t struck;
    double possiblePairs;
    char current[400];
};

std::vector<Case> table(const Options& options, Progress* progress) {
    std::vector<Case> cases;
    std::vector<Fault> ofKind[kKinds];
    progress->possiblePairs = 0;
    for (int kind = 0; kind < kKinds; ++kind) {
        // The second fault strikes nothing, but the libraries are loaded again and their loading
        // is counted.
        const Case faultless{static_cast<Kind>(kind), {{point::dlopen, How::Error, 1000, 1000}}};
        std::snprintf(progress->current, sizeof(progress->current), "%s", kKindNames[kind]);
        const Outcome outcome = playCase(faultless, options.seed);
        if (!outcome.complaint.empty()) {
            std::printf("FAILED  %s, without faults: %s\n", kKindNames[kind],
                        outcome.complaint.c_str());
            _exit(1);
        }
        ofKind[kind] = singles(outcome.calls);
        for (const Fault& fault : ofKind[kind]) {
            cases.push_back({static_cast<Kind>(kind), {fault}});
        }
        const auto count = static_cast<double>(ofKind[kind].size());
        progress->possiblePairs += count * (count - 1) / 2;
    }
    progress->singles = cases.size();
    progress->points = 0;
    for (int point = 0; point < point::kCount; ++point) {
        const bool reached = std::any_of(cases.begin(), cases.end(), [&](const Case& c) {
            return c.faults[0].point == point && c.faults[0].how != How::Absent;
        });
        if (!reached && !waysToFail(static_cast<Point>(point)).empty()) {
            std::printf("FAILED  no playback calls %s\n", nameOf(static_cast<Point>(point)));
            _exit(1);
        }
        progress->points += reached ? 1 : 0;
    }
    std::mt19937_64 random(options.seed);
    for (size_t i = 0; i < options.pairs; ++i) {
        const auto kind = static_cast<Kind>(random() % kKinds);
        const auto pick = [&] { return ofKind[kind][random() % ofKind[kind].size()]; };
        const Fault first = pick();
        cases.push_back({kind, {first, pick()}});
    }
    return cases;
}

[[noreturn]] void playCases(const Options& options, Progress* progress) {
    const std::vector<Case> cases = table(options, progress);
    while (progress->done < cases.size()) {
        const Case& c = cases[progress->done];
        const std::string name = toString(c);
        std::snprintf(progress->current, sizeof(progress->current), "%s", name.c_str());
        ++progress->done;
        if (name.find(options.only) == std::string::npos) {
            continue;
        }
        const Outcome outcome = playCase(c, options.seed);
        progress->struck += static_cast<size_t>(outcome.struck);
        if (!outcome.complaint.empty()) {
            ++progress->failed;
            std::printf("FAILED  %s: %s\n", name.c_str(), outcome.complaint.c_str());
        }
    }
    _exit(0);
}

double cpuSecondsOfChildren() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

int playAll(const Options& options) {
    void* const shared =
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto* const progress = new (shared) Progress{};
    for (;;) {
        const size_t before = progress->done;
        const pid_t child = fork();
        if (child == 0) {
            playCases(options, progress);
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            break;
        }
        ++progress->failed;
        const bool hangs = WIFEXITED(status) && WEXITSTATUS(status) == tv::kHangStatus;
        std::printf("FAILED  %s: %s\n", progress->current,
                    hangs                 ? "hangs"
                    : WIFSIGNALED(status) ? strsignal(WTERMSIG(status))
                                          : "ends the process");
        if (progress->done == before) {
            return 1;  // a playback without faults
        }
    }
    std::printf(
        "%zu calls of the library; %zu single faults, %zu of %.0f pairs, seed %llu: %zu "
        "struck, %zu cases failed, %.1f s of CPU\n",
        progress->points, progress->singles, options.pairs, progress->possiblePairs,
        static_cast<unsigned long long>(options.seed), progress->struck, progress->failed,
        cpuSecondsOfChildren());
    return progress->failed == 0 ? 0 : 1;
}

}  // namespace
}  // namespace korvane::test

int main(int argc, char** argv) {
    using namespace korvane;
    test::Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--pairs") {
            options.pairs = std::strtoull(argv[i + 1], nullptr, 10);
        } else if (name == "--seed") {
            options.seed = std::strtoull(argv[i + 1], nullptr, 10);
        } else if (name == "--only") {
            options.only = argv[i + 1];
        }
    }
    if (argc % 2 == 0) {
        std::printf("fault_table [--pairs COUNT] [--seed NUMBER] [--only PART_OF_A_CASE]\n");
        return 2;
    }
    tv::openLog(8);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::string uncovered = test::installHooks();
    if (!uncovered.empty()) {
        std::printf("FAILED  %s\n", uncovered.c_str());
        return 1;
    }
    return test::playAll(options);
}
