// SPDX-License-Identifier: Apache-2.0
#include "player/explore/Feeder.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "VideoTunnelRenderer.h"
#include "player/explore/FrameAccount.h"
#include "tv/AudioOutput.h"
#include "tv/clock/FiberLocal.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::player {
namespace {

constexpr int64_t kNsPerUs = 1000;
constexpr int kUnknownSyncId = 4711;
/// Descriptors that are none, for buffers that are handed back without having been sent.
constexpr int kForeignFd = 100'000;
constexpr int64_t kSoundUs = 2'000'000;
constexpr int64_t kPacketUs = 21'333;
/// A buffer that has not come free by then never will: no program's frames are due that late.
constexpr int64_t kBufferWaitUs = 2'000'000;
constexpr int64_t kLookUs = 4'000;
constexpr int64_t kRecallUs = 20'000;
/// Of frames of one session.
constexpr int64_t kFramesApart = 1'000'000;
constexpr const char* kNeverBack = "frames do not come to their end";

/// What the calling thread is inside of.
struct Inside {
    int16_t calls;      ///< of the player's that may be called back
    int16_t flushes;    ///< of these, `flush`
    int16_t callbacks;  ///< of the library's
};
const tv::FiberLocal<Inside> gInside;

/// While one lives, the calling thread is inside of that.
struct Within {
    explicit Within(int16_t Inside::*what) : count(gInside.get().*what) { ++count; }
    ~Within() { --count; }
    int16_t& count;
};

void sleepUs(int64_t us) {
    constexpr int64_t kMostRealUs = 2'000;
    const int64_t most = tv::VirtualTime::active() ? us : std::min(us, kMostRealUs);
    std::this_thread::sleep_for(std::chrono::microseconds(std::max<int64_t>(most, 0)));
}

/// A step of the TV's.
void performOnTv(tv::Tv& tv, const Program& program, const Step& step) {
    const auto number = static_cast<size_t>(step.number);
    const auto instances = tv.mediaSync().instances();
    const auto instance = instances.empty() ? nullptr : instances[number % instances.size()];
    if (step.act == Act::Sleep) {
        sleepUs(step.us);
    } else if (step.act == Act::Faults) {
        tv.tunnel().setFaults(program.faults[number].tunnel);
        tv.display().setReportFails(program.faults[number].reportFails);
        tv.display().setReportedPeriodNs(program.faults[number].reportedPeriodNs);
    } else if (step.act == Act::Mode) {
        tv.display().changeMode(tv::nowNs(), step.number / 1000.0);
    } else if (step.act == Act::CreateFails) {
        tv.mediaSync().setCreateFails(step.number != 0);
    } else if (step.act == Act::EndPassthrough && instance != nullptr) {
        instance->endPassthrough();
    } else if ((step.act == Act::SyncFails || step.act == Act::SyncWorks) && instance != nullptr) {
        instance->setStatus(step.act == Act::SyncFails ? -1 : 0);
    } else if (step.act == Act::PowerOff) {
        tv.powerOff();
    }
}

/// One renderer and the player's threads that use it.
class Feeder {
    using By = FrameAccount::By;

    /// Of a set of callbacks. Each registration takes the other set.
    struct UserData {
        Feeder* feeder;
        int set;
    };

public:
    Feeder(const Program& program, const Session& session, int64_t firstFrame, int firstBuffer,
           FeederBuffers& buffers, FeederWatch& watch, tv::Tv& tv)
        : mProgram(program),
          mSession(session),
          mWatch(watch),
          mTv(tv),
          mPeeks(does(session, {Act::SendPeek, Act::PeekFirst})),
          // With audio a buffer may come back twice; the second time it must hold the same frame.
          mAccount(recordOf(program, session, firstFrame), buffers, firstBuffer, program.buffers,
                   session.tidy || !waitsForAudio(session)) {}

    void own() {
        pthread_setname_np(pthread_self(), "owner");
        makeRenderer();
        perform(mSession.threads.front());
        joinHelpers();
        mAccount.beginStop();
        delete mRenderer;
        mAccount.stopped(true);
        mAudio.reset();
    }

    std::vector<Fault> judge() {
        RunRecord record = mAccount.take();
        record.tunnel = queued();
        record.awayNs = mWatch.awayNs();
        return faultsOf(record);
    }

    /// Whether the renderer has had threads; without, `stop` does nothing.
    bool ran() const { return mStartNs > 0; }

private:
    void makeRenderer() {
        mRenderer = VideoTunnelRenderer_create();
        int id = mSession.unknownSync ? kUnknownSyncId : 0;
        if (mSession.withAudio || mSession.passthrough) {
            mClock = mTv.mediaSync().create();
            id = mClock == nullptr ? kUnknownSyncId
                                   : mClock->id() | (mSession.passthrough ? kPassthroughInit : 0);
        }
        mRenderer->init(id);
        if (mClock != nullptr && mProgram.prepareClock) {
            mProgram.prepareClock(mClock);
        }
        registerCallbacks();
        mTunnelId = mRenderer->getTunnelId();
        if (mClock != nullptr && mSession.withAudio) {
            mAudio = std::make_unique<tv::AudioOutput>(mClock, mProgram.audio);
        }
    }

    void registerCallbacks() {
        mRegistrations.fetch_add(1) % 2 == 0 ? registerSet<1>() : registerSet<0>();
    }

    template <int kSet>
    void registerSet() {
        if (mSession.return0) {
            mRenderer->regCallBack(kFrameReturnCallback, &onReturn<kSet>, &mUserData[kSet]);
        }
        if (mSession.renderTimes) {
            mRenderer->regCallBack(kRenderTimeCallback, &onRenderTime<kSet>, &mUserData[kSet]);
        }
        if (mSession.return2) {
            mRenderer->regCallBack(kFrameStatusCallback, &onStatus<kSet>, &mUserData[kSet]);
        }
    }

    // ---- steps ----

    void perform(const Steps& steps) {
        for (const auto& step : steps) {
            perform(step);
        }
    }

    void perform(const Step& step) {
        switch (step.act) {
            case Act::Begin:
                return beginHelpers();
            case Act::Start:
                return start();
            case Act::Stop:
                return stop();
            case Act::Join:
                return joinHelpers();
            case Act::Settle:
                return settle(step.us);
            case Act::Recall:
                return recall(step.us);
            case Act::Send:
            case Act::SendPeek:
                return send(step.us, step.act == Act::SendPeek, mSession.tidy);
            case Act::SendNext:
                return send(mAccount.lastMediaUs() + step.us, false, false);
            case Act::PeekFirst:
                return static_cast<void>(mRenderer->peekFirstFrame());
            case Act::Flush:
                return flush();
            case Act::AwaitBack:
                return awaitBack(step.us);
            case Act::Anchor:
                return anchor(step.us);
            case Act::ReadClock:
                return readClock(step.us);
            case Act::Register:
                return registerCallbacks();
            case Act::NotifyTimes: {
                const Within call(&Inside::calls);
                return static_cast<void>(mRenderer->nodifyRenderTime());
            }
            case Act::TakeReleased:
                return takeReleased();
            case Act::HandBack: {
                const Within call(&Inside::calls);
                mRenderer->onFillVideoFrame(kForeignFd + step.number, step.number % 2 != 0);
                return;
            }
            case Act::Announce:
                mRenderer->onVideoSyncQueueVideoFrame(step.us, static_cast<unsigned>(step.number));
                return;
            case Act::FrameRate:
                return static_cast<void>(mRenderer->setFrameRate(step.number));
            case Act::Until:
                return sleepUs(mStartNs / kNsPerUs + step.us - tv::nowNs() / kNsPerUs);
            case Act::Faults:
                tendSound({mProgram.faults[static_cast<size_t>(step.number)].audioPaused
                               ? Act::Pause
                               : Act::Resume});
                return performOnTv(mTv, mProgram, step);
            default:
                tendSound(step);
                return performOnTv(mTv, mProgram, step);
        }
    }

    void tendSound(const Step& step) {
        if (mAudio == nullptr) {
            return;
        }
        if (step.act == Act::Pause) {
            mAudio->pause();
        } else if (step.act == Act::Resume) {
            mAudio->resume();
        } else if (step.act == Act::SoundFlush) {
            mAudio->flush();
        } else if (step.act == Act::SoundEnd) {
            mAudio->endOfStream();
        }
        for (int i = 0; step.act == Act::Sound && i < step.number; ++i) {
            mAudio->queue(step.us + i * kPacketUs, kPacketUs);
        }
    }

    void readClock(int64_t mediaUs) {
        long us = 0;
        mRenderer->getRealTimeFor(mediaUs, &us);
        mRenderer->getTrackMediaTime(&us);
        mRenderer->getStartingTimeMedia(&us);
    }

    void beginHelpers() {
        for (; mBegun < mSession.threads.size(); ++mBegun) {
            mHelpers.emplace_back([this, thread = mBegun] {
                pthread_setname_np(pthread_self(), "helper");
                perform(mSession.threads[thread]);
            });
        }
    }

    void start() {
        mStartNs = tv::nowNs();
        mAccount.started();
        mRenderer->start();
        beginHelpers();
    }

    void send(int64_t mediaUs, bool peek, bool wait) {
        const int64_t waitUs = wait ? kBufferWaitUs + mProgram.audio.startDelayUs : 0;
        const int fd = mAccount.beginSend(mediaUs, peek, waitUs);
        if (fd < 0) {
            if (wait && mAccount.runs() && !refusesBuffers(mProgram) && !keepsBuffers(mProgram) &&
                !mProgram.audio.neverStarts && !mSession.passthrough) {
                mAccount.note({"no buffer comes back to the player", ""});
            }
            return;
        }
        if (mSession.tidy && mAudio && !mSoundQueued.exchange(true)) {
            mAudio->queue(mediaUs, kSoundUs);
        }
        if (mSession.tidy && mSession.passthrough) {
            mRenderer->onVideoSyncQueueVideoFrame(mediaUs, 1);
        }
        mRenderer->sendVideoFrame(fd, mediaUs, peek);
        mAccount.endSend(fd);
    }

    /// Sound that still plays would start the clock for the new first frame.
    void flush() {
        if (mSession.tidy && mAudio) {
            mAudio->flush();
            mSoundQueued = false;
        }
        mAccount.beginFlush();
        {
            const Within call(&Inside::calls);
            const Within inFlush(&Inside::flushes);
            mRenderer->flush();
        }
        mAccount.endFlush();
    }

    void takeReleased() {
        if (int fd = -1; mRenderer->getNeedFillVideoFrame(&fd)) {
            mAccount.back(fd, FrameAccount::By::Player);
        }
    }

    /// An untidy player's threads anchor the clock beside each other; then it is not known.
    void anchor(int64_t mediaUs) {
        const int64_t realUs = tv::nowNs() / kNsPerUs;
        mRenderer->updateVideoTime(mediaUs);
        if (mSession.tidy && !waitsForAudio(mSession) && !mSession.passthrough) {
            mAccount.anchored(mediaUs, realUs);
        }
    }

    std::vector<tv::BufferRecord> queued() const {
        return mTunnelId < 0 ? std::vector<tv::BufferRecord>() : mTv.tunnel().record(mTunnelId);
    }

    bool settled() { return mAccount.settled(mTv.tunnel().heldBuffers(mTunnelId)); }

    void awaitBack(int64_t us) {
        const int64_t endNs = tv::nowNs() + us * kNsPerUs;
        while (!settled() && tv::nowNs() < endNs) {
            sleepUs(1'000);
        }
    }

    void settle(int64_t us) {
        const int64_t endNs = tv::nowNs() + us * kNsPerUs + mWatch.awayNs();
        while (!settled()) {
            if (tv::nowNs() >= endNs) {
                mAccount.note({kNeverBack, "more than the two that the tunnel keeps"});
                return;
            }
            sleepUs(kLookUs);
        }
    }

    /// After a flush a frame goes on that the drain thread did not wake up for, until it is due.
    void recall(int64_t us) {
        const int64_t endNs = tv::nowNs() + us * kNsPerUs;
        while (mAccount.runs()) {
            const std::string missing = mAccount.missing(queued());
            if (missing.empty()) {
                return;
            }
            if (tv::nowNs() >= endNs) {
                mAccount.note({kNeverBack, missing + "\n" + tv::VirtualTime::dump()});
                return;
            }
            flush();
            if (mSession.passthrough) {
                // No flush ends the hold of a frame; the clock moves past it.
                constexpr int64_t kPastUs = 6'000'000;
                mRenderer->updateVideoTime(mAccount.lastMediaUs() + kPastUs);
            }
            sleepUs(kRecallUs);
        }
    }

    void stop() {
        mAccount.beginStop();
        mRenderer->stop();
        mAccount.stopped(false);
    }

    void joinHelpers() {
        for (auto& helper : mHelpers) {
            helper.join();
        }
        mHelpers.clear();
    }

    // ---- callbacks, on the library's threads or inside the player's calls ----

    template <int kSet>
    static int onReturn(void* userData, void* info) {
        Feeder* const feeder = feederOf(userData, kSet);
        const int fd = *static_cast<int*>(info);
        return feeder->calledBack(kFrameReturnCallback, fd,
                                  feeder->mSession.return2 ? By::Beside : By::Type0);
    }

    template <int kSet>
    static int onStatus(void* userData, void* info) {
        Feeder* const feeder = feederOf(userData, kSet);
        feeder->mWatch.onRead(info, sizeof(framestatus));
        const auto& status = *static_cast<framestatus*>(info);
        return feeder->calledBack(kFrameStatusCallback, status.fd,
                                  status.rendered != 0 ? By::Rendered : By::Dropped);
    }

    template <int kSet>
    static int onRenderTime(void* userData, void* info) {
        Feeder* const feeder = feederOf(userData, kSet);
        const Within callback(&Inside::callbacks);
        feeder->look(kRenderTimeCallback);
        feeder->mWatch.onRead(info, sizeof(rendertime));
        const auto& time = *static_cast<rendertime*>(info);
        feeder->mAccount.reported(time.mediaTimeUs, time.renderTimeUs);
        feeder->takeTime(feeder->mSession.onRenderTime);
        return 0;
    }

    static Feeder* feederOf(void* userData, int set) {
        const auto& data = *static_cast<UserData*>(userData);
        if (data.set != set) {
            data.feeder->mAccount.note(
                {"a callback gets the user data of another registration", ""});
        }
        return data.feeder;
    }

    /// Before any lock of the player is taken.
    void look(int type) {
        const Inside& inside = gInside.get();
        std::vector<Fault> faults;
        if (inside.callbacks == 1) {
            mWatch.onCallback(mRenderer, type, mPeeks, &faults);
        }
        for (auto& fault : faults) {
            mAccount.note(std::move(fault));
        }
        mAccount.calledBack(inside.calls > 0);
    }

    int calledBack(int type, int fd, By by) {
        const Within callback(&Inside::callbacks);
        look(type);
        if (by == By::Rendered && gInside.get().flushes > 0) {
            mAccount.note({"flush hands a waiting frame back as shown", ""});
        }
        if (fd < kForeignFd) {
            mAccount.back(fd, by);
        }
        const int64_t call = ++mReturns;
        takeTime(mSession.onReturn);
        return call % mSession.answersEach == 0 ? mSession.answers : 0;
    }

    /// A callback that is called inside another one's calls makes none.
    void takeTime(const Steps& calls) {
        if (mSession.callbackTakesUs > 0) {
            sleepUs(mSession.callbackTakesUs);
        }
        if (!calls.empty() && gInside.get().callbacks == 1 && mCallsBack++ < mSession.callsBack) {
            perform(calls);
        }
    }

    const Program& mProgram;
    const Session& mSession;
    FeederWatch& mWatch;
    tv::Tv& mTv;
    const bool mPeeks;  ///< peek frames are sent
    FrameAccount mAccount;
    VideoTunnelRenderer* mRenderer = nullptr;
    std::shared_ptr<tv::SyncInstance> mClock;
    std::unique_ptr<tv::AudioOutput> mAudio;
    int mTunnelId = -1;
    int64_t mStartNs = 0;
    UserData mUserData[2] = {{this, 0}, {this, 1}};
    std::vector<std::thread> mHelpers;
    size_t mBegun = 1;  ///< of the session's threads
    std::atomic<int> mRegistrations{0};
    std::atomic<bool> mSoundQueued{false};
    std::atomic<int64_t> mReturns{0};  ///< calls of callbacks
    std::atomic<int> mCallsBack{0};
};

}  // namespace

std::vector<Fault> playProgram(const Program& program, FeederBuffers& buffers, FeederWatch& watch) {
    const auto tv = tv::Tv::powerOn(program.tv);
    std::vector<std::vector<std::unique_ptr<Feeder>>> players;
    int64_t frames = 0;
    for (const auto& sessions : program.players) {
        const int first = static_cast<int>(players.size()) * program.buffers;
        auto& feeders = players.emplace_back();
        for (const auto& session : sessions) {
            feeders.push_back(
                std::make_unique<Feeder>(program, session, frames, first, buffers, watch, *tv));
            frames += kFramesApart;
        }
    }
    const auto play = [](const auto& feeders) {
        std::for_each(feeders.begin(), feeders.end(), [](auto& feeder) { feeder->own(); });
    };
    std::vector<std::thread> threads;
    for (size_t i = 1; i < players.size(); ++i) {
        threads.emplace_back([&play, &feeders = players[i]] { play(feeders); });
    }
    if (!program.tvThread.empty()) {
        threads.emplace_back([&] {
            for (const auto& step : program.tvThread) {
                performOnTv(*tv, program, step);
            }
        });
    }
    play(players.front());
    for (auto& thread : threads) {
        thread.join();
    }
    std::vector<Fault> faults;
    int neverRan = 0;
    for (const auto& feeders : players) {
        for (const auto& feeder : feeders) {
            neverRan += feeder->ran() ? 0 : 1;
            auto found = feeder->judge();
            std::move(found.begin(), found.end(), std::back_inserter(faults));
        }
    }
    judgeTv(program, *tv, neverRan, &faults);
    tv->powerOff();
    return faults;
}

}  // namespace korvane::player
