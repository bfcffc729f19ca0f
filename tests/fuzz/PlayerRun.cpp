// SPDX-License-Identifier: Apache-2.0
#include "tests/fuzz/PlayerRun.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

#include "VideoTunnelRenderer.h"
#include "tv/AudioOutput.h"
#include "tv/Log.h"
#include "tv/Properties.h"
#include "tv/Trace.h"
#include "tv/Tv.h"
#include "tv/clock/FiberLocal.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::test {
namespace {

constexpr int kFirstFd = 10'000;        // no open descriptors: buffers without pictures
constexpr int kHandedBackFd = 100'000;  // given to onFillVideoFrame, not sent
constexpr int kUnknownSyncId = 4711;
constexpr int kPassthroughBit = 0x10000;
constexpr int kMostFrames = kRoomForAll;  ///< of one session
constexpr int64_t kFurthestUs = 5'000'000;
constexpr int64_t kLongestSettleUs = 30'000'000;
constexpr int64_t kFenceTimeoutUs = 1'000'000;
/// The workers' polls and steps, and what preemptions take from them.
constexpr int64_t kStopSlackUs = 100'000;

/// How deep a thread is inside calls of the player's that may call back.
const tv::FiberLocal<int32_t> gOwnCalls;

void sleepUs(int64_t us) {
    // In real time what a sleep gives is another order of the threads, not that much time.
    constexpr int64_t kMostRealUs = 2'000;
    const int64_t allowedUs = tv::VirtualTime::active() ? us : std::min(us, kMostRealUs);
    std::this_thread::sleep_for(std::chrono::microseconds(allowedUs));
}

int64_t sleepOf(uint8_t argument) {
    constexpr int64_t kSleepsUs[] = {0,     50,     499,    500,     1'000,   2'000,
                                     5'000, 16'683, 41'708, 100'000, 300'000, 1'000'000};
    return kSleepsUs[argument % std::size(kSleepsUs)];
}

/// What was found wrong; any thread.
class Findings {
public:
    void add(const std::string& text) {
        const std::lock_guard<std::mutex> guard(mLock);
        mTexts.push_back(text);
    }
    std::vector<std::string> take() { return std::move(mTexts); }

private:
    std::mutex mLock;
    std::vector<std::string> mTexts;
};

/// One renderer from create to delete, with the threads that call it.
class Session {
public:
    Session(const PlayerProgram& program, const SessionPlan& plan, tv::Tv& tv, Findings& findings)
        : mProgram(program), mPlan(plan), mTv(tv), mFindings(findings) {}

    void play();

private:
    struct Frame {
        int times[3] = {};  ///< it came back, by the callback's type
        bool taken = false;
        int returns() const { return std::max(times[0], times[2]); }
    };

    static int onReturn0(void* self, void* info);
    static int onReturn2(void* self, void* info);
    static int onRenderTime(void* self, void* info);
    int returned(int type, int fd);
    void checkAlive(const char* callback);
    void callIn(CallIn call);

    int syncId();
    void registerAll();
    void run(size_t thread);
    void carryOut(Operation<Call> operation);
    void send(uint8_t argument, bool peek);
    void anchor(uint8_t argument);
    void readClock();
    void feedAudio(uint8_t argument);
    void flush();
    void start();
    void stop();
    void settle();
    bool allBack(std::string* missing);
    void checkReturns();

    const PlayerProgram& mProgram;
    const SessionPlan& mPlan;
    tv::Tv& mTv;
    Findings& mFindings;
    /// Deleted by `play`; its callbacks use it until the delete is done.
    VideoTunnelRenderer* const mRenderer = VideoTunnelRenderer_create();
    std::shared_ptr<tv::SyncInstance> mInstance;
    std::unique_ptr<tv::AudioOutput> mAudio;
    int mTunnelId = -1;
    bool mWithAudio = false;
    std::atomic<bool> mStarted{false};
    std::atomic<bool> mEverStopped{false};
    std::atomic<bool> mStopped{false};
    std::atomic<bool> mDeleted{false};
    std::atomic<int64_t> mMediaUs{0};
    std::atomic<int> mFlushes{0};
    std::atomic<int> mCalls{0};  ///< of return callbacks
    std::mutex mLock;
    std::map<int, Frame> mFrames;  ///< by descriptor
};

/// Counts the player's own call on this thread: it may be called back until the call returns.
template <typename Function>
auto ownCall(const Function& function) {
    struct Depth {
        Depth() { ++gOwnCalls.get(); }
        ~Depth() { --gOwnCalls.get(); }
    } const depth;
    return function();
}

void Session::play() {
    const int id = syncId();
    mWithAudio = id > 0 && id < kPassthroughBit;
    mRenderer->init(id);
    registerAll();
    mTunnelId = mRenderer->getTunnelId();
    if (mPlan.startsByItself) {
        start();
    }
    std::vector<std::thread> others;
    for (size_t thread = 1; thread < kThreadsPerPlayer; ++thread) {
        if (!mPlan.calls[thread].empty()) {
            others.emplace_back([this, thread] { run(thread); });
        }
    }
    run(0);
    const auto join = [&others] {
        std::for_each(others.begin(), others.end(), [](auto& thread) { thread.join(); });
        others.clear();
    };
    if (mPlan.ending != Ending::StopBesideCalls) {
        join();
    }
    if (mPlan.ending == Ending::SettleThenStop) {
        settle();
    }
    if (mPlan.ending != Ending::DeleteRunning) {
        stop();
    }
    join();
    if (mPlan.ending == Ending::StopTwice) {
        start();
        send(0, false);
        stop();
        stop();
    }
    delete mRenderer;
    mDeleted = true;
    mAudio.reset();
    checkReturns();
}

int Session::syncId() {
    if (mPlan.sync == Sync::None) {
        return 0;
    }
    mInstance = mPlan.sync == Sync::UnknownId ? nullptr : mTv.mediaSync().create();
    if (mInstance == nullptr) {
        return kUnknownSyncId;
    }
    if (mPlan.sync == Sync::Passthrough) {
        return kPassthroughBit | mInstance->id();
    }
    mAudio = std::make_unique<tv::AudioOutput>(mInstance, tv::AudioConfig{});
    return mInstance->id();
}

void Session::registerAll() {
    if (mPlan.returnType0) {
        mRenderer->regCallBack(kFrameReturnCallback, &onReturn0, this);
    }
    if (mPlan.returnType2) {
        mRenderer->regCallBack(kFrameStatusCallback, &onReturn2, this);
    }
    if (mPlan.renderTimes) {
        mRenderer->regCallBack(kRenderTimeCallback, &onRenderTime, this);
    }
}

int Session::onReturn0(void* self, void* info) {
    return static_cast<Session*>(self)->returned(kFrameReturnCallback, *static_cast<int*>(info));
}

int Session::onReturn2(void* self, void* info) {
    return static_cast<Session*>(self)->returned(kFrameStatusCallback,
                                                 static_cast<framestatus*>(info)->fd);
}

int Session::onRenderTime(void* self, void* /*info*/) {
    auto& session = *static_cast<Session*>(self);
    session.checkAlive("render time");
    sleepUs(session.mPlan.callbackUs);
    session.callIn(session.mPlan.inRenderTime);
    return 0;
}

int Session::returned(int type, int fd) {
    checkAlive("return");
    const int call = ++mCalls;
    if (fd < kHandedBackFd) {
        const std::lock_guard<std::mutex> guard(mLock);
        const auto frame = mFrames.find(fd);
        if (frame == mFrames.end()) {
            mFindings.add("a buffer came back that was never sent: " + std::to_string(fd));
        } else {
            ++frame->second.times[type];
        }
    }
    sleepUs(mPlan.callbackUs);
    callIn(mPlan.inReturn);
    return mPlan.refusesEach != 0 && call % mPlan.refusesEach == 0 ? 1 : 0;
}

void Session::checkAlive(const char* callback) {
    if (mDeleted) {
        mFindings.add(std::string("a ") + callback + " callback after the delete");
    } else if (mStopped && gOwnCalls.get() == 0) {
        mFindings.add(std::string("a ") + callback + " callback after stop");
    }
}

void Session::callIn(CallIn call) {
    constexpr int kDeepest = 2;
    if (gOwnCalls.get() >= kDeepest) {
        return;
    }
    ownCall([this, call] {
        switch (call) {
            case CallIn::Flush:
                return flush();
            case CallIn::Register:
                return registerAll();
            case CallIn::Anchor:
                return anchor(0);
            case CallIn::ReadClock:
                return readClock();
            case CallIn::FrameRate:
                return static_cast<void>(mRenderer->setFrameRate(2397));
            case CallIn::Send:
                return send(0, false);
            case CallIn::Nothing:
                return;
        }
    });
}

void Session::run(size_t thread) {
    for (const auto& operation : mPlan.calls[thread]) {
        carryOut(operation);
    }
}

void Session::carryOut(Operation<Call> operation) {
    const uint8_t argument = operation.argument;
    switch (operation.kind) {
        case Call::Send:
        case Call::SendPeek:
            return send(argument, operation.kind == Call::SendPeek);
        case Call::Sleep:
        case Call::Session:
            return sleepUs(sleepOf(argument));
        case Call::Flush:
            return flush();
        case Call::PeekFirst:
            return static_cast<void>(mRenderer->peekFirstFrame());
        case Call::Register:
            return registerAll();
        case Call::Anchor:
            return anchor(argument);
        case Call::ReadClock:
            return readClock();
        case Call::NotifyTime:
            ownCall([this] { return mRenderer->nodifyRenderTime(); });
            return;
        case Call::TakeReleased:
            if (int fd = -1; mRenderer->getNeedFillVideoFrame(&fd)) {
                const std::lock_guard<std::mutex> guard(mLock);
                mFrames[fd].taken = true;
            }
            return;
        case Call::HandBack:
            ownCall([this, argument] {
                return mRenderer->onFillVideoFrame(kHandedBackFd + argument, (argument & 1) != 0);
            });
            return;
        case Call::Announce:
            return static_cast<void>(mRenderer->onVideoSyncQueueVideoFrame(mMediaUs, argument));
        case Call::FrameRate:
            return static_cast<void>(mRenderer->setFrameRate(argument * 50 - 1));
        case Call::AwaitReturns: {
            std::string missing;
            for (int polls = 0; polls < 100 && !allBack(&missing); ++polls) {
                sleepUs(1'000);
            }
            return;
        }
        case Call::Audio:
            return feedAudio(argument);
        case Call::Stop:
            return stop();
        case Call::Start:
            return start();
    }
}

/// One to eight frames; the first one's distance from the last frame sent is not always a frame.
void Session::send(uint8_t argument, bool peek) {
    constexpr int64_t kJumpsUs[] = {0, 0, 0, 0, 11'000, 500'000, -300'000, 2'500'000};
    int64_t mediaUs = mMediaUs + kJumpsUs[argument >> 5];
    for (int i = 0; i <= (argument & 7); ++i) {
        mediaUs = std::clamp<int64_t>(mediaUs, 0, kFurthestUs);
        int fd = 0;
        {
            const std::lock_guard<std::mutex> guard(mLock);
            if (mFrames.size() >= kMostFrames) {
                return;
            }
            fd = kFirstFd + static_cast<int>(mFrames.size());
            mFrames[fd];
        }
        mRenderer->sendVideoFrame(fd, mediaUs, peek);
        mediaUs += mPlan.frameUs;
    }
    mMediaUs = mediaUs;
}

void Session::anchor(uint8_t argument) {
    constexpr int64_t kAwayUs[] = {0, 0, -50'000, 100'000, -1'000'000};
    mRenderer->updateVideoTime(mMediaUs + kAwayUs[argument % std::size(kAwayUs)]);
}

void Session::readClock() {
    long timeUs = 0;
    mRenderer->getRealTimeFor(mMediaUs, &timeUs);
    mRenderer->getTrackMediaTime(&timeUs);
    mRenderer->getStartingTimeMedia(&timeUs);
}

void Session::feedAudio(uint8_t argument) {
    constexpr int64_t kPacketUs = 21'333;
    if (mAudio == nullptr) {
        return;
    }
    switch (argument & 7) {
        case 0:
            return mAudio->pause();
        case 1:
            return mAudio->resume();
        case 2:
            return mAudio->flush();
        case 3:
            return mAudio->endOfStream();
        default:
            for (int i = 0; i <= argument >> 3; ++i) {
                mAudio->queue(mMediaUs + i * kPacketUs, kPacketUs);
            }
    }
}

void Session::flush() {
    ++mFlushes;
    ownCall([this] { return mRenderer->flush(); });
}

void Session::start() {
    mStopped = false;
    mStarted = true;
    mRenderer->start();
}

void Session::stop() {
    const int64_t beganNs = tv::nowNs();
    mRenderer->stop();
    mStopped = true;
    mEverStopped = mEverStopped || mStarted;
    mStarted = false;
    const bool slowFences =
        mProgram.uses(Knob::FenceNeverSignals) || mProgram.uses(Knob::FenceDelay);
    // Callbacks that run at that time: on both workers and on each thread that calls the renderer.
    // One that flushes gets back all frames.
    const bool flushes = mPlan.inReturn == CallIn::Flush || mPlan.inRenderTime == CallIn::Flush;
    const int64_t callbacks = 2 * (kThreadsPerPlayer + 2 + (flushes ? kMostFrames : 0));
    const int64_t callbacksUs = mPlan.callbackUs * callbacks;
    const int64_t boundUs = kStopSlackUs + callbacksUs + (slowFences ? kFenceTimeoutUs : 0);
    const int64_t tookUs = (tv::nowNs() - beganNs) / 1000;
    if (tv::VirtualTime::active() && tookUs > boundUs) {
        mFindings.add("stop took " + std::to_string(tookUs) + " us");
    }
}

/// Flushes until every frame is back that can be: after a flush a frame goes on that the drain
/// thread did not wake up for, until it is due.
void Session::settle() {
    if (!mStarted) {
        return;
    }
    std::string missing;
    const int64_t beganNs = tv::nowNs();
    while (!allBack(&missing)) {
        if ((tv::nowNs() - beganNs) / 1000 > kLongestSettleUs) {
            mFindings.add("never came back:" + missing + "\n" + tv::VirtualTime::dump());
            return;
        }
        flush();
        if (mPlan.sync == Sync::Passthrough) {
            // No flush ends the hold of a frame; the clock moves past it.
            mRenderer->updateVideoTime(kFurthestUs + 1'000'000);
        }
        sleepUs(20'000);
    }
}

/// Whether each frame is back, or has a reason not to be.
bool Session::allBack(std::string* missing) {
    const bool maybeRefused = mEverStopped || mTunnelId < 0 || mProgram.capacity < kRoomForAll ||
                              mProgram.uses(Knob::QueueFails) ||
                              mProgram.uses(Knob::ConnectFails) || mProgram.uses(Knob::PowerOff);
    const bool maybeUnfenced = mProgram.uses(Knob::FenceNeverSignals) ||
                               mProgram.uses(Knob::FenceDelay) ||
                               mProgram.uses(Knob::FenceWrongMode);
    std::map<int, bool> inTunnel;  // whether it still is
    for (const auto& buffer : mTv.tunnel().record(mTunnelId)) {
        inTunnel[buffer.fd] = buffer.takenBackNs == 0;
    }
    missing->clear();
    const std::lock_guard<std::mutex> guard(mLock);
    for (const auto& [fd, frame] : mFrames) {
        const auto queued = inTunnel.find(fd);
        const bool excused = queued != inTunnel.end() && (queued->second || maybeUnfenced);
        if (frame.returns() == 0 && !frame.taken && !excused) {
            *missing += " " + std::to_string(fd);
        }
    }
    return missing->empty() || maybeRefused;
}

void Session::checkReturns() {
    int twice = 0;
    for (const auto& [fd, frame] : mFrames) {
        const int returns = frame.returns() + (frame.taken ? 1 : 0);
        twice += returns == 2 ? 1 : 0;
        if (returns > 2) {
            mFindings.add(std::to_string(fd) + " came back " + std::to_string(returns) + " times");
        }
        if (mPlan.returnType0 && mPlan.returnType2 && frame.times[0] != frame.times[2]) {
            mFindings.add(std::to_string(fd) + " came back by one of two callbacks");
        }
    }
    if (twice > (mWithAudio ? mFlushes.load() : 0)) {
        mFindings.add(std::to_string(twice) + " frames came back twice");
    }
}

/// Turns one of the TV's knobs. Those of the tunnel that are on or off are toggled.
void turn(tv::Tv& tv, Knob knob, uint8_t argument) {
    static constexpr std::pair<Knob, bool tv::TunnelFaults::*> kToggles[] = {
        {Knob::OpenFails, &tv::TunnelFaults::openFails},
        {Knob::AllocFails, &tv::TunnelFaults::allocFails},
        {Knob::FreeFails, &tv::TunnelFaults::freeFails},
        {Knob::ConnectFails, &tv::TunnelFaults::connectFails},
        {Knob::DisconnectFails, &tv::TunnelFaults::disconnectFails},
        {Knob::QueueFails, &tv::TunnelFaults::queueFails},
        {Knob::DequeueFails, &tv::TunnelFaults::dequeueFails},
        {Knob::VsyncQueryFails, &tv::TunnelFaults::vsyncQueryFails},
        {Knob::NoFences, &tv::TunnelFaults::noFences},
        {Knob::FenceNeverSignals, &tv::TunnelFaults::fenceNeverSignals},
        {Knob::FenceWrongMode, &tv::TunnelFaults::fenceWrongMode}};
    constexpr int64_t kDelaysNs[] = {0, 5'000'000, 40'000'000, 999'000'000, 1'500'000'000};
    constexpr int32_t kPeriodsNs[] = {16'666'666, 0, -1, 1, 20'000'000, INT32_MAX};
    constexpr double kRates[] = {60.0, 60000.0 / 1001.0, 50.0, 24.0, 120.0};
    const bool on = (argument & 1) != 0;
    const auto instances = tv.mediaSync().instances();
    const auto instance = instances.empty() ? nullptr : instances[argument / 2 % instances.size()];
    tv::TunnelFaults faults = tv.tunnel().faults();
    for (const auto& [toggled, fault] : kToggles) {
        faults.*fault = (faults.*fault) != (toggled == knob);
    }
    if (knob == Knob::Sleep) {
        sleepUs(sleepOf(argument));
    } else if (knob == Knob::FenceDelay) {
        faults.fenceDelayNs = kDelaysNs[argument % std::size(kDelaysNs)];
    } else if (knob == Knob::SyncStatus && instance != nullptr) {
        instance->setStatus(on ? -1 : 0);
    } else if (knob == Knob::EndPassthrough && instance != nullptr) {
        instance->endPassthrough();
    } else if (knob == Knob::CreateFails) {
        tv.mediaSync().setCreateFails(on);
    } else if (knob == Knob::ReportFails) {
        tv.display().setReportFails(on);
    } else if (knob == Knob::ReportedPeriod) {
        tv.display().setReportedPeriodNs(kPeriodsNs[argument % std::size(kPeriodsNs)]);
    } else if (knob == Knob::ChangeMode) {
        tv.display().changeMode(tv::nowNs(), kRates[argument % std::size(kRates)]);
    } else if (knob == Knob::PowerOff) {
        tv.powerOff();
    }
    tv.tunnel().setFaults(faults);
}

void runPlayers(const PlayerProgram& program, Findings* findings) {
    tv::TvConfig config;
    config.display.rateHz = program.rateHz;
    config.display.reportJitterNs = program.jitterNs;
    config.display.seed = program.seed;
    config.tunnel.capacity = program.capacity;
    const auto tv = tv::Tv::powerOn(config);
    std::vector<std::thread> threads;
    for (const auto& sessions : program.players) {
        threads.emplace_back([&] {
            for (const auto& plan : sessions) {
                Session(program, plan, *tv, *findings).play();
            }
        });
    }
    for (const auto& operation : program.knobs) {
        turn(*tv, operation.kind, operation.argument);
    }
    std::for_each(threads.begin(), threads.end(), [](auto& thread) { thread.join(); });
    // A device that is closed gives up its id and its connection.
    const tv::Tunnel& tunnel = tv->tunnel();
    if (!program.uses(Knob::PowerOff) &&
        tunnel.openDevices() + tunnel.allocatedIds() + tunnel.connectedTunnels() != 0) {
        findings->add("the tunnel is left: " + tunnel.dump());
    }
}

std::set<int> openDescriptors() {
    constexpr int kMostDescriptors = 512;
    std::set<int> open;
    for (int fd = 0; fd < kMostDescriptors; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0) {
            open.insert(fd);
        }
    }
    return open;
}

std::unique_ptr<tv::VirtualTime> virtualTimeOf(const PlayerProgram& program,
                                               tv::VirtualTimeOptions options) {
    if (!tv::VirtualTime::available()) {
        return nullptr;
    }
    options.preemptions = program.preemptions;
    options.longestPreemptionNs = program.longestPreemptionNs;
    options.spuriousWakeups = program.spuriousWakeups;
    constexpr int64_t kLongestRunNs = int64_t{3600} * 1'000'000'000;
    options.longestRunNs = kLongestRunNs;
    options.onHang = [](const std::string& report) {
        std::fputs(report.c_str(), stderr);
        std::abort();
    };
    return std::make_unique<tv::VirtualTime>(program.seed, options);
}

}  // namespace

std::vector<std::string> runProgram(const PlayerProgram& program, tv::VirtualTimeOptions options) {
    constexpr int kLogNothing = 8;
    tv::openLog(kLogNothing);
    tv::setProperty(tv::kLogMaskProperty, std::to_string(program.logMask));
    tv::setTraceTagEnabled(program.trace);
    Findings findings;
    const std::set<int> before = openDescriptors();
    {
        const auto virtualTime = virtualTimeOf(program, std::move(options));
        runPlayers(program, &findings);
    }
    for (const int fd : openDescriptors()) {
        if (before.count(fd) != 0) {
            continue;
        }
        close(fd);
        // A descriptor that is no fence stays open.
        if (!program.uses(Knob::FenceWrongMode)) {
            findings.add("descriptor " + std::to_string(fd) + " is left open");
        }
    }
    return findings.take();
}

void endIfAny(const std::vector<std::string>& findings, const PlayerProgram& program) {
    for (const auto& finding : findings) {
        std::fprintf(stderr, "%s\n", finding.c_str());
    }
    if (!findings.empty()) {
        std::fputs(toText(program).c_str(), stderr);
        std::abort();
    }
}

}  // namespace korvane::test
