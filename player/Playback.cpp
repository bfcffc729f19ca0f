#include "player/Playback.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <stdexcept>
#include <thread>
#include <utility>

#include "VideoTunnelRenderer.h"
#include "player/AudioFeeder.h"
#include "player/Progress.h"
#include "tv/Tv.h"

namespace korvane::player {
namespace {

using std::chrono::milliseconds;

/// How long the player's thread sleeps at most before it looks around again.
constexpr milliseconds kTick{5};
/// Upper half of init's argument: tuner pass-through.
constexpr int kPassthroughInit = 0x10000;
/// The renderer waits for its second frame; the rest is a reserve for a slow start of the decoder.
constexpr int64_t kPrebufferFrames = 8;
/// A frame's time where the file tells no rate.
constexpr int64_t kDefaultFrameUs = 40'000;
/// Without any sign of life for this long, beyond the waits that were asked for, playback stalls.
constexpr int64_t kStallNs = 5'000'000'000;
/// Longest wait for the last frame to come on screen after the library has handed it over.
constexpr int64_t kLastFrameNs = 1'000'000'000;
/// Set on the player's thread while it is inside `flush`, which calls back on that same thread.
thread_local bool tInsideFlush = false;
/// The reason that the library has just logged on this thread.
thread_local DropReason tAnnounced = DropReason::None;

void noteDropLine(const tv::LogLine& line) {
    if (const auto reason = dropReasonFromLog(line.text)) {
        tAnnounced = *reason;
    }
}

struct DeleteRenderer {
    void operator()(VideoTunnelRenderer* renderer) const { delete renderer; }
};

class Playback {
public:
    Playback(const PlayOptions& options, VideoReader& reader,
             const std::function<bool()>& interrupted);
    ~Playback();
    Playback(const Playback&) = delete;
    Playback& operator=(const Playback&) = delete;

    PlaybackRecord run();

private:
    // the library's callbacks
    static int bufferBack(void* self, void* status) noexcept;
    static int renderTime(void* self, void* time) noexcept;
    void onBufferBack(int fd, bool rendered);
    void onRenderTime(const rendertime& time);
    DropReason reasonOfDrop(int64_t mediaTimeUs, DropEvidence* evidence);
    DropValues valuesNow(int64_t mediaTimeUs);

    // set-up
    void switchOn();
    void makeRenderer();
    void start();

    // the player's thread
    void feedAndWatch();
    bool stopAsked();
    bool decodeNext();
    void pump();
    void send(int buffer, int64_t mediaTimeUs);
    bool isLate(int64_t mediaTimeUs) const;
    void beginSection(int64_t mediaTimeUs);
    bool overLimit() const;
    bool stallReached() const;
    bool supplyStalls();
    bool seekDue() const;
    void performSeek();
    void tick();
    bool finished();
    bool lastFrameHasBeenShown();
    bool stalled() const;
    PlaybackRecord finish();

    const PlayOptions& mOptions;
    VideoReader& mReader;
    const std::function<bool()>& mInterrupted;
    PlaybackRecord mRecord;
    const bool mWithAudio;

    std::shared_ptr<tv::Tv> mTv;
    std::shared_ptr<tv::SyncInstance> mClock;
    BufferPool mPool;
    FrameLedger mLedger;
    Progress mProgress;
    std::unique_ptr<AudioFeeder> mAudio;
    std::unique_ptr<VideoTunnelRenderer, DeleteRenderer> mRenderer;
    int mTunnelId = -1;

    std::deque<SeekAction> mSeeks;
    std::deque<VideoStall> mStalls;
    int64_t mStallEndsNs = 0;
    std::atomic<bool> mFlushing{false};
    bool mHavePicture = false;
    bool mSectionBegun = false;
    bool mSourceEnded = false;
    int64_t mFirstMediaUs = 0;    ///< of the section
    int64_t mPlayedBeforeUs = 0;  ///< media handed in before the section
    int64_t mLastMediaUs = 0;
    int64_t mFrameUs = kDefaultFrameUs;
    int64_t mSettledSinceNs = 0;
};

Playback::Playback(const PlayOptions& options, VideoReader& reader,
                   const std::function<bool()>& interrupted)
    : mOptions(options),
      mReader(reader),
      mInterrupted(interrupted),
      mWithAudio(reader.info().hasAudio && !options.noAudio),
      mPool(options.buffers),
      mProgress(!options.quiet),
      mSeeks(options.seeks.begin(), options.seeks.end()),
      mStalls(options.videoStalls.begin(), options.videoStalls.end()) {
    const double hz = reader.info().frameRateHz;
    if (hz > 0.0) {
        mFrameUs = static_cast<int64_t>(1e6 / hz);
    }
    mRecord.media = reader.info();
    mRecord.withAudio = mWithAudio;
    mRecord.passthrough = options.passthrough;
    mRecord.displayHz = tv::displayRateHz(options.rateHz);
    tv::observeLog(noteDropLine);
}

Playback::~Playback() {
    // Normally all stopped already; here when something was thrown on the way.
    if (mRenderer) {
        mRenderer->stop();
    }
    tv::observeLog(nullptr);
}

PlaybackRecord Playback::run() {
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

int Playback::bufferBack(void* self, void* status) noexcept {
    const auto* info = static_cast<const framestatus*>(status);
    static_cast<Playback*>(self)->onBufferBack(info->fd, info->rendered != 0);
    return 0;
}

int Playback::renderTime(void* self, void* time) noexcept {
    static_cast<Playback*>(self)->onRenderTime(*static_cast<const rendertime*>(time));
    return 0;
}

void Playback::onBufferBack(int fd, bool rendered) {
    const auto holding = mPool.holding(fd);
    if (holding.frameNo >= 0) {
        ReturnedBuffer buffer;
        buffer.frameNo = holding.frameNo;
        buffer.nowNs = tv::nowNs();
        buffer.rendered = rendered;
        buffer.insideFlush = tInsideFlush;
        if (!rendered && !tInsideFlush) {
            buffer.dropReason =
                reasonOfDrop(mLedger.mediaTimeUs(holding.frameNo), &buffer.dropEvidence);
        }
        mLedger.returned(buffer);
    }
    // Last, for from here on the player may write it.
    mPool.giveBack(fd);
}

DropReason Playback::reasonOfDrop(int64_t mediaTimeUs, DropEvidence* evidence) {
    const DropReason announced = std::exchange(tAnnounced, DropReason::None);
    *evidence = announced != DropReason::None ? DropEvidence::LogLine : DropEvidence::Values;
    return announced != DropReason::None ? announced : dropReasonFromValues(valuesNow(mediaTimeUs));
}

DropValues Playback::valuesNow(int64_t mediaTimeUs) {
    const int64_t nowUs = tv::nowNs() / 1000;
    DropValues values;
    values.passthrough = mOptions.passthrough;
    values.hasAudio = mWithAudio;
    values.flushing = mFlushing;
    values.syncMode = mClock->mode();
    values.underflowSeen = mAudio && mAudio->report().underflows > 0;
    values.lateUs = nowUs - mClock->realTimeFor(mediaTimeUs, nowUs);
    values.vsyncPeriodUs = static_cast<int64_t>(1e6 / mRecord.displayHz);
    return values;
}

void Playback::onRenderTime(const rendertime& time) {
    std::optional<int64_t> clockUs;
    const int64_t realUs = mClock->realTimeFor(time.mediaTimeUs, tv::nowNs() / 1000);
    if (realUs >= 0 && !mClock->paused()) {
        clockUs = realUs;
    }
    mLedger.renderTime(time.mediaTimeUs, time.renderTimeUs, clockUs);
}

// ---- set-up ----

void Playback::switchOn() {
    tv::TvConfig config;
    config.display.rateHz = mRecord.displayHz;
    config.display.driftPpm = mOptions.displayDriftPpm;
    config.display.reportJitterNs = mOptions.vsyncJitterUs * 1000;
    mTv = tv::Tv::powerOn(config);
    mClock = mTv->mediaSync().create();
}

void Playback::makeRenderer() {
    mRenderer.reset(VideoTunnelRenderer_create());
    const bool bindClock = mWithAudio || mOptions.passthrough;
    mRenderer->init((bindClock ? mClock->id() : 0) | (mOptions.passthrough ? kPassthroughInit : 0));
    if (!bindClock) {
        // Without audio the library makes itself an instance; it is the newest one.
        mClock = mTv->mediaSync().instances().back();
    }
    mRenderer->regCallBack(kFrameStatusCallback, bufferBack, this);
    mRenderer->regCallBack(kRenderTimeCallback, renderTime, this);
    mTunnelId = mRenderer->getTunnelId();
    if (mTunnelId < 0) {
        throw std::runtime_error("the TV gives no video tunnel; see the log with --log 1");
    }
    const int hundredths = rateInHundredths(mRecord.media.frameRateHz);
    if (hundredths >= 1 && hundredths <= 6000) {
        mRenderer->setFrameRate(hundredths);
    }
}

void Playback::start() {
    if (mWithAudio) {
        tv::AudioConfig config;
        config.startDelayUs = mOptions.audioDelayUs;
        config.driftPpm = mOptions.audioDriftPpm;
        config.underflows = mOptions.underflows;
        mAudio = std::make_unique<AudioFeeder>(mRecord.media.path, mClock, config,
                                               !mOptions.passthrough);
    }
    // Frames wait in the library's queue until `start`, so that a decoder that starts slowly is not
    // taken for a stream that does.
    while (!mSourceEnded &&
           mLedger.frames() < std::min<int64_t>(kPrebufferFrames, mOptions.buffers)) {
        pump();
    }
    if (!mWithAudio) {
        // Nobody else anchors the clock, and the library drops a frame that finds it without.
        mRenderer->updateVideoTime(mFirstMediaUs);
    }
    mRecord.startNs = tv::nowNs();
    mRecord.sections.push_back({mRecord.startNs, -1});
    mRenderer->start();
    if (mAudio) {
        mAudio->start();
    }
}

// ---- the player's thread ----

void Playback::feedAndWatch() {
    while (!stopAsked()) {
        tick();
        if (seekDue()) {
            performSeek();
        } else if (!mSourceEnded) {
            pump();
        } else if (finished()) {
            return;
        } else {
            std::this_thread::sleep_for(kTick);
        }
    }
}

bool Playback::stopAsked() {
    if (mInterrupted()) {
        mRecord.end = EndCause::Interrupted;
        return true;
    }
    if (stalled()) {
        mRecord.end = EndCause::Stalled;
        return true;
    }
    return false;
}

/// @return false at the end of the file
bool Playback::decodeNext() {
    const ReadStatus status = mReader.next();
    mHavePicture = status == ReadStatus::Ready;
    mSourceEnded = !mHavePicture;
    if (status == ReadStatus::BrokenOff) {
        mRecord.end = EndCause::BrokenOff;
        mRecord.brokeOffAtUs = mReader.readUpToUs();
    }
    return mHavePicture;
}

/// Moves one picture on, as far as it goes now: decode, wait for a buffer, hand in.
void Playback::pump() {
    if (!mHavePicture && !decodeNext()) {
        return;
    }
    if (overLimit()) {
        mSourceEnded = true;
        return;
    }
    if (supplyStalls()) {
        std::this_thread::sleep_for(kTick);
        return;
    }
    const int buffer = mPool.acquire(kTick);
    if (buffer < 0) {
        return;
    }
    const int64_t mediaTimeUs = mReader.mediaTimeUs();
    if (!mSectionBegun) {
        beginSection(mediaTimeUs);
    }
    send(buffer, mediaTimeUs);
    mHavePicture = false;
}

void Playback::beginSection(int64_t mediaTimeUs) {
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

void Playback::send(int buffer, int64_t mediaTimeUs) {
    const int section = std::max(static_cast<int>(mRecord.sections.size()) - 1, 0);
    const bool peek = mOptions.peek && mLedger.frames() == 0;
    const int64_t frameNo =
        mLedger.sent(mediaTimeUs, section, buffer, tv::nowNs(), isLate(mediaTimeUs));
    const size_t bytes = mPool.fill(buffer, mReader.picture(), frameNo, mediaTimeUs);
    if (mOptions.passthrough) {
        mRenderer->onVideoSyncQueueVideoFrame(mediaTimeUs, static_cast<unsigned>(bytes));
    }
    mRenderer->sendVideoFrame(mPool.fd(buffer), mediaTimeUs, peek);
    mFlushing = false;
    mLastMediaUs = mediaTimeUs;
}

/// A frame due sooner than the library hands frames to the tunnel comes late for its vsync.
bool Playback::isLate(int64_t mediaTimeUs) const {
    const int64_t nowUs = tv::nowNs() / 1000;
    const int64_t realUs = mClock->realTimeFor(mediaTimeUs, nowUs);
    return mLedger.positionUs() >= 0 && realUs >= 0 && !mClock->paused() && realUs < nowUs;
}

bool Playback::overLimit() const {
    if (!mOptions.limitUs) {
        return false;
    }
    const int64_t inSectionUs = mSectionBegun ? mReader.mediaTimeUs() - mFirstMediaUs : 0;
    return mPlayedBeforeUs + inSectionUs >= *mOptions.limitUs;
}

bool Playback::stallReached() const {
    return !mStalls.empty() && mReader.mediaTimeUs() >= mStalls.front().atUs;
}

/// The gap in the supply that was asked for begins when all before it has been shown, so that the
/// library runs out of pictures.
bool Playback::supplyStalls() {
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

bool Playback::seekDue() const {
    return !mSeeks.empty() && mSectionBegun && mLedger.positionUs() >= mSeeks.front().atUs;
}

/// What a player does on a seek: audio first (see AudioFeeder), then the renderer's flush, then
/// both readers go to the new place. The section begins with the next picture handed in.
void Playback::performSeek() {
    const SeekAction seek = mSeeks.front();
    mSeeks.pop_front();
    if (mAudio) {
        mRecord.sections.back().audioStartedRealUs = mAudio->report().startedRealUs;
        mAudio->hold();
    }
    mRecord.sections.push_back({tv::nowNs(), -1});
    mFlushing = true;
    tInsideFlush = true;
    mRenderer->flush();
    tInsideFlush = false;
    mPlayedBeforeUs += mLastMediaUs - mFirstMediaUs + mFrameUs;
    mSectionBegun = false;
    mSettledSinceNs = 0;
    if (!seek.inPlace) {
        mHavePicture = false;
        mSourceEnded = false;
        mRecord.failedSeeks += mReader.seek(seek.toUs) ? 0 : 1;
    }
}

/// Everything that is to happen every few milliseconds beside feeding.
void Playback::tick() {
    const int64_t nowNs = tv::nowNs();
    tv::AudioReport audio;
    if (mAudio) {
        audio = mAudio->report();
    }
    auto& stops = mRecord.clockStops;
    const bool stopOpen = !stops.empty() && stops.back().toUs == 0;
    if (audio.state == tv::AudioState::Underflow && !stopOpen) {
        stops.push_back({nowNs / 1000, 0});
    } else if (audio.state != tv::AudioState::Underflow && stopOpen) {
        stops.back().toUs = nowNs / 1000;
    }
    ProgressState state;
    state.positionUs = mLedger.positionUs();
    state.endUs = mOptions.limitUs && (mRecord.media.durationUs < 0 ||
                                       *mOptions.limitUs < mRecord.media.durationUs)
                      ? *mOptions.limitUs
                      : mRecord.media.durationUs;
    state.frames = mLedger.frames();
    if (mAudio && audio.state != tv::AudioState::Playing && audio.state != tv::AudioState::Ended) {
        state.note = std::string("audio: ") + tv::toString(audio.state);
    }
    mProgress.update(state, nowNs);
}

bool Playback::finished() {
    if (mLedger.unsettled() > 0) {
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
bool Playback::lastFrameHasBeenShown() {
    const auto record = mTv->tunnel().record(mTunnelId);
    if (record.empty()) {
        return true;
    }
    const auto& last = record.back();
    return last.fate == tv::BufferFate::Superseded ||
           (last.firstVsync.index >= 0 && tv::nowNs() >= last.firstVsync.timeNs + mFrameUs * 1000);
}

bool Playback::stalled() const {
    int64_t askedForUs = mWithAudio ? mOptions.audioDelayUs : 0;
    for (const auto& underflow : mOptions.underflows) {
        askedForUs = std::max(askedForUs, underflow.durationUs);
    }
    for (const auto& stall : mOptions.videoStalls) {
        askedForUs = std::max(askedForUs, stall.durationUs);
    }
    const int64_t sinceNs = std::max(mLedger.lastEventNs(), mRecord.sections.back().beganNs);
    return tv::nowNs() - sinceNs > kStallNs + askedForUs * 1000;
}

PlaybackRecord Playback::finish() {
    mProgress.finish();
    if (mAudio) {
        mRecord.sections.back().audioStartedRealUs = mAudio->report().startedRealUs;
    }
    const int64_t stopBeganNs = tv::nowNs();
    mRenderer->stop();
    mRecord.stopNs = tv::nowNs();
    mRecord.stopTookNs = mRecord.stopNs - stopBeganNs;
    mPool.takeBackAll();
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
    const auto record = mTv->tunnel().record(mTunnelId);
    mRecord.frames = mLedger.settle(record);
    for (const auto& entry : record) {
        mRecord.foreignPictures += entry.frameNo < 0 ? 1 : 0;
        mRecord.overwrittenOnScreen += entry.overwrittenOnScreen ? 1 : 0;
    }
    for (const auto& frame : mRecord.frames) {
        mRecord.buffersKept += frame.bufferKept ? 1 : 0;
    }
    mRecord.pool = mPool.report();
    mRecord.sync = mClock->counters();
    mRecord.decodeErrors = mReader.decodeErrors();
    return mRecord;
}

}  // namespace

PlaybackRecord play(const PlayOptions& options, VideoReader& reader,
                    const std::function<bool()>& interrupted) {
    return Playback(options, reader, interrupted).run();
}

}  // namespace korvane::player
