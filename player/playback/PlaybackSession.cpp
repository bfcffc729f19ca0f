// SPDX-License-Identifier: Apache-2.0
#include "player/playback/PlaybackSession.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "player/base/Errors.h"

namespace korvane::player {

PlaybackSession::PlaybackSession(const PlaybackPlan& plan, FrameSource& video,
                                 std::unique_ptr<PacketSource> audio, const PlaybackHooks& hooks)
    : mPlan(plan),
      mHooks(hooks),
      mPool(plan.buffers),
      mCollector(hooks.listeners, &mLedger, &mRecord),
      mScreen(hooks.screens, mLedger, plan.buffers),
      mDecoder(plan, video, &mRecord),
      mSchedule(plan, mDecoder.frameUs()),
      mViewer(plan.withAudio),
      mAudio(plan, std::move(audio), &mRecord),
      mLibrary(plan, &mPool, &mLedger, &mFailure),
      mUnderway(&mLedger, &mLibrary, mDecoder.frameUs()) {
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
    mLibrary.stop();
    tv::observeLog(nullptr);
}

PlaybackRecord PlaybackSession::run() {
    // Before the TV is switched on: a file without a single picture is bad input.
    if (!mDecoder.decode()) {
        throw InputError("'" + mRecord.media.path + "' holds no " + mRecord.media.videoCodec +
                         " picture that can be decoded; the file may be damaged, try another one");
    }
    switchOn();
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
    mLibrary.create(*mTv);
    mFaults = std::make_unique<FaultPlayer>(mPlan.faults, [this](const TvFaults& faults) {
        mFailure.guard([&] { applyFaults(faults); });
    });
}

/// Frames wait in the library's queue until `start`, so that the library does not take a decoder
/// that starts slowly for a slow stream.
void PlaybackSession::prebuffer() {
    const auto frames = std::min<int64_t>(mPlan.prebufferFrames, mPlan.buffers);
    while (!mDecoder.ended() && mLedger.frames() < frames && carryOut(mSchedule.next(state()))) {
    }
}

void PlaybackSession::start() {
    const AudioFeeder* audio = mAudio.create(mLibrary.clock());
    mLibrary.setAudio(audio);
    mCollector.setAudio(audio);
    const SectionFeed& section = mSchedule.section();
    const int64_t firstUs = section.frames > 0 ? section.firstUs : mDecoder.source().mediaTimeUs();
    if (!mPlan.withAudio) {
        // Nobody else anchors the clock, and the library drops frames while it has no anchor.
        mLibrary.anchor(firstUs);
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
    mLibrary.start();
    mAudio.start(firstUs);
}

void PlaybackSession::watchScreen() {
    if (!mScreen.wanted()) {
        return;
    }
    mScreen.begin(mRecord.startNs);
    mTv->observeVsyncs([this](const tv::Vsync& vsync) {
        mFailure.guard([&] { mScreen.see(vsync, mTv->tunnel().onScreen(), mAudio.sound()); });
    });
}

/// On the fault player's thread.
void PlaybackSession::applyFaults(const TvFaults& faults) {
    mTv->tunnel().setFaults(faults.tunnel);
    mTv->display().setReportFails(faults.reportFails);
    mTv->display().setReportedPeriodNs(faults.reportedPeriodNs);
    if (mPlan.withAudio && faults.audioPaused != mAudioPaused) {
        mAudioPaused = faults.audioPaused;
        pauseOrResume(mAudioPaused);
    }
}

/// With audio its pause stops the clock. Without it the library takes no notice of a clock that
/// stands still: the player sends nothing.
void PlaybackSession::pauseOrResume(bool paused) {
    act(paused ? EventKind::Pause : EventKind::Resume);
    mAudio.pauseOrResume(paused);
    if (paused && !mPlan.withAudio) {
        withholdFrames();
    }
}

/// What the library has not handed to the tunnel comes back, and is sent again after the pause. Of
/// an input that cannot seek, it is shown.
void PlaybackSession::withholdFrames() {
    const auto fromUs = mUnderway.notHandedFromUs(*mTv);
    if (fromUs && mRecord.media.canSeek) {
        performSeek({0, *fromUs});
    }
}

// ---- loop ----

FeedState PlaybackSession::state() const {
    FeedState state;
    state.nowNs = tv::nowNs();
    state.interrupted = mHooks.interrupted && mHooks.interrupted();
    state.quit = mViewer.quit();
    state.held = mViewer.holdsFrames();
    state.sourceEnded = mDecoder.ended();
    state.havePicture = mDecoder.havePicture();
    state.pictureUs = mDecoder.havePicture() ? mDecoder.source().mediaTimeUs() : 0;
    state.pictureReadyNs = mDecoder.readyNs();
    state.positionUs = mLedger.sectionShows() ? mLedger.positionUs() : -1;
    state.clockUs = mLibrary.clock()->mediaTimeAt(state.nowNs / 1000);
    state.inLibrary = mLedger.inLibrary();
    state.lastMoveNs = std::max(mLedger.lastEventNs(),
                                mRecord.sections.empty() ? 0 : mRecord.sections.back().beganNs);
    // In a viewer's pause nothing should move, however long it takes.
    state.lastMoveNs = mViewer.paused() ? state.nowNs : state.lastMoveNs;
    state.dueNs = mUnderway.nextDueNs();
    // Only asked for when it counts: it copies the tunnel's record.
    state.lastFrameShown =
        state.sourceEnded && state.inLibrary == 0 && mUnderway.lastHasBeenShown(*mTv);
    return state;
}

/// @return false at the end
bool PlaybackSession::carryOut(const FeedStep& step) {
    // A player that does something else meanwhile is not kept waiting by the pool.
    mWaitedNs = step.action == FeedAction::Send ? mWaitedNs : 0;
    switch (step.action) {
        case FeedAction::Decode:
            if (!mDecoder.decode()) {
                sourceEnded();
            }
            break;
        case FeedAction::Send:
            send(step.waitNs);
            break;
        case FeedAction::Wait:
            std::this_thread::sleep_for(std::chrono::nanoseconds(step.waitNs));
            break;
        case FeedAction::EndSource:
            mDecoder.end();
            sourceEnded();
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

void PlaybackSession::sourceEnded() {
    if (mSchedule.section().frames == 1) {
        mLibrary.showLonePicture();
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
    const FrameSource& video = mDecoder.source();
    const int64_t mediaTimeUs = video.mediaTimeUs();
    const bool first = mSchedule.section().frames == 0;
    const bool anchors = mViewer.frameGoesOut() || first;
    if (anchors) {
        beginSection(mediaTimeUs);
    }
    const int section = std::max(static_cast<int>(mRecord.sections.size()) - 1, 0);
    const bool late = !anchors && mUnderway.isLate(*mTv, mediaTimeUs);
    const int64_t frameNo = mLedger.sent(mediaTimeUs, section, buffer, tv::nowNs(), late, waitedNs,
                                         video.followsSplice());
    if (mScreen.wanted()) {
        mScreen.keep(buffer, frameNo, video.picture());
    }
    const size_t bytes = mPool.fill(buffer, video.picture(), frameNo, mediaTimeUs);
    mLibrary.send({mPool.fd(buffer), bytes, mediaTimeUs, first});
    mSchedule.sent(mediaTimeUs);
    mDecoder.sent();
}

/// Periodic work beside feeding.
void PlaybackSession::tick() {
    mFailure.rethrow();
    obeyRemote();
    watchAudio();
    const int64_t nowNs = tv::nowNs();
    mCollector.collectIfDue(mTv->tunnel(), mLibrary.tunnelId(), nowNs);
    if (mHooks.onProgress) {
        showProgress(nowNs);
    }
}

void PlaybackSession::obeyRemote() {
    while (const auto key = mHooks.remote != nullptr ? mHooks.remote->take() : std::nullopt) {
        for (const auto& step : mViewer.press(*key, {mLedger.sectionShows(), mLedger.positionUs(),
                                                     mRecord.sections.back().soughtUs})) {
            obey(step);
        }
    }
}

void PlaybackSession::obey(const ViewerStep& step) {
    switch (step.kind) {
        case ViewerStep::Kind::Pause:
            pauseOrResume(true);
            break;
        case ViewerStep::Kind::Resume:
            pauseOrResume(false);
            break;
        case ViewerStep::Kind::AwaitVsync: {
            const auto periodNs = static_cast<int64_t>(mTv->display().periodNsAt(tv::nowNs()));
            std::this_thread::sleep_for(std::chrono::nanoseconds(periodNs));
            break;
        }
        case ViewerStep::Kind::Seek:
            performSeek({0, step.toUs});
            break;
    }
}

void PlaybackSession::watchAudio() {
    if (mHooks.remote != nullptr) {
        mAudio.followDevice(mHooks.remote->deviceDriftPpm());
    }
    if (const auto state = mAudio.look()) {
        act(EventKind::Audio, 0, tv::toString(*state));
    }
}

void PlaybackSession::showProgress(int64_t nowNs) {
    PlaybackProgress progress;
    progress.positionUs = mLedger.positionUs();
    progress.endUs = mDecoder.endUs();
    progress.frames = mLedger.frames();
    progress.note = mViewer.paused() && !mPlan.withAudio ? "paused" : mAudio.note();
    progress.buffers = {mLedger.inLibrary(), mTv->tunnel().heldBuffers(mLibrary.tunnelId()),
                        mPool.free()};
    progress.dropped = mLedger.dropped();
    mHooks.onProgress(progress, nowNs);
}

// ---- sections ----

void PlaybackSession::leaveSection(std::optional<int64_t> soughtUs) {
    watchAudio();
    mAudio.hold();
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
    mLibrary.flush(lastSentUs);
    if (!seek.inPlace) {
        mDecoder.seek(seek.toUs);
    }
    mUnderway.awaitFlush(mRecord.sections.back().beganNs);
}

/// Goes on with a new renderer: stop, a new one, start. The frames in the old one are lost. If the
/// same renderer starts again, the library itself logs that it gives no buffer back.
void PlaybackSession::performRestart() {
    leaveSection();
    stopRenderer();
    act(EventKind::Restart);
    if (!mPlan.reuseRenderer) {
        mLibrary.create(*mTv);
    }
    mLibrary.start();
}

/// Anchors the clock anew. `start` does it for the first section.
void PlaybackSession::beginSection(int64_t mediaTimeUs) {
    if (mRecord.sections.empty()) {
        return;
    }
    mLibrary.anchor(mediaTimeUs);
    mAudio.restart(mediaTimeUs);
}

// ---- end ----

/// Afterwards every buffer is the player's again, and every frame has an outcome.
void PlaybackSession::stopRenderer() {
    act(EventKind::Stop);
    const int64_t beganNs = tv::nowNs();
    mLibrary.stop();
    mRecord.stopTookNs = std::max(mRecord.stopTookNs, tv::nowNs() - beganNs);
    mPool.takeBackAll();
    mCollector.collect(mTv->tunnel(), mLibrary.tunnelId());
    mLedger.stopped();
}

PlaybackRecord PlaybackSession::finish() {
    mFaults->stop();
    watchAudio();
    mTv->observeVsyncs(nullptr);
    mScreen.end(mAudio.sound());
    stopRenderer();
    mRecord.stopNs = tv::nowNs();
    mAudio.end(mRecord.stopNs);
    mLibrary.destroy();
    mTv->powerOff();
    mCollector.finish();
    mFailure.rethrow();
    mRecord.pool = mPool.report();
    mRecord.sync = mLibrary.clock()->counters();
    mRecord.decodeErrors = mDecoder.source().decodeErrors();
    mRecord.media = mDecoder.source().info();
    return mRecord;
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
