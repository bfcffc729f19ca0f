// SPDX-License-Identifier: Apache-2.0
#include "player/explore/Feeder.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <iterator>
#include <mutex>
#include <system_error>
#include <thread>

#include "VideoTunnelRenderer.h"
#include "include/ThreadAnnotations.h"
#include "tv/AudioOutput.h"
#include "tv/Picture.h"
#include "tv/ScopedLock.h"

namespace korvane::player {
namespace {

constexpr int64_t kNsPerUs = 1000;
/// Upper half of init's argument: tuner pass-through.
constexpr int kFeederPassthrough = 0x10000;
constexpr int64_t kAudioUs = 2'000'000;
/// A buffer that has not come free by then never will: no program's frames are due that late.
constexpr int64_t kBufferWaitUs = 2'000'000;
constexpr int64_t kLookUs = 4'000;
/// `stop` ends each wait at once. What it cannot end: a poll, and a fence of a display that works.
constexpr int64_t kStopBoundNs = 50'000'000;
/// ... and of one that does not.
constexpr int64_t kFenceBoundNs = 1'050'000'000;

void sleepUs(int64_t us) {
    std::this_thread::sleep_for(std::chrono::microseconds(std::max<int64_t>(us, 0)));
}

/// One renderer and the player's threads that use it.
class Feeder {
    /// Of a set of callbacks. Each registration takes the other set.
    struct UserData {
        Feeder* feeder;
        int set;
    };

public:
    Feeder(const Program& program, int first, FeederBuffers& buffers, FeederWatch& watch,
           tv::Tv& tv)
        : mProgram(program), mBuffers(buffers), mWatch(watch), mTv(tv) {
        for (int i = 0; i < program.buffers; ++i) {
            mFree.push_back(first + i);
        }
        mRecord.firstFrame = first * int64_t{1000};
        mRecord.withAudio = program.withAudio;
        mRecord.decides = !program.passthrough;
        mRecord.loseBuffers = losesBuffers(program);
        mRecord.periodNs = static_cast<int32_t>(1e9 / program.tv.display.rateHz);
        mRecord.stopBoundNs = kStopBoundNs + 4 * program.callbackTakesUs * kNsPerUs +
                              (mRecord.loseBuffers ? kFenceBoundNs : 0);
        mRecord.oneSender = program.callsBack != CallsBack::Send;
        int senders = 0;
        for (const auto& steps : program.threads) {
            senders += std::any_of(steps.begin(), steps.end(), [](const Step& step) {
                return step.act == Act::Send || step.act == Act::SendPeek;
            });
            for (const auto& step : steps) {
                mRecord.expectSettled = mRecord.expectSettled || step.act == Act::Settle;
                mRecord.marksPeek = mRecord.marksPeek || step.act == Act::PeekFirst;
                mPeeks = mPeeks || step.act == Act::SendPeek || step.act == Act::PeekFirst;
            }
        }
        mRecord.oneSender = mRecord.oneSender && senders == 1;
    }

    void own() {
        pthread_setname_np(pthread_self(), "owner");
        makeRenderer();
        for (const auto& step : mProgram.threads.front()) {
            perform(step);
        }
        joinHelpers();
        if (mAudio) {
            mAudio->stop();
        }
        delete mRenderer;
    }

    std::vector<Fault> judge() {
        mRecord.awayNs = mWatch.awayNs();
        return faultsOf(mRecord);
    }

private:
    void makeRenderer() {
        mRenderer = VideoTunnelRenderer_create();
        if (mProgram.withAudio || mProgram.passthrough) {
            mClock = mTv.mediaSync().create();
            mRenderer->init(mClock->id() | (mProgram.passthrough ? kFeederPassthrough : 0));
            if (mProgram.prepareClock) {
                mProgram.prepareClock(mClock);
            }
        } else {
            mRenderer->init(0);
        }
        registerCallbacks();
        mTunnelId = mRenderer->getTunnelId();
        if (mProgram.withAudio) {
            mAudio = std::make_unique<tv::AudioOutput>(mClock, mProgram.audio);
        }
    }

    void registerCallbacks() KORVANE_EXCLUDES(mLock) {
        bool other = false;
        {
            const std::lock_guard<std::mutex> guard(mLock);
            other = mOtherSet = !mOtherSet;
        }
        other ? registerSet<1>() : registerSet<0>();
    }

    template <int kSet>
    void registerSet() {
        if (mProgram.bothReturns) {
            mRenderer->regCallBack(kFrameReturnCallback, &onReturn<kSet>, &mUserData[kSet]);
        }
        mRenderer->regCallBack(kRenderTimeCallback, &onRenderTime<kSet>, &mUserData[kSet]);
        mRenderer->regCallBack(kFrameStatusCallback, &onStatus<kSet>, &mUserData[kSet]);
    }

    // ---- steps ----

    void perform(const Step& step) {
        switch (step.act) {
            case Act::Start:
                start();
                break;
            case Act::Send:
            case Act::SendPeek:
                send(step.us, step.act == Act::SendPeek,
                     kBufferWaitUs + mProgram.audio.startDelayUs);
                break;
            case Act::PeekFirst:
                mRenderer->peekFirstFrame();
                break;
            case Act::Flush:
                flush();
                break;
            case Act::AwaitBack:
                awaitBack(step.us);
                break;
            case Act::Anchor:
                anchor(step.us);
                break;
            case Act::Register:
                registerCallbacks();
                break;
            case Act::NotifyTimes:
                mRenderer->nodifyRenderTime();
                break;
            case Act::Pause:
                mAudio->pause();
                break;
            case Act::Resume:
                mAudio->resume();
                break;
            case Act::Faults:
                switchFaults(mProgram.faults[static_cast<size_t>(step.us)]);
                break;
            case Act::Sleep:
                sleepUs(step.us);
                break;
            case Act::Until:
                sleepUs(mStartNs / kNsPerUs + step.us - tv::nowNs() / kNsPerUs);
                break;
            case Act::Join:
                joinHelpers();
                break;
            case Act::Settle:
                settle(step.us);
                break;
            case Act::Stop:
                stop();
                break;
        }
    }

    void start() {
        mStartNs = tv::nowNs();
        mRenderer->start();
        for (size_t i = 1; i < mProgram.threads.size(); ++i) {
            mHelpers.emplace_back([this, i] {
                pthread_setname_np(pthread_self(), "helper");
                for (const auto& step : mProgram.threads[i]) {
                    perform(step);
                }
            });
        }
    }

    void send(int64_t mediaUs, bool peek, int64_t waitUs) KORVANE_EXCLUDES(mLock) {
        int buffer = -1;
        int64_t frameNo = 0;
        {
            tv::WaitLock lock(mLock);
            if (!mFreed.wait_for(lock.forWait(), std::chrono::microseconds(waitUs),
                                 [this]() KORVANE_REQUIRES(mLock) { return !mFree.empty(); })) {
                if (!mRecord.loseBuffers && !mStopped && !mProgram.audio.neverStarts &&
                    !mProgram.passthrough) {
                    mRecord.noted.push_back({"no buffer comes back to the player", ""});
                }
                return;
            }
            buffer = mFree.front();
            mFree.pop_front();
            SentFrame frame;
            frame.buffer = buffer;
            frame.mediaUs = mediaUs;
            frame.peek = peek;
            frame.sentNs = tv::nowNs();
            frame.flushed = !mFlushing.empty();
            frameNo = mRecord.firstFrame + static_cast<int64_t>(mRecord.frames.size());
            mRecord.frames.push_back(frame);
            if (mAudio && !mAudioQueued) {
                mAudioQueued = true;
                mAudio->queue(mediaUs, kAudioUs);
            }
        }
        mBuffers.fill(buffer, frameNo, mediaUs);
        if (mProgram.passthrough) {
            mRenderer->onVideoSyncQueueVideoFrame(mediaUs, 1);
        }
        mRenderer->sendVideoFrame(mBuffers.fd(buffer), mediaUs, peek);
    }

    /// Audio that still plays would start the clock for the new first frame.
    void flush() KORVANE_EXCLUDES(mLock) {
        if (mAudio) {
            mAudio->flush();
        }
        {
            const std::lock_guard<std::mutex> guard(mLock);
            mAudioQueued = false;
            mAnchorRealUs = -1;
            for (auto& frame : mRecord.frames) {
                frame.flushed = frame.flushed || frame.backNs < 0;
            }
            mFlushing.push_back(pthread_self());
        }
        mRenderer->flush();
        const std::lock_guard<std::mutex> guard(mLock);
        mFlushing.erase(std::find(mFlushing.begin(), mFlushing.end(), pthread_self()));
    }

    void anchor(int64_t mediaUs) KORVANE_EXCLUDES(mLock) {
        const int64_t realUs = tv::nowNs() / kNsPerUs;
        mRenderer->updateVideoTime(mediaUs);
        const std::lock_guard<std::mutex> guard(mLock);
        mAnchorRealUs = realUs;
        mAnchorMediaUs = mediaUs;
    }

    void awaitBack(int64_t us) {
        for (const int64_t endNs = tv::nowNs() + us * kNsPerUs;
             !settledNow() && tv::nowNs() < endNs;) {
            sleepUs(1'000);
        }
    }

    void settle(int64_t us) {
        const int64_t endNs = tv::nowNs() + us * kNsPerUs + mWatch.awayNs();
        while (!settledNow()) {
            if (tv::nowNs() >= endNs) {
                mRecord.settled = false;
                return;
            }
            sleepUs(kLookUs);
        }
    }

    /// All frames are back but for the two that the tunnel keeps.
    bool settledNow() KORVANE_EXCLUDES(mLock) {
        const std::lock_guard<std::mutex> guard(mLock);
        const auto out = std::count_if(mRecord.frames.begin(), mRecord.frames.end(),
                                       [](const SentFrame& frame) { return frame.backNs < 0; });
        return out <= std::min(mTv.tunnel().heldBuffers(mTunnelId), 2);
    }

    void switchFaults(const TvFaults& faults) {
        mTv.tunnel().setFaults(faults.tunnel);
        mTv.display().setReportFails(faults.reportFails);
        mTv.display().setReportedPeriodNs(faults.reportedPeriodNs);
        if (mAudio) {
            faults.audioPaused ? mAudio->pause() : mAudio->resume();
        }
    }

    void stop() KORVANE_EXCLUDES(mLock) {
        const int64_t beganNs = tv::nowNs();
        mRenderer->stop();
        const std::lock_guard<std::mutex> guard(mLock);
        mRecord.stopBeganNs = beganNs;
        mRecord.stopTookNs = tv::nowNs() - beganNs;
        mStopped = true;
        mRecord.tunnel = mTv.tunnel().record(mTunnelId);
    }

    void joinHelpers() {
        for (auto& helper : mHelpers) {
            helper.join();
        }
        mHelpers.clear();
    }

    // ---- callbacks, on the library's threads ----

    template <int kSet>
    static int onReturn(void* userData, void* /*info*/) {
        Feeder* const feeder = feederOf(userData, kSet);
        feeder->look(kFrameReturnCallback);
        return feeder->mProgram.callbackAnswers;
    }

    template <int kSet>
    static int onStatus(void* userData, void* info) {
        Feeder* const feeder = feederOf(userData, kSet);
        feeder->mWatch.onRead(info, sizeof(framestatus));
        const auto& status = *static_cast<framestatus*>(info);
        feeder->look(kFrameStatusCallback);
        return feeder->takeBack(status.fd, status.rendered != 0);
    }

    template <int kSet>
    static int onRenderTime(void* userData, void* info) {
        Feeder* const feeder = feederOf(userData, kSet);
        feeder->look(kRenderTimeCallback);
        feeder->mWatch.onRead(info, sizeof(rendertime));
        feeder->note(*static_cast<rendertime*>(info));
        return 0;
    }

    static Feeder* feederOf(void* userData, int set) {
        const auto& data = *static_cast<UserData*>(userData);
        if (data.set != set) {
            const std::lock_guard<std::mutex> guard(data.feeder->mLock);
            data.feeder->mRecord.noted.push_back(
                {"a callback gets the user data of another registration", ""});
        }
        return data.feeder;
    }

    /// Before any lock of the player is taken.
    void look(int type) KORVANE_EXCLUDES(mLock) {
        std::vector<Fault> faults;
        mWatch.onCallback(mRenderer, type, mPeeks, &faults);
        if (!faults.empty()) {
            const std::lock_guard<std::mutex> guard(mLock);
            std::move(faults.begin(), faults.end(), std::back_inserter(mRecord.noted));
        }
    }

    /// The frame sent last in this buffer; null if none was.
    SentFrame* frameIn(int fd) KORVANE_REQUIRES(mLock) {
        const auto found =
            std::find_if(mRecord.frames.rbegin(), mRecord.frames.rend(),
                         [&](const SentFrame& frame) { return mBuffers.fd(frame.buffer) == fd; });
        return found != mRecord.frames.rend() ? &*found : nullptr;
    }

    int takeBack(int fd, bool rendered) KORVANE_EXCLUDES(mLock) {
        bool again = false;
        int64_t mediaUs = 0;
        {
            const std::lock_guard<std::mutex> guard(mLock);
            // A flush that another thread is in hands back what it took before the stop.
            mRecord.lateCallbacks += mStopped && mFlushing.empty() ? 1 : 0;
            if (rendered &&
                std::find(mFlushing.begin(), mFlushing.end(), pthread_self()) != mFlushing.end()) {
                mRecord.noted.push_back({"flush hands a waiting frame back as shown", ""});
            }
            SentFrame* const frame = frameIn(fd);
            if (frame == nullptr) {
                ++mRecord.unknownBuffers;
                return mProgram.callbackAnswers;
            }
            if (++frame->returns == 1) {
                frame->backNs = tv::nowNs();
                frame->rendered = rendered;
                frame->dueUs = mAnchorRealUs >= 0 && !mProgram.withAudio && !mProgram.passthrough
                                   ? mAnchorRealUs + frame->mediaUs - mAnchorMediaUs
                                   : -1;
                mFree.push_back(frame->buffer);
                mFreed.notify_all();
            }
            again = !mCalledBack && !mStopped;
            mCalledBack = true;
            mediaUs = mRecord.frames.back().mediaUs;
        }
        if (mProgram.callbackTakesUs > 0) {
            sleepUs(mProgram.callbackTakesUs);
        }
        if (again) {
            callBack(mediaUs);
        }
        return mProgram.callbackAnswers;
    }

    void callBack(int64_t mediaUs) {
        switch (mProgram.callsBack) {
            case CallsBack::Nothing:
                break;
            case CallsBack::Flush:
                flush();
                break;
            case CallsBack::Send:
                send(mediaUs + 16'667, false, 0);
                break;
            case CallsBack::Register:
                registerCallbacks();
                break;
        }
    }

    void note(const rendertime& time) KORVANE_EXCLUDES(mLock) {
        const std::lock_guard<std::mutex> guard(mLock);
        mRecord.lateCallbacks += mStopped ? 1 : 0;
        auto found =
            std::find_if(mRecord.frames.begin(), mRecord.frames.end(), [&](const SentFrame& frame) {
                return frame.mediaUs == time.mediaTimeUs && frame.reports == 0;
            });
        if (found == mRecord.frames.end()) {
            found = std::find_if(
                mRecord.frames.begin(), mRecord.frames.end(),
                [&](const SentFrame& frame) { return frame.mediaUs == time.mediaTimeUs; });
        }
        const bool early = time.renderTimeUs > tv::nowNs() / kNsPerUs;
        if (found == mRecord.frames.end() || early) {
            ++mRecord.brokenReports;
            return;
        }
        ++found->reports;
    }

    const Program& mProgram;
    FeederBuffers& mBuffers;
    FeederWatch& mWatch;
    tv::Tv& mTv;
    VideoTunnelRenderer* mRenderer = nullptr;
    std::shared_ptr<tv::SyncInstance> mClock;
    std::unique_ptr<tv::AudioOutput> mAudio;
    int mTunnelId = -1;
    int64_t mStartNs = 0;
    bool mPeeks = false;  ///< peek frames are sent
    UserData mUserData[2] = {{this, 0}, {this, 1}};
    std::vector<std::thread> mHelpers;

    std::mutex mLock;
    std::condition_variable mFreed;
    std::deque<int> mFree KORVANE_GUARDED_BY(mLock);
    bool mAudioQueued KORVANE_GUARDED_BY(mLock) = false;
    bool mStopped KORVANE_GUARDED_BY(mLock) = false;
    bool mOtherSet KORVANE_GUARDED_BY(mLock) = false;            ///< of callbacks is registered
    std::vector<pthread_t> mFlushing KORVANE_GUARDED_BY(mLock);  ///< threads inside `flush`
    bool mCalledBack KORVANE_GUARDED_BY(mLock) = false;
    int64_t mAnchorRealUs KORVANE_GUARDED_BY(mLock) = -1;
    int64_t mAnchorMediaUs KORVANE_GUARDED_BY(mLock) = 0;
    RunRecord mRecord;  ///< while threads run, under the lock
};

}  // namespace

FeederBuffers::FeederBuffers(int count) {
    for (int i = 0; i < count; ++i) {
        tv::UniqueFd fd(memfd_create("korvane-frame", MFD_CLOEXEC | MFD_ALLOW_SEALING));
        constexpr auto kBytes = static_cast<size_t>(tv::kPictureHeaderBytes);
        void* memory = MAP_FAILED;
        // The display maps only files that cannot shrink.
        if (fd.get() >= 0 && ftruncate(fd.get(), kBytes) == 0 &&
            fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK) == 0) {
            memory = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
        }
        if (memory == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "cannot create a frame buffer");
        }
        mFds.push_back(std::move(fd));
        mHeaders.push_back(static_cast<tv::PictureHeader*>(memory));
    }
}

FeederBuffers::~FeederBuffers() {
    for (auto* header : mHeaders) {
        munmap(header, static_cast<size_t>(tv::kPictureHeaderBytes));
    }
}

void FeederBuffers::fill(int buffer, int64_t frameNo, int64_t mediaUs) {
    tv::PictureHeader header;
    header.frameNo = frameNo;
    header.mediaTimeUs = mediaUs;
    *mHeaders[static_cast<size_t>(buffer)] = header;
}

std::vector<Fault> playProgram(const Program& program, FeederBuffers& buffers, FeederWatch& watch) {
    const auto tv = tv::Tv::powerOn(program.tv);
    std::vector<std::unique_ptr<Feeder>> feeders;
    feeders.reserve(static_cast<size_t>(program.renderers));
    for (int i = 0; i < program.renderers; ++i) {
        feeders.push_back(
            std::make_unique<Feeder>(program, i * program.buffers, buffers, watch, *tv));
    }
    std::vector<std::thread> owners;
    for (size_t i = 1; i < feeders.size(); ++i) {
        owners.emplace_back([&feeder = *feeders[i]] { feeder.own(); });
    }
    feeders.front()->own();
    for (auto& owner : owners) {
        owner.join();
    }
    std::vector<Fault> faults;
    for (const auto& feeder : feeders) {
        auto found = feeder->judge();
        std::move(found.begin(), found.end(), std::back_inserter(faults));
    }
    const tv::Tunnel& tunnel = tv->tunnel();
    if (program.faults.empty() && (tunnel.idsNotFreed() > 0 || tv->display().openRemotes() != 0)) {
        faults.push_back(
            {"the renderer is gone, and left its tunnel id or its display adapter", ""});
    }
    if (tunnel.connectedTunnels() > 0 || tunnel.allocatedIds() > 0 || tunnel.openDevices() > 0) {
        faults.push_back(
            {"the renderer is gone, and the tunnel is still connected, or has an id or "
             "an open device",
             tunnel.dump()});
    }
    tv->powerOff();
    return faults;
}

}  // namespace korvane::player
