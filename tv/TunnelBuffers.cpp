// SPDX-License-Identifier: Apache-2.0
#include "tv/TunnelBuffers.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include "platform/Clock.h"
#include "tv/Trace.h"

namespace korvane::tv {
namespace {

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

void release(BufferRecord& buffer, BufferFate fate, int64_t atNs) {
    buffer.fate = fate;
    buffer.releasedNs = atNs;
}

/// Fault: a fence with the wrong mode. Closing one end of a socket pair wakes the other as closing
/// a pipe does, but a socket is open for reading and writing.
int makeSocketPair(FencePipe* pipe, int* taken) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return -errno;
    }
    *pipe = FencePipe(UniqueFd(ends[1]));
    *taken = ends[0];
    return 0;
}

std::string trackOf(int tunnelId) {
    return fmt::format("display/screen, tunnel {}", tunnelId);
}

/// A picture that came on screen, on the tunnel's track and as a display frame.
void traceShown(const BufferRecord& buffer, const Vsync& next) {
    if (!recordingTrace()) {
        return;
    }
    const Vsync& vsync = buffer.firstVsync;
    const int64_t periodNs = next.timeNs - vsync.timeNs;
    traceState(trackOf(buffer.tunnelId), fmt::format("frame {}", buffer.frameNo), vsync.timeNs,
               {buffer.frameNo,
                false,
                {{"vsync", vsync.index},
                 {"media_us", buffer.mediaTimeUs},
                 {"late_vsyncs", buffer.lateVsyncs}}});
    TraceTimeline frame;
    frame.ofDisplay = true;
    frame.token = vsync.index;
    frame.expectedNs = vsync.timeNs - buffer.lateVsyncs * periodNs;
    frame.expectedEndNs = frame.expectedNs + periodNs;
    frame.actualNs = vsync.timeNs;
    frame.actualEndNs = next.timeNs;
    frame.present = buffer.lateVsyncs > 0 ? PresentType::Late : PresentType::OnTime;
    frame.jank = buffer.lateVsyncs > 0 ? kJankQueuedLate : kJankNone;
    traceTimeline(frame);
}

void traceBlank(int tunnelId, int64_t timeNs) {
    if (recordingTrace()) {
        traceState(trackOf(tunnelId), "", timeNs);
    }
}

/// How many vsyncs late a picture comes on screen now.
int64_t lateVsyncs(const BufferRecord& buffer, const Vsync& vsync, const Vsync& next) {
    const int64_t dueNs = buffer.atOnce ? buffer.queuedNs : usToNs(buffer.presentationTimeUs);
    return (vsync.timeNs - dueNs) / (next.timeNs - vsync.timeNs);
}

}  // namespace

BufferRecord BufferRecords::takeFirst() {
    const BufferRecord record = mRecords.front();
    mRecords.pop_front();
    ++mFirst;
    return record;
}

int TunnelBuffers::queue(BufferRecord buffer) {
    HeldBuffer memory;
    if (const int failure = mBufferMemory.hold(buffer.fd, &memory); failure < 0) {
        return failure;
    }
    const PictureHeader picture = memory.picture();
    buffer.frameNo = picture.frameNo;
    buffer.mediaTimeUs = picture.mediaTimeUs;
    buffer.atOnce =
        saturatingSub(buffer.presentationTimeUs, buffer.queuedNs / 1000) > kNoScheduleAheadUs;
    const int64_t number = mRecords->end();
    mWaiting.push_back(number);
    mMemory.emplace(number, std::move(memory));
    mRecords->add(buffer);
    return 0;
}

int TunnelBuffers::takeBack(FencePipes& pipes, int* bufferFd, int* fenceFd, int64_t nowNs) {
    if (mReturned.empty()) {
        return -EAGAIN;
    }
    const Returned buffer = mReturned.front();
    if (const int failure = makeFence(pipes, buffer, fenceFd); failure < 0) {
        return failure;
    }
    mReturned.pop_front();
    *bufferFd = at(buffer.number).fd;
    at(buffer.number).takenBackNs = nowNs;
    return 0;
}

int TunnelBuffers::makeFence(FencePipes& pipes, const Returned& buffer, int* fenceFd) {
    *fenceFd = -1;
    if (buffer.fence == FenceKind::None) {
        return 0;
    }
    FencePipe pipe;
    const int result = buffer.fence == FenceKind::WrongMode ? makeSocketPair(&pipe, fenceFd)
                                                            : pipes.make(&pipe, fenceFd);
    if (result < 0) {
        return result;
    }
    if (const auto pending = mFences.find(buffer.number); pending != mFences.end()) {
        pending->second.pipe = std::move(pipe);
    }
    return 0;
}

void TunnelBuffers::disconnect(int64_t nowNs) {
    for (const int64_t number : mWaiting) {
        release(at(number), BufferFate::DiscardedByDisconnect, nowNs);
    }
    if (mOnScreen >= 0) {
        checkPicture(mOnScreen);
        release(at(mOnScreen), BufferFate::Shown, nowNs);
        traceBlank(at(mOnScreen).tunnelId, nowNs);
    }
    for (const auto& [number, fence] : mFences) {
        int64_t& signalNs = at(number).fenceSignalNs;
        signalNs = std::min(signalNs, nowNs);
    }
    *this = TunnelBuffers(*mRecords);  // closes fences and memory
}

void TunnelBuffers::scanOut(const Vsync& vsync, const Vsync& next, const TunnelFaults& faults) {
    if (mLeaving >= 0) {
        checkPicture(mLeaving);
        mMemory.erase(std::exchange(mLeaving, -1));
    }
    const int64_t newest = takeNewestDue(vsync);
    if (newest >= 0) {
        replace(newest, vsync, next, faults);
    } else if (mOnScreen >= 0) {
        ++at(mOnScreen).dwellVsyncs;
    }
}

/// Takes the due buffers from the front, releases all but the last and returns that one, or -1.
int64_t TunnelBuffers::takeNewestDue(const Vsync& vsync) {
    int64_t newest = -1;
    while (!mWaiting.empty()) {
        const BufferRecord& front = at(mWaiting.front());
        const bool due = front.atOnce || usToNs(front.presentationTimeUs) <= vsync.timeNs;
        if (front.queuedNs > vsync.timeNs || !due) {
            break;
        }
        if (newest >= 0) {
            release(at(newest), BufferFate::Superseded, vsync.timeNs);
            mReturned.push_back({newest, FenceKind::None});
            mMemory.erase(newest);
        }
        newest = mWaiting.front();
        mWaiting.pop_front();
    }
    return newest;
}

/// Puts a buffer on screen and releases the one that was there.
void TunnelBuffers::replace(int64_t number, const Vsync& vsync, const Vsync& next,
                            const TunnelFaults& faults) {
    const int64_t old = std::exchange(mOnScreen, number);
    BufferRecord& shown = at(number);
    shown.fate = BufferFate::OnScreen;
    shown.firstVsync = vsync;
    shown.vsyncPeriodNs = next.timeNs - vsync.timeNs;
    shown.dwellVsyncs = 1;
    shown.lateVsyncs = lateVsyncs(shown, vsync, next);
    traceShown(shown, next);
    if (old < 0) {
        return;
    }
    release(at(old), BufferFate::Shown, vsync.timeNs);
    mLeaving = old;
    if (faults.noFences) {
        mReturned.push_back({old, FenceKind::None});
        return;
    }
    const int64_t signalNs =
        faults.fenceNeverSignals ? kNever : saturatingAdd(next.timeNs, faults.fenceDelayNs);
    at(old).fenceSignalNs = signalNs;
    mFences.emplace(old, PendingFence{signalNs, FencePipe()});
    mReturned.push_back({old, faults.fenceWrongMode ? FenceKind::WrongMode : FenceKind::Pipe});
}

/// Compares a picture that the panel has finished reading with what was queued.
void TunnelBuffers::checkPicture(int64_t number) {
    BufferRecord& buffer = at(number);
    const PictureHeader picture = mMemory.at(number).picture();
    if (picture.frameNo != buffer.frameNo || picture.mediaTimeUs != buffer.mediaTimeUs) {
        buffer.overwrittenOnScreen = true;
    }
}

int64_t TunnelBuffers::signalFences(int64_t nowNs) {
    int64_t nextNs = kNever;
    for (auto fence = mFences.begin(); fence != mFences.end();) {
        if (fence->second.signalNs <= nowNs) {
            fence = mFences.erase(fence);
        } else {
            nextNs = std::min(nextNs, fence->second.signalNs);
            ++fence;
        }
    }
    return nextNs;
}

std::optional<BufferRecord> TunnelBuffers::onScreen() const {
    if (mOnScreen < 0) {
        return std::nullopt;
    }
    BufferRecord buffer = at(mOnScreen);
    const PictureHeader picture = mMemory.at(mOnScreen).picture();
    buffer.frameNo = picture.frameNo;
    buffer.mediaTimeUs = picture.mediaTimeUs;
    return buffer;
}

bool TunnelBuffers::uses(int64_t number) const {
    return mMemory.count(number) > 0 || mFences.count(number) > 0 ||
           std::any_of(mReturned.begin(), mReturned.end(),
                       [=](const Returned& buffer) { return buffer.number == number; });
}

int TunnelBuffers::held() const {
    return static_cast<int>(mWaiting.size() + mReturned.size()) + (mOnScreen >= 0 ? 1 : 0);
}

std::string TunnelBuffers::dump() const {
    std::string text =
        fmt::format("{} waiting, {} to be taken back\n", mWaiting.size(), mReturned.size());
    if (mOnScreen >= 0) {
        const BufferRecord& shown = at(mOnScreen);
        text += fmt::format("  on screen: frame {} since vsync {}, {} vsyncs so far\n",
                            shown.frameNo, shown.firstVsync.index, shown.dwellVsyncs);
    }
    for (const int64_t number : mWaiting) {
        const BufferRecord& buffer = at(number);
        text +=
            fmt::format("  waiting: frame {}, due {}{} us\n", buffer.frameNo,
                        buffer.atOnce ? "at once, asked for " : "at ", buffer.presentationTimeUs);
    }
    return text;
}

}  // namespace korvane::tv
