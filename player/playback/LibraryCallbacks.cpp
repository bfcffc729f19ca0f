// SPDX-License-Identifier: Apache-2.0
#include "player/playback/LibraryCallbacks.h"

#include <chrono>
#include <optional>
#include <thread>
#include <utility>

#include "tv/Tv.h"
#include "tv/clock/FiberLocal.h"

namespace korvane::player {
namespace {

/// Set on the player's thread while it is inside `flush`, which calls back on that same thread.
const tv::FiberLocal<bool> tInsideFlush;
/// The reason that the library has just logged on this thread.
const tv::FiberLocal<DropReason> tAnnounced;

}  // namespace

void LibraryCallbacks::attach(VideoTunnelRenderer* renderer,
                              std::shared_ptr<tv::SyncInstance> clock) {
    mClock = std::move(clock);
    renderer->regCallBack(kFrameStatusCallback, bufferBack, this);
    renderer->regCallBack(kRenderTimeCallback, renderTime, this);
}

void LibraryCallbacks::flush(VideoTunnelRenderer* renderer) {
    mFlushing = true;
    tInsideFlush.get() = true;
    renderer->flush();
    tInsideFlush.get() = false;
}

void LibraryCallbacks::onLogLine(const tv::LogLine& line) {
    if (const auto reason = dropReasonFromLog(line.text)) {
        tAnnounced.get() = *reason;
    }
}

int LibraryCallbacks::bufferBack(void* self, void* status) noexcept {
    auto* callbacks = static_cast<LibraryCallbacks*>(self);
    const auto& info = *static_cast<const framestatus*>(status);
    return callbacks->answer([&] { callbacks->onBufferBack(info.fd, info.rendered != 0); });
}

int LibraryCallbacks::renderTime(void* self, void* time) noexcept {
    auto* callbacks = static_cast<LibraryCallbacks*>(self);
    return callbacks->answer(
        [&] { callbacks->onRenderTime(*static_cast<const rendertime*>(time)); });
}

/// Does a callback's work, then takes as long, and returns what, the plan says.
template <typename Code>
int LibraryCallbacks::answer(Code code) noexcept {
    mFailure.guard(code);
    if (mPlan.callbackTakesUs > 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(mPlan.callbackTakesUs));
    }
    return mPlan.callbackAnswers;
}

void LibraryCallbacks::onBufferBack(int fd, bool rendered) {
    const auto holding = mPool.holding(fd);
    if (holding.frameNo >= 0) {
        ReturnedBuffer buffer;
        buffer.frameNo = holding.frameNo;
        buffer.nowNs = tv::nowNs();
        buffer.rendered = rendered;
        buffer.insideFlush = tInsideFlush.get();
        if (!rendered && !tInsideFlush.get()) {
            noteDrop(mLedger.mediaTimeUs(holding.frameNo), &buffer);
        }
        mLedger.returned(buffer);
    }
    // Last: from here on the player may write it.
    mPool.giveBack(fd);
}

void LibraryCallbacks::noteDrop(int64_t mediaTimeUs, ReturnedBuffer* buffer) {
    const DropReason announced = std::exchange(tAnnounced.get(), DropReason::None);
    const bool said = announced != DropReason::None;
    buffer->dropEvidence = said ? DropEvidence::LogLine : DropEvidence::Values;
    buffer->dropReason = said ? announced : dropReasonFromValues(valuesNow(mediaTimeUs));
    const int64_t nowUs = buffer->nowNs / 1000;
    const int64_t realUs = mClock->realTimeFor(mediaTimeUs, nowUs);
    if (realUs >= 0 && !mClock->paused()) {
        buffer->dropLateUs = nowUs - realUs;
    }
}

DropValues LibraryCallbacks::valuesNow(int64_t mediaTimeUs) {
    const int64_t nowUs = tv::nowNs() / 1000;
    DropValues values;
    values.passthrough = mPlan.passthrough;
    values.hasAudio = mPlan.withAudio;
    values.flushing = mFlushing;
    values.syncMode = mClock->mode();
    values.underflowSeen = mAudio != nullptr && mAudio->report().underflows > 0;
    values.lateUs = nowUs - mClock->realTimeFor(mediaTimeUs, nowUs);
    values.vsyncPeriodUs = static_cast<int64_t>(1e6 / mPlan.tv.display.rateHz);
    return values;
}

void LibraryCallbacks::onRenderTime(const rendertime& time) {
    std::optional<int64_t> clockUs;
    const int64_t realUs = mClock->realTimeFor(time.mediaTimeUs, tv::nowNs() / 1000);
    if (realUs >= 0 && !mClock->paused()) {
        clockUs = realUs;
    }
    mLedger.renderTime(time.mediaTimeUs, time.renderTimeUs, clockUs);
}

}  // namespace korvane::player
