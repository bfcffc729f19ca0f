// SPDX-License-Identifier: Apache-2.0
// An instance is a clock and a few settings under one lock; every operation is one step on them. A
// video policy set from outside is called without the lock.
#include "tv/MediaSyncService.h"

#include <fmt/format.h>

#include <atomic>

#include "tv/SyncClock.h"
#include "tv/Trace.h"

namespace korvane::tv {
namespace {

constexpr int64_t kUnset = SyncClock::kUnset;
/// Audio re-anchors above this error: half of what an output may be off before it is noticed
/// (EBU R37: 15 ms late per stage, 5 ms early).
constexpr int64_t kUpdateThresholdUs = 10'000;

}  // namespace

struct SyncInstance::State {
    explicit State(int instanceId) : id(instanceId) {}

    bool anchorAudio(int64_t mediaUs, int64_t realUs) KORVANE_REQUIRES(lock);
    mediasync_video_policy decide(int64_t mediaUs, int64_t nowUs) KORVANE_REQUIRES(lock);
    void count(const mediasync_video_policy& policy) KORVANE_REQUIRES(lock);
    void traceLine(int64_t nowUs) const KORVANE_REQUIRES(lock);
    void traceLeader(int64_t nowUs) const KORVANE_REQUIRES(lock);

    const int id;
    mutable std::mutex lock;
    SyncClock clock KORVANE_GUARDED_BY(lock);
    int64_t updateThresholdUs KORVANE_GUARDED_BY(lock) = kUpdateThresholdUs;
    bool passthroughEnded KORVANE_GUARDED_BY(lock) = false;
    VideoPolicyFunction policy KORVANE_GUARDED_BY(lock);
    std::atomic<int> status{0};
    SyncCounters counters KORVANE_GUARDED_BY(lock);
};

bool SyncInstance::State::anchorAudio(int64_t mediaUs, int64_t realUs) {
    if (!clock.mayAnchor(Leader::Audio)) {
        ++counters.anchorsIgnored;
        return false;
    }
    clock.anchor(Leader::Audio, mediaUs, realUs);
    if (clock.mode == MEDIA_SYNC_VMASTER) {
        clock.mode = MEDIA_SYNC_AMASTER;
    }
    ++counters.anchorsTaken;
    return true;
}

/// The clock's line: a jump of its offset is a new anchor.
void SyncInstance::State::traceLine(int64_t nowUs) const {
    if (recordingTrace()) {
        traceCounter(fmt::format("sound/clock {}: real minus media us", id),
                     clock.anchorRealUs - clock.anchorMediaUs, nowUs * 1000);
    }
}

/// Who leads the clock now.
void SyncInstance::State::traceLeader(int64_t nowUs) const {
    if (recordingTrace()) {
        const std::string leads = fmt::format("{} leads", toString(clock.leader));
        traceState(fmt::format("sound/clock {}", id), clock.paused ? "paused" : leads,
                   nowUs * 1000);
        traceLine(nowUs);
    }
}

SyncInstance::SyncInstance(int id) : mState(std::make_shared<State>(id)) {}

int SyncInstance::id() const {
    return mState->id;
}

sync_mode SyncInstance::mode() const {
    const std::lock_guard<std::mutex> guard(mState->lock);
    return mState->clock.mode;
}

void SyncInstance::setMode(sync_mode mode) {
    const std::lock_guard<std::mutex> guard(mState->lock);
    mState->clock.mode = mode;
}

bool SyncInstance::paused() const {
    const std::lock_guard<std::mutex> guard(mState->lock);
    return mState->clock.paused;
}

void SyncInstance::setPause(bool paused, int64_t nowUs) {
    const std::lock_guard<std::mutex> guard(mState->lock);
    mState->clock.setPause(paused, nowUs);
    mState->traceLeader(nowUs);
}

void SyncInstance::updateAnchorFromVideo(int64_t mediaUs, int64_t realUs, int64_t nowUs) {
    const std::lock_guard<std::mutex> guard(mState->lock);
    if (!mState->clock.mayAnchor(Leader::Video)) {
        ++mState->counters.anchorsIgnored;
        return;
    }
    mState->clock.anchor(Leader::Video, mediaUs, realUs == 0 ? nowUs : realUs);
    ++mState->counters.anchorsTaken;
    mState->traceLeader(nowUs);
}

bool SyncInstance::anchorFromAudio(int64_t mediaUs, int64_t realUs) {
    const std::lock_guard<std::mutex> guard(mState->lock);
    const bool taken = mState->anchorAudio(mediaUs, realUs);
    mState->traceLine(realUs);
    return taken;
}

bool SyncInstance::takeFromAudio(int64_t mediaUs, int64_t nowUs) {
    const std::lock_guard<std::mutex> guard(mState->lock);
    mState->clock.reportTrack(mediaUs);
    mState->clock.startingUs = mediaUs;
    if (!mState->anchorAudio(mediaUs, nowUs)) {
        return false;
    }
    mState->clock.setPause(false, nowUs);
    mState->traceLeader(nowUs);
    return true;
}

void SyncInstance::pauseFromAudio(int64_t mediaUs, int64_t nowUs) {
    const std::lock_guard<std::mutex> guard(mState->lock);
    SyncClock& clock = mState->clock;
    clock.reportTrack(mediaUs);
    if (clock.mayAnchor(Leader::Audio)) {
        clock.setPause(true, nowUs);
        mState->traceLeader(nowUs);
    }
}

bool SyncInstance::stepFromAudio(int64_t mediaUs) {
    const std::lock_guard<std::mutex> guard(mState->lock);
    SyncClock& clock = mState->clock;
    const bool follows = clock.mode == MEDIA_SYNC_PCRMASTER && clock.leader == Leader::Video;
    const bool leads = clock.mode != MEDIA_SYNC_VMASTER && clock.leader == Leader::Audio;
    if (!follows && (!leads || clock.paused)) {
        return false;
    }
    if (!clock.paused) {
        clock.reportTrack(mediaUs);
    }
    return true;
}

void SyncInstance::setTrackMediaTime(int64_t mediaUs) {
    const std::lock_guard<std::mutex> guard(mState->lock);
    mState->clock.reportTrack(mediaUs);
}

void SyncInstance::setStartingTimeMedia(int64_t mediaUs) {
    const std::lock_guard<std::mutex> guard(mState->lock);
    mState->clock.startingUs = mediaUs;
}

int64_t SyncInstance::realTimeFor(int64_t mediaUs, int64_t nowUs) const {
    const std::lock_guard<std::mutex> guard(mState->lock);
    return mState->clock.anchored() ? mState->clock.realFor(mediaUs, nowUs) : kUnset;
}

int64_t SyncInstance::mediaTimeAt(int64_t realUs) const {
    const std::lock_guard<std::mutex> guard(mState->lock);
    return mState->clock.anchored() ? mState->clock.mediaAt(realUs) : kUnset;
}

int64_t SyncInstance::trackMediaTime() const {
    const std::lock_guard<std::mutex> guard(mState->lock);
    const SyncClock clock = mState->clock;
    if (clock.hasTrack) {
        return clock.trackUs;
    }
    return clock.anchored() ? clock.anchorMediaUs : kUnset;
}

int64_t SyncInstance::startingTimeMedia() const {
    const std::lock_guard<std::mutex> guard(mState->lock);
    return mState->clock.startingUs;
}

int64_t SyncInstance::updateThresholdUs() const {
    const std::lock_guard<std::mutex> guard(mState->lock);
    return mState->updateThresholdUs;
}

void SyncInstance::setUpdateThresholdUs(int64_t thresholdUs) {
    const std::lock_guard<std::mutex> guard(mState->lock);
    mState->updateThresholdUs = thresholdUs;
}

void SyncInstance::reset() {
    const std::lock_guard<std::mutex> guard(mState->lock);
    mState->clock = SyncClock{};
}

mediasync_video_policy SyncInstance::videoPolicy(int64_t mediaUs, int64_t lastMediaUs,
                                                 int64_t nowUs) {
    VideoPolicyFunction policy;
    {
        const std::lock_guard<std::mutex> guard(mState->lock);
        if (!mState->passthroughEnded) {
            policy = mState->policy;
        }
    }
    mediasync_video_policy result{};
    if (policy) {
        result = policy(mediaUs, lastMediaUs, nowUs);
    }
    const std::lock_guard<std::mutex> guard(mState->lock);
    if (!policy) {
        result = mState->decide(mediaUs, nowUs);
    }
    mState->count(result);
    return result;
}

mediasync_video_policy SyncInstance::State::decide(int64_t mediaUs, int64_t nowUs) {
    if (passthroughEnded) {
        return {MEDIASYNC_VIDEO_EXIT, 0, 0, 0};
    }
    if (!clock.anchored() && !clock.paused && clock.mode == MEDIA_SYNC_PCRMASTER) {
        clock.anchor(Leader::Video, mediaUs, nowUs);
        ++counters.anchorsTaken;
        traceLeader(nowUs);
    }
    return clock.decide(mediaUs, nowUs);
}

void SyncInstance::State::count(const mediasync_video_policy& policyResult) {
    switch (policyResult.videopolicy) {
        case MEDIASYNC_VIDEO_NORMAL_OUTPUT:
            ++counters.renders;
            break;
        case MEDIASYNC_VIDEO_HOLD:
            ++counters.holds;
            break;
        case MEDIASYNC_VIDEO_DROP:
            ++counters.drops;
            break;
        case MEDIASYNC_VIDEO_EXIT:
            ++counters.exits;
            break;
        default:
            break;  // no decision, which a policy set from outside may return
    }
}

mediasync_video_policy SyncInstance::automaticPolicy(int64_t mediaUs, int64_t nowUs) {
    const std::lock_guard<std::mutex> guard(mState->lock);
    return mState->decide(mediaUs, nowUs);
}

void SyncInstance::setVideoPolicy(VideoPolicyFunction policy) {
    const std::lock_guard<std::mutex> guard(mState->lock);
    mState->policy = std::move(policy);
}

void SyncInstance::endPassthrough() {
    const std::lock_guard<std::mutex> guard(mState->lock);
    mState->passthroughEnded = true;
}

void SyncInstance::countQueuedVideoFrame() {
    const std::lock_guard<std::mutex> guard(mState->lock);
    ++mState->counters.queuedVideoFrames;
}

void SyncInstance::setStatus(int status) {
    mState->status.store(status, std::memory_order_release);
}

int SyncInstance::status() const {
    return mState->status.load(std::memory_order_acquire);
}

SyncCounters SyncInstance::counters() const {
    const std::lock_guard<std::mutex> guard(mState->lock);
    return mState->counters;
}

std::string SyncInstance::dump() const {
    const std::lock_guard<std::mutex> guard(mState->lock);
    const SyncClock clock = mState->clock;
    const SyncCounters counters = mState->counters;
    return fmt::format(
        "sync instance {}: mode {}, led by {}, {}; media {} us at real {} us; track {} us, started "
        "at {} us\n"
        "  anchors: {} taken, {} ignored; decisions: {} render, {} hold, {} drop, {} exit\n",
        mState->id, static_cast<int>(clock.mode), toString(clock.leader),
        clock.paused ? "paused" : "running",
        clock.paused ? clock.pausedMediaUs : clock.anchorMediaUs, clock.anchorRealUs, clock.trackUs,
        clock.startingUs, counters.anchorsTaken, counters.anchorsIgnored, counters.renders,
        counters.holds, counters.drops, counters.exits);
}

std::shared_ptr<SyncInstance> MediaSyncService::create() {
    const std::lock_guard<std::mutex> guard(mLock);
    if (mCreateFails) {
        return nullptr;
    }
    mInstances.push_back(std::make_shared<SyncInstance>(static_cast<int>(mInstances.size()) + 1));
    return mInstances.back();
}

std::shared_ptr<SyncInstance> MediaSyncService::find(int id) const {
    const std::lock_guard<std::mutex> guard(mLock);
    const auto index = static_cast<size_t>(id) - 1;
    return id >= 1 && index < mInstances.size() ? mInstances[index] : nullptr;
}

std::vector<std::shared_ptr<SyncInstance>> MediaSyncService::instances() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mInstances;
}

void MediaSyncService::setCreateFails(bool fails) {
    const std::lock_guard<std::mutex> guard(mLock);
    mCreateFails = fails;
}

}  // namespace korvane::tv
