// SPDX-License-Identifier: Apache-2.0
// One playback: set-up, the library's callbacks, restart, and the end.
#include <algorithm>
#include <limits>
#include <stdexcept>
#include <thread>
#include <utility>

#include "player/media/MediaSource.h"

#include "player/playback/PlaybackSession.h"
#include "tv/clock/FiberLocal.h"

namespace korvane::player {
namespace {

/// Upper half of init's argument: tuner pass-through.
constexpr int kPassthroughInit = 0x10000;
/// Frame rates that the renderer takes, in hundredths.
constexpr int kLowestRate = 1;
constexpr int kHighestRate = 6000;

/// Set on the player's thread while it is inside `flush`, which calls back on that same thread.
const tv::FiberLocal<bool> tInsideFlush;
/// The reason that the library has just logged on this thread.
const tv::FiberLocal<DropReason> tAnnounced;

void noteDropLine(const tv::LogLine& line) {
    if (const auto reason = dropReasonFromLog(line.text)) {
        tAnnounced.get() = *reason;
    }
}

void takeTime(int64_t us) {
    if (us > 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(us));
    }
}

}  // namespace

const char* toString(EndCause cause) {
    switch (cause) {
        case EndCause::Complete:
            return "complete";
        case EndCause::BrokenOff:
            return "broken_off";
        case EndCause::Interrupted:
            return "interrupted";
        case EndCause::Stopped:
            return "stopped";
        case EndCause::Stalled:
            break;
    }
    return "stalled";
}

PlaybackSession::PlaybackSession(const PlaybackPlan& plan, FrameSource& video,
                                 std::unique_ptr<PacketSource> audio, const PlaybackPorts& ports)
    : mPlan(plan),
      mVideo(video),
      mPorts(ports),
      mPool(plan.buffers),
      mAudioSource(std::move(audio)),
      mSeeks(plan.seeks.begin(), plan.seeks.end()),
      mStalls(plan.stalls.begin(), plan.stalls.end()),
      mGaps(plan.gaps.begin(), plan.gaps.end()) {
    const double hz = video.info().frameRateHz;
    if (hz > 0.0) {
        mFrameUs = static_cast<int64_t>(1e6 / hz);
    }
    mRecord.media = video.info();
    mRecord.withAudio = plan.withAudio;
    mRecord.passthrough = plan.passthrough;
    mRecord.displayHz = plan.tv.display.rateHz;
    tv::observeLog([this](const tv::LogLine& line) {
        noteDropLine(line);
        if (mPorts.onLogLine) {
            mPorts.onLogLine(line);
        }
    });
}

PlaybackSession::~PlaybackSession() {
    // Normally all stopped already; here when something was thrown on the way.
    mFaults.reset();
    if (mRenderer) {
        mRenderer->stop();
    }
    tv::observeLog(nullptr);
}

PlaybackRecord PlaybackSession::run() {
    // A file without a single picture is bad input, so this comes before the TV is switched on.
    if (!decodeNext()) {
        throw InputError("'" + mRecord.media.path + "' holds no " + mRecord.media.videoCodec +
                         " picture that can be decoded; the file may be damaged, try another one");
    }
    switchOn();
    makeRenderer();
    start();
    feedAndWatch();
    return finish();
}

// ---- the library's callbacks: any of its threads ----

int PlaybackSession::bufferBack(void* self, void* status) noexcept {
    const auto* info = static_cast<const framestatus*>(status);
    auto* session = static_cast<PlaybackSession*>(self);
    session->onBufferBack(info->fd, info->rendered != 0);
    takeTime(session->mPlan.callbackTakesUs);
    return session->mPlan.callbackAnswers;
}

int PlaybackSession::renderTime(void* self, void* time) noexcept {
    auto* session = static_cast<PlaybackSession*>(self);
    session->onRenderTime(*static_cast<const rendertime*>(time));
    takeTime(session->mPlan.callbackTakesUs);
    return session->mPlan.callbackAnswers;
}

void PlaybackSession::onBufferBack(int fd, bool rendered) {
    const auto holding = mPool.holding(fd);
    if (holding.frameNo >= 0) {
        ReturnedBuffer buffer;
        buffer.frameNo = holding.frameNo;
        buffer.nowNs = tv::nowNs();
        buffer.rendered = rendered;
        buffer.insideFlush = tInsideFlush.get();
        if (!rendered && !tInsideFlush.get()) {
            buffer.dropReason =
                reasonOfDrop(mLedger.mediaTimeUs(holding.frameNo), &buffer.dropEvidence);
        }
        mLedger.returned(buffer);
    }
    // Last, for from here on the player may write it.
    mPool.giveBack(fd);
}

DropReason PlaybackSession::reasonOfDrop(int64_t mediaTimeUs, DropEvidence* evidence) {
    const DropReason announced = std::exchange(tAnnounced.get(), DropReason::None);
    *evidence = announced != DropReason::None ? DropEvidence::LogLine : DropEvidence::Values;
    return announced != DropReason::None ? announced : dropReasonFromValues(valuesNow(mediaTimeUs));
}

DropValues PlaybackSession::valuesNow(int64_t mediaTimeUs) {
    const int64_t nowUs = tv::nowNs() / 1000;
    DropValues values;
    values.passthrough = mPlan.passthrough;
    values.hasAudio = mPlan.withAudio;
    values.flushing = mFlushing;
    values.syncMode = mClock->mode();
    values.underflowSeen = mAudio && mAudio->report().underflows > 0;
    values.lateUs = nowUs - mClock->realTimeFor(mediaTimeUs, nowUs);
    values.vsyncPeriodUs = static_cast<int64_t>(1e6 / mRecord.displayHz);
    return values;
}

void PlaybackSession::onRenderTime(const rendertime& time) {
    std::optional<int64_t> clockUs;
    const int64_t realUs = mClock->realTimeFor(time.mediaTimeUs, tv::nowNs() / 1000);
    if (realUs >= 0 && !mClock->paused()) {
        clockUs = realUs;
    }
    mLedger.renderTime(time.mediaTimeUs, time.renderTimeUs, clockUs);
}

// ---- set-up ----

void PlaybackSession::switchOn() {
    mTv = tv::Tv::powerOn(mPlan.tv);
    mClock = mTv->mediaSync().create();
    mFaults = std::make_unique<FaultPlayer>(
        mPlan.faults, [this](const TvFaults& faults) { applyFaults(faults); });
}

void PlaybackSession::makeRenderer() {
    mRenderer.reset(VideoTunnelRenderer_create());
    const bool bindClock = mPlan.withAudio || mPlan.passthrough;
    mRenderer->init((bindClock ? mClock->id() : 0) | (mPlan.passthrough ? kPassthroughInit : 0));
    if (!bindClock) {
        // Without audio the library makes itself an instance; it is the newest one.
        mClock = mTv->mediaSync().instances().back();
    }
    if (mPlan.prepareClock) {
        mPlan.prepareClock(mClock);
    }
    mRenderer->regCallBack(kFrameStatusCallback, bufferBack, this);
    mRenderer->regCallBack(kRenderTimeCallback, renderTime, this);
    mTunnelId = mRenderer->getTunnelId();
    if (mTunnelId < 0) {
        throw std::runtime_error("the TV gives no video tunnel; see the log with --log 1");
    }
    if (mPlan.toldFrameRate && *mPlan.toldFrameRate >= kLowestRate &&
        *mPlan.toldFrameRate <= kHighestRate) {
        mRenderer->setFrameRate(*mPlan.toldFrameRate);
    }
}

void PlaybackSession::start() {
    if (mPlan.withAudio) {
        mAudio = std::make_unique<AudioFeeder>(std::move(mAudioSource), mClock, mPlan.audio,
                                               !mPlan.passthrough);
    }
    // Frames wait in the library's queue until `start`, so that a decoder that starts slowly is not
    // taken for a stream that does.
    while (!mSourceEnded &&
           mLedger.frames() < std::min<int64_t>(mPlan.prebufferFrames, mPlan.buffers)) {
        pump();
    }
    const int64_t firstUs = mSectionBegun ? mFirstMediaUs : mVideo.mediaTimeUs();
    if (!mPlan.withAudio) {
        // Nobody else anchors the clock, and the library drops a frame that finds it without.
        mRenderer->updateVideoTime(firstUs);
    }
    mRecord.startNs = tv::nowNs();
    mRecord.sections.push_back({mRecord.startNs, -1});
    for (const auto& change : mPlan.modeChanges) {
        mTv->display().changeMode(atPlaybackTime(change.atUs), change.rateHz);
    }
    for (auto* listener : mPorts.listeners) {
        listener->onStart(mRecord);
    }
    mFaults->start(mRecord.startNs);
    mRenderer->start();
    if (mAudio) {
        mAudio->start(firstUs);
    }
}

/// On the fault player's thread.
void PlaybackSession::applyFaults(const TvFaults& faults) {
    mTv->tunnel().setFaults(faults.tunnel);
    mTv->display().setReportFails(faults.reportFails);
    mTv->display().setReportedPeriodNs(faults.reportedPeriodNs);
    if (mAudio && faults.audioPaused != mAudioPaused) {
        mAudioPaused = faults.audioPaused;
        mAudioSwitchedNs = tv::nowNs();
        act(mAudioPaused ? EventKind::Pause : EventKind::Resume);
        mAudioPaused ? mAudio->pause() : mAudio->resume();
    }
}

void PlaybackSession::flushRenderer() {
    mFlushing = true;
    tInsideFlush.get() = true;
    mRenderer->flush();
    tInsideFlush.get() = false;
}

void PlaybackSession::act(EventKind kind, int64_t number, const std::string& text) {
    const Event event{tv::nowNs(), kind, -1, number, 0, text};
    for (auto* listener : mPorts.listeners) {
        listener->onAction(event);
    }
}

void PlaybackSession::tellListeners(const std::vector<FrameEntry>& settled) {
    const tv::SoundRecord sound = mAudio ? mAudio->sound() : tv::SoundRecord();
    for (FrameEntry frame : settled) {
        if (frame.outcome == Outcome::Shown) {
            const int64_t shownUs = frame.record->firstVsync.timeNs / 1000;
            frame.heardRealUs = sound.realTimeOf(frame.mediaTimeUs, shownUs);
            frame.heardForUs = sound.audibleUs(shownUs, frame.record->releasedNs / 1000);
        }
        if (frame.bufferKept && mRecord.buffersKept++ == 0) {
            mRecord.firstKept = {frame.frameNo, (frame.sentNs - mRecord.startNs) / 1000};
        }
        for (auto* listener : mPorts.listeners) {
            listener->onFrame(frame, mRecord);
        }
    }
}

/// Moves what the tunnel has finished into the ledger, and settled frames out of it.
void PlaybackSession::collect() {
    const auto records = mTv->tunnel().takeFinished(mTunnelId);
    for (const auto& record : records) {
        mRecord.foreignPictures += record.frameNo < 0 ? 1 : 0;
        mRecord.overwrittenOnScreen += record.overwrittenOnScreen ? 1 : 0;
    }
    mLedger.addRecords(records);
    int64_t firstInTunnel = std::numeric_limits<int64_t>::max();
    for (const auto& record : mTv->tunnel().record(mTunnelId)) {
        if (record.frameNo >= 0) {
            firstInTunnel = std::min(firstInTunnel, record.frameNo);
        }
    }
    tellListeners(mLedger.takeSettled(firstInTunnel));
    const int64_t oldestNs = mLedger.oldestSentNs();
    for (auto* listener : mPorts.listeners) {
        listener->onSettledUpTo(oldestNs);
    }
}

/// Stops the library; every buffer is the player's again, and every frame has its account.
void PlaybackSession::stopRenderer() {
    act(EventKind::Stop);
    const int64_t beganNs = tv::nowNs();
    mRenderer->stop();
    mRecord.stopTookNs = std::max(mRecord.stopTookNs, tv::nowNs() - beganNs);
    mPool.takeBackAll();
    collect();
    mLedger.stopped();
}

/// What a player does that plays on with a new renderer: stop, a new one, start. Frames that the
/// old one had are gone. With the same renderer again, the library says itself that it gives no
/// buffer back.
void PlaybackSession::performRestart() {
    mRestarted = true;
    leaveSection();
    stopRenderer();
    act(EventKind::Restart);
    if (!mPlan.reuseRenderer) {
        mRenderer.reset();
        makeRenderer();
    }
    mRenderer->start();
}

PlaybackRecord PlaybackSession::finish() {
    mFaults->stop();
    watchAudio(tv::nowNs());
    stopRenderer();
    mRecord.stopNs = tv::nowNs();
    if (mAudio) {
        mAudio->stop();
        mRecord.audioUnderflows = mAudio->report().underflows;
        mRecord.audioReanchors = mAudio->report().reanchors;
    }
    if (!mRecord.clockStops.empty() && mRecord.clockStops.back().toUs == 0) {
        mRecord.clockStops.back().toUs = mRecord.stopNs / 1000;
    }
    mRenderer.reset();
    mTv->powerOff();
    tellListeners(mLedger.takeRest());
    mRecord.pool = mPool.report();
    mRecord.sync = mClock->counters();
    mRecord.decodeErrors = mVideo.decodeErrors();
    return mRecord;
}

PlaybackRecord play(const PlaybackPlan& plan, FrameSource& video,
                    std::unique_ptr<PacketSource> audio, const PlaybackPorts& ports) {
    return PlaybackSession(plan, video, std::move(audio), ports).run();
}

}  // namespace korvane::player
