// SPDX-License-Identifier: Apache-2.0
// One playback: the player's thread. It decodes, waits for free buffers, hands frames in, performs
// flushes and seeks, and watches for the end, a step at a time. It looks around at the times of the
// actions that are planned, and every few milliseconds besides.
#include <algorithm>
#include <chrono>
#include <limits>
#include <string>
#include <thread>

#include "player/playback/PlaybackSession.h"

namespace korvane::player {
namespace {

/// How long the player's thread sleeps at most before it looks around again.
constexpr int64_t kTickNs = 20'000'000;
/// The same while it waits for a position to be shown.
constexpr int64_t kFineTickNs = 5'000'000;
/// How often settled frames are taken out of the ledger.
constexpr int64_t kCollectNs = 1'000'000'000;
/// Without any sign of life for this long, beyond the waits that were asked for, playback stalls.
constexpr int64_t kStallNs = 5'000'000'000;
/// Longest wait after a flush for the library to let go of what it had; it hands frames to the
/// tunnel about 40 ms ahead, and those are what comes back last.
constexpr int64_t kFlushNs = 100'000'000;
/// Longest wait for the last frame to come on screen after the library has handed it over.
constexpr int64_t kLastFrameNs = 1'000'000'000;

}  // namespace

void PlaybackSession::feedAndWatch() {
    while (!stopAsked()) {
        tick();
        if (seekDue()) {
            performSeek();
        } else if (mPlan.restartAtUs && !mRestarted &&
                   tv::nowNs() >= atPlaybackTime(*mPlan.restartAtUs)) {
            performRestart();
        } else if (!mSourceEnded) {
            pump();
        } else if (finished()) {
            return;
        } else {
            std::this_thread::sleep_for(untilNextLook());
        }
    }
}

bool PlaybackSession::stopAsked() {
    if (mHooks.interrupted && mHooks.interrupted()) {
        mRecord.end = EndCause::Interrupted;
        return true;
    }
    if (mPlan.stopAtUs && tv::nowNs() >= atPlaybackTime(*mPlan.stopAtUs)) {
        mRecord.end = EndCause::Stopped;
        return true;
    }
    if (stalled()) {
        mRecord.end = EndCause::Stalled;
        return true;
    }
    return false;
}

/// @return false at the end of the file
bool PlaybackSession::decodeNext() {
    const ReadStatus status = mVideo.next();
    mHavePicture = status == ReadStatus::Ready;
    mPictureReadyNs = tv::nowNs() + mPlan.decodeUs * 1000;
    if (status == ReadStatus::BrokenOff) {
        mRecord.end = EndCause::BrokenOff;
        mRecord.brokeOffAtUs = mVideo.readUpToUs();
    }
    if (!mHavePicture) {
        sourceEnds();
    }
    return mHavePicture;
}

/// With audio the library keeps a lone picture back until there is a second one. Where none will
/// come, the player asks for it to be shown.
void PlaybackSession::sourceEnds() {
    mSourceEnded = true;
    if (mSectionFrames == 1 && mPlan.withAudio && !mPlan.passthrough) {
        mRenderer->peekFirstFrame();
    }
}

/// Moves one picture on, as far as it goes now: decode, wait for a buffer, hand in.
void PlaybackSession::pump() {
    if (!mHavePicture && !decodeNext()) {
        return;
    }
    if (overLimit()) {
        sourceEnds();
        return;
    }
    if (supplyStalls()) {
        std::this_thread::sleep_for(untilNextLook());
        return;
    }
    if (const int64_t waitNs = pictureWaitNs(); waitNs > 0) {
        sleepAtMost(waitNs);
        return;
    }
    const int buffer = mPool.acquire(untilNextLook());
    if (buffer < 0) {
        return;
    }
    const int64_t mediaTimeUs = mVideo.mediaTimeUs();
    if (!mSectionBegun) {
        beginSection(mediaTimeUs);
    }
    send(buffer, mediaTimeUs);
    mHavePicture = false;
}

/// How long the decoder still takes for the picture, or delivers nothing at all.
int64_t PlaybackSession::pictureWaitNs() const {
    const int64_t nowNs = tv::nowNs();
    int64_t readyNs = mPictureReadyNs;
    for (const auto& gap : mGaps) {
        const bool inGap = mRecord.startNs > 0 && nowNs >= atPlaybackTime(gap.atUs) &&
                           nowNs < atPlaybackTime(gap.untilUs);
        readyNs = inGap ? std::max(readyNs, atPlaybackTime(gap.untilUs)) : readyNs;
    }
    return readyNs - nowNs;
}

void PlaybackSession::beginSection(int64_t mediaTimeUs) {
    mSectionBegun = true;
    mFirstMediaUs = mediaTimeUs;
    if (mRecord.sections.empty()) {
        return;  // before `start`, which sees to the rest
    }
    if (mAudio) {
        mAudio->restart(mediaTimeUs);
    } else {
        mRenderer->updateVideoTime(mediaTimeUs);
    }
}

void PlaybackSession::send(int buffer, int64_t mediaTimeUs) {
    const int section = std::max(static_cast<int>(mRecord.sections.size()) - 1, 0);
    const bool first = mSectionFrames++ == 0;
    const int64_t frameNo =
        mLedger.sent(mediaTimeUs, section, buffer, tv::nowNs(), isLate(mediaTimeUs));
    const size_t bytes = mPool.fill(buffer, mVideo.picture(), frameNo, mediaTimeUs);
    if (mPlan.passthrough) {
        mRenderer->onVideoSyncQueueVideoFrame(mediaTimeUs, static_cast<unsigned>(bytes));
    }
    mRenderer->sendVideoFrame(mPool.fd(buffer), mediaTimeUs, first && mPlan.peek == Peek::Marked);
    if (first && mPlan.peek == Peek::Called) {
        mRenderer->peekFirstFrame();
    }
    mFlushing = false;
    mLastMediaUs = mediaTimeUs;
}

/// A frame due sooner than the library hands frames to the tunnel comes late for its vsync.
bool PlaybackSession::isLate(int64_t mediaTimeUs) const {
    const int64_t nowUs = tv::nowNs() / 1000;
    const int64_t realUs = mClock->realTimeFor(mediaTimeUs, nowUs);
    return mLedger.positionUs() >= 0 && realUs >= 0 && !mClock->paused() && realUs < nowUs;
}

bool PlaybackSession::overLimit() const {
    if (!mPlan.limitUs) {
        return false;
    }
    const int64_t inSectionUs = mSectionBegun ? mVideo.mediaTimeUs() - mFirstMediaUs : 0;
    return mPlayedBeforeUs + inSectionUs >= *mPlan.limitUs;
}

bool PlaybackSession::stallReached() const {
    return !mStalls.empty() && mVideo.mediaTimeUs() >= mStalls.front().atUs;
}

/// The gap in the supply that was asked for begins when all before it has been shown, so that the
/// library runs out of pictures.
bool PlaybackSession::supplyStalls() {
    if (!stallReached()) {
        return false;
    }
    const int64_t nowNs = tv::nowNs();
    const bool shown = mLedger.unsettled() == 0 || mLedger.positionUs() < 0;
    if (mStallEndsNs == 0 && shown) {
        mStallEndsNs = nowNs + mStalls.front().durationUs * 1000;
    }
    if (mStallEndsNs == 0 || nowNs < mStallEndsNs) {
        return true;
    }
    mStalls.pop_front();
    mStallEndsNs = 0;
    return false;
}

bool PlaybackSession::seekDue() const {
    if (mSeeks.empty()) {
        return false;
    }
    const SeekAction& seek = mSeeks.front();
    return seek.atPosition ? mSectionBegun && mLedger.positionUs() >= seek.atUs
                           : tv::nowNs() >= atPlaybackTime(seek.atUs);
}

/// What a player does on a seek: audio first (see AudioFeeder), then the renderer's flush, then
/// both sources go to the new place. The section begins with the next picture handed in.
void PlaybackSession::performSeek() {
    const SeekAction seek = mSeeks.front();
    mSeeks.pop_front();
    leaveSection();
    act(seek.inPlace ? EventKind::Flush : EventKind::Seek, seek.toUs);
    flushRenderer();
    if (!seek.inPlace) {
        mHavePicture = false;
        mSourceEnded = false;
        mRecord.failedSeeks += mVideo.seek(seek.toUs) ? 0 : 1;
        decodeNext();
    }
    awaitFlush();
}

void PlaybackSession::leaveSection() {
    if (mAudio) {
        watchAudio(tv::nowNs());
        mAudio->hold();
    }
    mLedger.beginSection(static_cast<int>(mRecord.sections.size()));
    mRecord.sections.push_back({tv::nowNs(), -1});
    mPlayedBeforeUs += mSectionBegun ? mLastMediaUs - mFirstMediaUs + mFrameUs : 0;
    mSectionBegun = false;
    mSectionFrames = 0;
    mSettledSinceNs = 0;
}

/// The next frame handed in ends the flush. One that comes before the library's thread has seen the
/// flush lets that thread go on with the old frame that it holds.
void PlaybackSession::awaitFlush() {
    const int64_t beganNs = mRecord.sections.back().beganNs;
    while (mLedger.unsettled() > 0 && tv::nowNs() < beganNs + kFlushNs) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

/// Everything that is to happen now and then beside feeding.
void PlaybackSession::tick() {
    const int64_t nowNs = tv::nowNs();
    watchAudio(nowNs);
    if (nowNs >= mCollectedNs + kCollectNs) {
        mCollectedNs = nowNs;
        collect();
    }
    if (mHooks.onProgress) {
        showProgress(nowNs);
    }
}

/// Takes note of when audio starts and when the clock stands still.
void PlaybackSession::watchAudio(int64_t nowNs) {
    if (!mAudio) {
        return;
    }
    const tv::AudioReport audio = mAudio->report();
    if (audio.startedRealUs >= 0) {
        mRecord.sections.back().audioStartedRealUs = audio.startedRealUs;
    }
    auto& stops = mRecord.clockStops;
    const bool stopOpen = !stops.empty() && stops.back().toUs == 0;
    const bool paused = audio.state == tv::AudioState::Paused;
    const bool stands = paused || audio.state == tv::AudioState::Underflow;
    if (stands && !stopOpen) {
        stops.push_back({(paused ? mAudioSwitchedNs.load() : nowNs) / 1000, 0, paused});
    } else if (!stands && stopOpen) {
        stops.back().toUs = (stops.back().byPlayer ? mAudioSwitchedNs.load() : nowNs) / 1000;
    }
    if (audio.state != mAudioState) {
        mAudioState = audio.state;
        act(EventKind::Audio, 0, tv::toString(audio.state));
    }
}

void PlaybackSession::showProgress(int64_t nowNs) {
    PlaybackProgress state;
    state.positionUs = mLedger.positionUs();
    state.endUs =
        mPlan.limitUs && (mRecord.media.durationUs < 0 || *mPlan.limitUs < mRecord.media.durationUs)
            ? *mPlan.limitUs
            : mRecord.media.durationUs;
    state.frames = mLedger.frames();
    if (mAudio && mAudioState != tv::AudioState::Playing && mAudioState != tv::AudioState::Ended) {
        state.note = std::string("audio: ") + tv::toString(mAudioState);
    }
    mHooks.onProgress(state, nowNs);
}

/// When the next action is due that is planned for a time; INT64_MAX: none.
int64_t PlaybackSession::nextActionNs() const {
    int64_t nextNs = std::numeric_limits<int64_t>::max();
    if (!mSeeks.empty() && !mSeeks.front().atPosition) {
        nextNs = std::min(nextNs, atPlaybackTime(mSeeks.front().atUs));
    }
    if (mPlan.restartAtUs && !mRestarted) {
        nextNs = std::min(nextNs, atPlaybackTime(*mPlan.restartAtUs));
    }
    if (mPlan.stopAtUs) {
        nextNs = std::min(nextNs, atPlaybackTime(*mPlan.stopAtUs));
    }
    return nextNs;
}

std::chrono::nanoseconds PlaybackSession::untilNextLook() const {
    const bool atPosition = !mStalls.empty() || (!mSeeks.empty() && mSeeks.front().atPosition);
    const int64_t tickNs = atPosition || mSourceEnded ? kFineTickNs : kTickNs;
    if (mRecord.startNs == 0) {
        return std::chrono::nanoseconds(tickNs);
    }
    const int64_t untilNs = nextActionNs() - tv::nowNs();
    return std::chrono::nanoseconds(std::clamp<int64_t>(untilNs, 0, tickNs));
}

void PlaybackSession::sleepAtMost(int64_t ns) const {
    std::this_thread::sleep_for(std::min(untilNextLook(), std::chrono::nanoseconds(ns)));
}

/// All is over once every frame has been given an account and no action is planned any more; a stop
/// is none that is waited for.
bool PlaybackSession::finished() {
    const bool seekPlanned = !mSeeks.empty() && !mSeeks.front().atPosition;
    if (mLedger.unsettled() > 0 || seekPlanned || (mPlan.restartAtUs && !mRestarted)) {
        mSettledSinceNs = 0;
        return false;
    }
    const int64_t nowNs = tv::nowNs();
    if (mSettledSinceNs == 0) {
        mSettledSinceNs = nowNs;
    }
    return lastFrameHasBeenShown() || nowNs - mSettledSinceNs > kLastFrameNs;
}

/// The last frame that was handed to the tunnel has been on screen for a frame's time.
bool PlaybackSession::lastFrameHasBeenShown() {
    const auto record = mTv->tunnel().record(mTunnelId);
    if (record.empty()) {
        return true;
    }
    const auto& last = record.back();
    return last.fate == tv::BufferFate::Superseded ||
           (last.firstVsync.index >= 0 && tv::nowNs() >= last.firstVsync.timeNs + mFrameUs * 1000);
}

bool PlaybackSession::stalled() const {
    if (nextActionNs() != std::numeric_limits<int64_t>::max()) {
        return false;
    }
    const int64_t sinceNs = std::max(mLedger.lastEventNs(), mRecord.sections.back().beganNs);
    return tv::nowNs() - sinceNs > kStallNs + mPlan.longestWaitUs * 1000;
}

}  // namespace korvane::player
