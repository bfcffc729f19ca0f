// SPDX-License-Identifier: Apache-2.0
#include "player/playback/PlaybackSession.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

#include "player/base/Errors.h"

namespace korvane::player {
namespace {

/// Upper half of init's argument: tuner pass-through.
constexpr int kPassthroughInit = 0x10000;
/// Frame rates that the renderer takes, in hundredths.
constexpr int kLowestRate = 1;
constexpr int kHighestRate = 6000;
/// A frame's time where the source tells no rate.
constexpr int64_t kUnknownFrameUs = 40'000;
/// How often finished frames are collected.
constexpr int64_t kCollectNs = 1'000'000'000;
/// Longest wait after a flush until the library holds no frame. The last to go are those that it
/// hands to the tunnel, about 40 ms before their time.
constexpr int64_t kFlushNs = 100'000'000;
/// Far more than the 40 ms after which pass-through drops a frame as late.
constexpr int64_t kLongPastUs = 1'000'000;
/// In pass-through pictures wait this long for audio to take the clock after a flush.
constexpr int64_t kAudioWaitUs = 1'000'000;

int64_t frameUs(const MediaInfo& info) {
    return info.frameRateHz > 0.0 ? static_cast<int64_t>(1e6 / info.frameRateHz) : kUnknownFrameUs;
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
                                 std::unique_ptr<PacketSource> audio, const PlaybackHooks& hooks)
    : mPlan(plan),
      mVideo(video),
      mHooks(hooks),
      mFrameUs(frameUs(video.info())),
      mPool(plan.buffers),
      mCollector(hooks.listeners, &mLedger, &mRecord),
      mCallbacks(plan, &mPool, &mLedger, &mFailure),
      mScreen(hooks.screens, mLedger, plan.buffers),
      mClockWatch(&mRecord),
      mSchedule(plan, mFrameUs),
      mAudioSource(std::move(audio)) {
    mRecord.media = video.info();
    mRecord.withAudio = plan.withAudio;
    mRecord.passthrough = plan.passthrough;
    mRecord.displayHz = plan.tv.display.rateHz;
    tv::observeLog([this](const tv::LogLine& line) {
        LibraryCallbacks::onLogLine(line);
        if (mHooks.onLogLine) {
            mFailure.guard([&] { mHooks.onLogLine(line); });
        }
    });
}

PlaybackSession::~PlaybackSession() {
    // Normally all has stopped already; not so after an exception.
    if (mTv) {
        mTv->observeVsyncs(nullptr);
    }
    mFaults.reset();
    if (mRenderer) {
        mRenderer->stop();
    }
    tv::observeLog(nullptr);
}

PlaybackRecord PlaybackSession::run() {
    // Before the TV is switched on: a file without a single picture is bad input.
    if (!decodeNext()) {
        throw InputError("'" + mRecord.media.path + "' holds no " + mRecord.media.videoCodec +
                         " picture that can be decoded; the file may be damaged, try another one");
    }
    switchOn();
    makeRenderer();
    prebuffer();
    start();
    do {
        tick();
    } while (carryOut(mSchedule.next(state())));
    return finish();
}

// ---- set-up ----

void PlaybackSession::switchOn() {
    mTv = tv::Tv::powerOn(mPlan.tv);
    mClock = mTv->mediaSync().create();
    mFaults = std::make_unique<FaultPlayer>(mPlan.faults, [this](const TvFaults& faults) {
        mFailure.guard([&] { applyFaults(faults); });
    });
}

void PlaybackSession::makeRenderer() {
    mRenderer.reset(VideoTunnelRenderer_create());
    if (!mRenderer) {
        throw std::runtime_error(
            "the library gives no renderer: VideoTunnelRenderer_create returned null; see the log "
            "with --log 1");
    }
    const bool bindClock = mPlan.withAudio || mPlan.passthrough;
    mRenderer->init((bindClock ? mClock->id() : 0) | (mPlan.passthrough ? kPassthroughInit : 0));
    if (!bindClock) {
        // Without audio the library creates an instance of its own; it is the newest one.
        mClock = mTv->mediaSync().instances().back();
    }
    if (mPlan.prepareClock) {
        mPlan.prepareClock(mClock);
    }
    mCallbacks.attach(mRenderer.get(), mClock);
    mTunnelId = mRenderer->getTunnelId();
    if (mTunnelId < 0) {
        throw std::runtime_error("the TV gives no video tunnel; see the log with --log 1");
    }
    if (mPlan.toldFrameRate && *mPlan.toldFrameRate >= kLowestRate &&
        *mPlan.toldFrameRate <= kHighestRate) {
        mRenderer->setFrameRate(*mPlan.toldFrameRate);
    }
}

/// Frames wait in the library's queue until `start`, so that the library does not take a decoder
/// that starts slowly for a slow stream.
void PlaybackSession::prebuffer() {
    const auto frames = std::min<int64_t>(mPlan.prebufferFrames, mPlan.buffers);
    while (!mSourceEnded && mLedger.frames() < frames && carryOut(mSchedule.next(state()))) {
    }
}

void PlaybackSession::start() {
    if (mPlan.withAudio) {
        mAudio = std::make_unique<AudioFeeder>(std::move(mAudioSource), mClock, mPlan.audio,
                                               !mPlan.passthrough);
        mCallbacks.setAudio(mAudio.get());
        mCollector.setAudio(mAudio.get());
    }
    const SectionFeed& section = mSchedule.section();
    const int64_t firstUs = section.frames > 0 ? section.firstUs : mVideo.mediaTimeUs();
    if (!mPlan.withAudio) {
        // Nobody else anchors the clock, and the library drops frames while it has no anchor.
        mRenderer->updateVideoTime(firstUs);
    }
    mRecord.startNs = tv::nowNs();
    mRecord.sections.push_back({mRecord.startNs, -1});
    mSchedule.start(mRecord.startNs);
    for (const auto& change : mPlan.modeChanges) {
        mTv->display().changeMode(atPlaybackTime(change.atUs), change.rateHz);
    }
    for (auto* listener : mHooks.listeners) {
        listener->onStart(mRecord);
    }
    watchScreen();
    mFaults->start(mRecord.startNs);
    mRenderer->start();
    if (mAudio) {
        mAudio->start(firstUs);
    }
}

void PlaybackSession::watchScreen() {
    if (!mScreen.wanted()) {
        return;
    }
    mScreen.begin(mRecord.startNs);
    mTv->observeVsyncs([this](const tv::Vsync& vsync) {
        mFailure.guard([&] { mScreen.see(vsync, mTv->tunnel().onScreen(), sound()); });
    });
}

/// On the fault player's thread.
void PlaybackSession::applyFaults(const TvFaults& faults) {
    mTv->tunnel().setFaults(faults.tunnel);
    mTv->display().setReportFails(faults.reportFails);
    mTv->display().setReportedPeriodNs(faults.reportedPeriodNs);
    if (mAudio && faults.audioPaused != mAudioPaused) {
        mAudioPaused = faults.audioPaused;
        pauseOrResume(mAudioPaused);
    }
}

/// With audio its pause stops the clock. Without it the library takes no notice of a clock that
/// stands still: the player sends nothing.
void PlaybackSession::pauseOrResume(bool paused) {
    mAudio ? mClockWatch.pausedOrResumed(tv::nowNs())
           : mClockWatch.heldOrReleased(paused, tv::nowNs());
    act(paused ? EventKind::Pause : EventKind::Resume);
    if (mAudio) {
        paused ? mAudio->pause() : mAudio->resume();
    } else if (paused) {
        withholdFrames();
    }
}

/// What the library has not handed to the tunnel comes back, and is sent again after the pause. Of
/// an input that cannot seek, it is shown.
void PlaybackSession::withholdFrames() {
    mAnchorNext = true;
    const auto nextUs = mLedger.nextUs();
    if (nextUs && mRecord.media.canSeek) {
        // The library tells late which frame it has handed over; the tunnel knows.
        const auto inTunnel = mTv->tunnel().record(mTunnelId);
        const int64_t handedUs = inTunnel.empty() ? *nextUs : inTunnel.back().mediaTimeUs + 1;
        performSeek({0, std::max(*nextUs, handedUs)});
    }
}

// ---- loop ----

FeedState PlaybackSession::state() const {
    FeedState state;
    state.nowNs = tv::nowNs();
    state.interrupted = mHooks.interrupted && mHooks.interrupted();
    state.quit = mViewerQuit;
    state.held = mViewerPaused && !mAudio && !mStepping;
    state.sourceEnded = mSourceEnded;
    state.havePicture = mHavePicture;
    state.pictureUs = mHavePicture ? mVideo.mediaTimeUs() : 0;
    state.pictureReadyNs = mPictureReadyNs;
    state.positionUs = mLedger.sectionShows() ? mLedger.positionUs() : -1;
    state.clockUs = mClock->mediaTimeAt(state.nowNs / 1000);
    state.inLibrary = mLedger.inLibrary();
    state.lastMoveNs = std::max(mLedger.lastEventNs(),
                                mRecord.sections.empty() ? 0 : mRecord.sections.back().beganNs);
    // In a viewer's pause nothing should move, however long it takes.
    state.lastMoveNs = mViewerPaused ? state.nowNs : state.lastMoveNs;
    state.dueNs = nextFrameDueNs();
    // Only asked for when it counts: it copies the tunnel's record.
    state.lastFrameShown = mSourceEnded && state.inLibrary == 0 && lastFrameHasBeenShown();
    return state;
}

/// When the library's oldest frame is due; 0: it has none, or its clock stands still.
int64_t PlaybackSession::nextFrameDueNs() const {
    const auto nextUs = mLedger.nextUs();
    const int64_t nowUs = tv::nowNs() / 1000;
    return nextUs && !mClock->paused() ? mClock->realTimeFor(*nextUs, nowUs) * 1000 : 0;
}

/// The last frame that reached the tunnel has been on screen for a frame's time.
bool PlaybackSession::lastFrameHasBeenShown() const {
    const auto record = mTv->tunnel().record(mTunnelId);
    if (record.empty()) {
        return true;
    }
    const auto& last = record.back();
    return last.fate == tv::BufferFate::Superseded ||
           (last.firstVsync.index >= 0 && tv::nowNs() >= last.firstVsync.timeNs + mFrameUs * 1000);
}

/// @return false at the end
bool PlaybackSession::carryOut(const FeedStep& step) {
    // A player that does something else meanwhile is not kept waiting by the pool.
    mWaitedNs = step.action == FeedAction::Send ? mWaitedNs : 0;
    switch (step.action) {
        case FeedAction::Decode:
            decodeNext();
            break;
        case FeedAction::Send:
            send(step.waitNs);
            break;
        case FeedAction::Wait:
            std::this_thread::sleep_for(std::chrono::nanoseconds(step.waitNs));
            break;
        case FeedAction::EndSource:
            endSource();
            break;
        case FeedAction::Seek:
            performSeek(step.seek);
            break;
        case FeedAction::Restart:
            performRestart();
            break;
        case FeedAction::End:
            // A source that broke off has said so already.
            mRecord.end = step.end == EndCause::Complete ? mRecord.end : step.end;
            return false;
    }
    return true;
}

/// @return false at the end of the source
bool PlaybackSession::decodeNext() {
    const ReadStatus status = mVideo.next();
    mHavePicture = status == ReadStatus::Ready;
    mPictureReadyNs = tv::nowNs() + mPlan.decodeUs * 1000;
    if (status == ReadStatus::BrokenOff) {
        mRecord.end = EndCause::BrokenOff;
        mRecord.brokeOffAtUs = mVideo.readUpToUs();
    }
    if (!mHavePicture) {
        endSource();
    }
    return mHavePicture;
}

/// With audio the library holds a lone picture back until a second one comes. When none will, the
/// player asks for it to be shown.
void PlaybackSession::endSource() {
    mSourceEnded = true;
    if (mSchedule.section().frames == 1 && mPlan.withAudio && !mPlan.passthrough) {
        mRenderer->peekFirstFrame();
    }
}

/// Sends the picture, if a buffer comes free in time.
void PlaybackSession::send(int64_t longestWaitNs) {
    const int64_t askedNs = tv::nowNs();
    const int buffer = mPool.acquire(std::chrono::nanoseconds(longestWaitNs));
    mWaitedNs += tv::nowNs() - askedNs;
    if (buffer < 0) {
        return;
    }
    const int64_t waitedNs = std::exchange(mWaitedNs, 0);
    const int64_t mediaTimeUs = mVideo.mediaTimeUs();
    const bool first = mSchedule.section().frames == 0;
    const bool anchors = std::exchange(mAnchorNext, false) || first;
    if (anchors) {
        beginSection(mediaTimeUs);
    }
    const int section = std::max(static_cast<int>(mRecord.sections.size()) - 1, 0);
    const int64_t frameNo =
        mLedger.sent(mediaTimeUs, section, buffer, tv::nowNs(), !anchors && isLate(mediaTimeUs),
                     waitedNs, mVideo.followsSplice());
    if (mScreen.wanted()) {
        mScreen.keep(buffer, frameNo, mVideo.picture());
    }
    const size_t bytes = mPool.fill(buffer, mVideo.picture(), frameNo, mediaTimeUs);
    if (mPlan.passthrough) {
        mRenderer->onVideoSyncQueueVideoFrame(mediaTimeUs, static_cast<unsigned>(bytes));
    }
    const bool peek = first && mPlan.peek == Peek::Marked;
    if (mRenderer->sendVideoFrame(mPool.fd(buffer), mediaTimeUs, peek) != 1) {
        throw std::runtime_error("the library has no memory for a frame");
    }
    if (first && mPlan.peek == Peek::Called) {
        mRenderer->peekFirstFrame();
    }
    mCallbacks.frameSent();
    mSchedule.sent(mediaTimeUs);
    mHavePicture = false;
    mAnchorNext = std::exchange(mStepping, false);
}

/// Only once the section shows frames: before, the clock is still to be anchored at its first one.
bool PlaybackSession::isLate(int64_t mediaTimeUs) const {
    const int64_t nowNs = tv::nowNs();
    const int64_t realUs = mClock->realTimeFor(mediaTimeUs, nowNs / 1000);
    return mLedger.sectionShows() && realUs >= 0 && !mClock->paused() &&
           isTooLate(realUs, nowNs / 1000, mTv->display().periodNsAt(nowNs));
}

/// Periodic work beside feeding.
void PlaybackSession::tick() {
    mFailure.rethrow();
    obeyRemote();
    watchAudio();
    const int64_t nowNs = tv::nowNs();
    if (nowNs >= mCollectedNs + kCollectNs) {
        mCollectedNs = nowNs;
        mCollector.collect(mTv->tunnel(), mTunnelId);
    }
    if (mHooks.onProgress) {
        showProgress(nowNs);
    }
}

void PlaybackSession::obeyRemote() {
    while (const auto key = mHooks.remote != nullptr ? mHooks.remote->take() : std::nullopt) {
        switch (key->kind) {
            case RemoteKey::Kind::Pause:
                mViewerPaused = !mViewerPaused;
                pauseOrResume(mViewerPaused);
                break;
            case RemoteKey::Kind::Step:
                step();
                break;
            case RemoteKey::Kind::Seek:
                seekBy(key->byUs);
                break;
            case RemoteKey::Kind::Quit:
                mViewerQuit = true;
                break;
        }
    }
}

/// The clock goes on for one vsync; without audio, by one frame. What the library has handed to the
/// tunnel by then still comes on screen, as on a TV.
void PlaybackSession::step() {
    if (mViewerPaused && !mAudio) {
        mStepping = true;
        return;
    }
    if (mViewerPaused) {
        pauseOrResume(false);
        const auto periodNs = static_cast<int64_t>(mTv->display().periodNsAt(tv::nowNs()));
        std::this_thread::sleep_for(std::chrono::nanoseconds(periodNs));
    }
    mViewerPaused = true;
    pauseOrResume(true);
}

/// From what is shown; from where the last seek went, until that is shown.
void PlaybackSession::seekBy(int64_t us) {
    const auto& sought = mRecord.sections.back().soughtUs;
    const int64_t fromUs = !mLedger.sectionShows() && sought ? *sought : mLedger.positionUs();
    if (std::exchange(mViewerPaused, false)) {
        pauseOrResume(false);
    }
    performSeek({0, std::max<int64_t>(fromUs + us, 0)});
}

void PlaybackSession::watchAudio() {
    if (!mAudio) {
        return;
    }
    if (mHooks.remote != nullptr && mHooks.remote->deviceDriftPpm() != mDeviceDriftPpm) {
        mDeviceDriftPpm = mHooks.remote->deviceDriftPpm();
        mAudio->setDriftPpm(mPlan.audio.driftPpm + mDeviceDriftPpm);
    }
    if (const auto state = mClockWatch.see(mAudio->report(), tv::nowNs())) {
        act(EventKind::Audio, 0, tv::toString(*state));
    }
}

void PlaybackSession::showProgress(int64_t nowNs) {
    PlaybackProgress progress;
    progress.positionUs = mLedger.positionUs();
    progress.endUs = mVideo.info().durationUs;  // splices on the way change it
    if (mPlan.limitUs && (progress.endUs < 0 || *mPlan.limitUs < progress.endUs)) {
        progress.endUs = *mPlan.limitUs;
    }
    progress.frames = mLedger.frames();
    const tv::AudioState audio = mClockWatch.audioState();
    if (mAudio && audio != tv::AudioState::Playing && audio != tv::AudioState::Ended) {
        progress.note = std::string("audio: ") + tv::toString(audio);
    }
    if (mViewerPaused && !mAudio) {
        progress.note = "paused";
    }
    progress.buffers = {mLedger.inLibrary(), mTv->tunnel().heldBuffers(mTunnelId), mPool.free()};
    progress.dropped = mLedger.dropped();
    mHooks.onProgress(progress, nowNs);
}

// ---- sections ----

void PlaybackSession::leaveSection(std::optional<int64_t> soughtUs) {
    if (mAudio) {
        watchAudio();
        mAudio->hold();
    }
    mLedger.beginSection(static_cast<int>(mRecord.sections.size()));
    mRecord.sections.push_back({tv::nowNs(), -1, soughtUs});
    mSchedule.leaveSection();
}

/// Audio first (see AudioFeeder), then the renderer's flush, then the sources go to the new place.
/// Where the input cannot seek, nothing is flushed for it.
void PlaybackSession::performSeek(const SeekAction& seek) {
    if (!seek.inPlace && !mRecord.media.canSeek) {
        ++mRecord.failedSeeks;
        return;
    }
    const int64_t lastSentUs = mSchedule.section().lastUs;
    leaveSection(seek.inPlace ? std::nullopt : std::optional(seek.toUs));
    act(seek.inPlace ? EventKind::Flush : EventKind::Seek, seek.toUs);
    mCallbacks.flush(mRenderer.get());
    if (mPlan.passthrough) {
        // A flush does not end the hold of a frame; only a clock far past its time does.
        mRenderer->updateVideoTime(lastSentUs + kLongPastUs);
    }
    if (!seek.inPlace) {
        mHavePicture = false;
        mSourceEnded = false;
        const bool sought = mVideo.seek(seek.toUs);
        mRecord.failedSeeks += sought ? 0 : 1;
        mRecord.seeksBeyondEnd += !decodeNext() && sought ? 1 : 0;
    }
    awaitFlush();
}

/// The next frame sent ends the flush. If it came before the library's thread has seen the flush,
/// that thread would go on with the old frame that it holds.
void PlaybackSession::awaitFlush() {
    const int64_t beganNs = mRecord.sections.back().beganNs;
    while (mLedger.inLibrary() > 0 && tv::nowNs() < beganNs + kFlushNs) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

/// Goes on with a new renderer: stop, a new one, start. The frames in the old one are lost. If the
/// same renderer starts again, the library itself logs that it gives no buffer back.
void PlaybackSession::performRestart() {
    leaveSection();
    stopRenderer();
    act(EventKind::Restart);
    if (!mPlan.reuseRenderer) {
        mRenderer.reset();
        makeRenderer();
    }
    mRenderer->start();
}

/// Anchors the clock anew. `start` does it for the first section.
void PlaybackSession::beginSection(int64_t mediaTimeUs) {
    if (mRecord.sections.empty()) {
        return;
    }
    if (!mAudio || mPlan.passthrough) {
        mRenderer->updateVideoTime(mediaTimeUs - (mAudio ? kAudioWaitUs : 0));
    }
    if (mAudio) {
        mAudio->restart(mediaTimeUs);
    }
}

// ---- end ----

/// Afterwards every buffer is the player's again, and every frame has an outcome.
void PlaybackSession::stopRenderer() {
    act(EventKind::Stop);
    const int64_t beganNs = tv::nowNs();
    mRenderer->stop();
    mRecord.stopTookNs = std::max(mRecord.stopTookNs, tv::nowNs() - beganNs);
    mPool.takeBackAll();
    mCollector.collect(mTv->tunnel(), mTunnelId);
    mLedger.stopped();
}

PlaybackRecord PlaybackSession::finish() {
    mFaults->stop();
    watchAudio();
    mTv->observeVsyncs(nullptr);
    mScreen.end(sound());
    stopRenderer();
    mRecord.stopNs = tv::nowNs();
    if (mAudio) {
        mAudio->stop();
        mRecord.soundFromUs = mAudio->soundFromUs();
        mRecord.audioUnderflows = mAudio->report().underflows;
        mRecord.audioReanchors = mAudio->report().reanchors;
    }
    mClockWatch.end(mRecord.stopNs);
    mRenderer.reset();
    mTv->powerOff();
    mCollector.finish();
    mFailure.rethrow();
    mRecord.pool = mPool.report();
    mRecord.sync = mClock->counters();
    mRecord.decodeErrors = mVideo.decodeErrors();
    mRecord.media = mVideo.info();
    return mRecord;
}

tv::SoundRecord PlaybackSession::sound() const {
    return mAudio ? mAudio->sound() : tv::SoundRecord();
}

void PlaybackSession::act(EventKind kind, int64_t number, const std::string& text) {
    const Event event{tv::nowNs(), kind, -1, number, 0, text};
    for (auto* listener : mHooks.listeners) {
        listener->onAction(event);
    }
}

PlaybackRecord play(const PlaybackPlan& plan, FrameSource& video,
                    std::unique_ptr<PacketSource> audio, const PlaybackHooks& hooks) {
    return PlaybackSession(plan, video, std::move(audio), hooks).run();
}

}  // namespace korvane::player
