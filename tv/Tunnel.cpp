// SPDX-License-Identifier: Apache-2.0
// The tunnel's state: devices, ids, and per id the buffers by stage: waiting, on screen, leaving
// (replaced, the panel still reads it), returned (the producer may take it back). Stages hold the
// numbers of buffers in their id's log, which grows at its back and is taken away from its front;
// each stage holds few, so no step looks at a whole log. A buffer's memory is held until the panel
// is done. A release fence is made when the producer takes the buffer back. One lock guards it all;
// nothing is called under it but the trace.
#include "tv/Tunnel.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <limits>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <utility>

#include "include/ThreadAnnotations.h"
#include "platform/Clock.h"
#include "tv/HeldBuffer.h"
#include "tv/Platform.h"
#include "tv/clock/FencePipe.h"

namespace korvane::tv {
namespace {

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

/// What the producer gets with a released buffer.
enum class FenceKind { None, Pipe, WrongMode };

/// A fence whose time has not come. The signal is there once the producer has the descriptor.
struct PendingFence {
    int64_t signalNs;
    FencePipe pipe;
};

struct Returned {
    int64_t number;
    FenceKind fence;
};

/// The records of one id's buffers, by number from 0, without those taken away.
class Log {
public:
    int64_t end() const { return mFirst + static_cast<int64_t>(mRecords.size()); }
    BufferRecord& at(int64_t number) { return mRecords[static_cast<size_t>(number - mFirst)]; }
    const std::deque<BufferRecord>& records() const { return mRecords; }
    int64_t first() const { return mFirst; }
    void add(const BufferRecord& record) { mRecords.push_back(record); }
    BufferRecord takeFirst() {
        const BufferRecord record = mRecords.front();
        mRecords.pop_front();
        ++mFirst;
        return record;
    }

private:
    std::deque<BufferRecord> mRecords;
    int64_t mFirst = 0;
};

/// One allocated id and, while connected, its buffers, as numbers in its log.
struct TunnelState {
    int device = -1;
    Log* log = nullptr;
    bool connected = false;
    std::deque<int64_t> waiting;
    int64_t onScreen = -1;
    int64_t leaving = -1;  ///< replaced at the last vsync; read by the panel until the next
    std::deque<Returned> returned;
    BufferMemory buffers;
    std::map<int64_t, HeldBuffer> memory;    ///< by number
    std::map<int64_t, PendingFence> fences;  ///< by number

    BufferRecord& at(int64_t number) const { return log->at(number); }
    bool holds(int64_t number) const;
    int held() const {
        return static_cast<int>(waiting.size() + returned.size()) + (onScreen >= 0 ? 1 : 0);
    }
};

/// Whether any stage, the panel or a fence still has to do with a buffer.
bool TunnelState::holds(int64_t number) const {
    return memory.count(number) > 0 || fences.count(number) > 0 ||
           std::any_of(returned.begin(), returned.end(),
                       [=](const Returned& buffer) { return buffer.number == number; });
}

void release(BufferRecord& buffer, BufferFate fate, int64_t atNs) {
    buffer.fate = fate;
    buffer.releasedNs = atNs;
}

/// Compares a picture that the panel has finished reading with what was queued.
void checkPicture(const TunnelState& tunnel, int64_t number) {
    BufferRecord& buffer = tunnel.at(number);
    const PictureHeader picture = tunnel.memory.at(number).picture();
    if (picture.frameNo != buffer.frameNo || picture.mediaTimeUs != buffer.mediaTimeUs) {
        buffer.overwrittenOnScreen = true;
    }
}

/// Closing one end of a socket pair wakes the other as closing a pipe does, but a socket is open
/// for reading and writing.
int makeSocketPair(FencePipe* pipe, int* taken) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return -errno;
    }
    *pipe = FencePipe(UniqueFd(ends[1]));
    *taken = ends[0];
    return 0;
}

/// Takes the due buffers from the front, releases all but the last and returns that one, or -1.
int64_t takeNewestDue(TunnelState& tunnel, const Vsync& vsync) {
    int64_t newest = -1;
    while (!tunnel.waiting.empty()) {
        const BufferRecord& front = tunnel.at(tunnel.waiting.front());
        const bool due = front.atOnce || usToNs(front.presentationTimeUs) <= vsync.timeNs;
        if (front.queuedNs > vsync.timeNs || !due) {
            break;
        }
        if (newest >= 0) {
            release(tunnel.at(newest), BufferFate::Superseded, vsync.timeNs);
            tunnel.returned.push_back({newest, FenceKind::None});
            tunnel.memory.erase(newest);
        }
        newest = tunnel.waiting.front();
        tunnel.waiting.pop_front();
    }
    return newest;
}

}  // namespace

const char* toString(BufferFate fate) {
    switch (fate) {
        case BufferFate::Waiting:
            return "waiting";
        case BufferFate::OnScreen:
            return "on screen";
        case BufferFate::Shown:
            return "shown";
        case BufferFate::Superseded:
            return "superseded";
        case BufferFate::DiscardedByDisconnect:
            return "discarded by disconnect";
    }
    return "?";
}

struct Tunnel::Impl {
    explicit Impl(const TunnelConfig& tunnelConfig, Display& panel)
        : config(tunnelConfig), display(panel) {}

    TunnelState* find(int device, int tunnelId) KORVANE_REQUIRES(lock);
    /// At the end of an id; a log with records is forgotten when the last one has been taken.
    void forgetEmptyLog(int tunnelId) KORVANE_REQUIRES(lock);
    void hear(int64_t nowNs) KORVANE_REQUIRES(lock) { latestNs = std::max(latestNs, nowNs); }

    // producer
    void disconnect(TunnelState& tunnel, int64_t nowNs) KORVANE_REQUIRES(lock);
    int makeFence(TunnelState& tunnel, const Returned& buffer, int* fenceFd) KORVANE_REQUIRES(lock);

    // display
    void replace(TunnelState& tunnel, int64_t number, const Vsync& vsync, const Vsync& next)
        KORVANE_REQUIRES(lock);
    void scanOut(TunnelState& tunnel, const Vsync& vsync, const Vsync& next) KORVANE_REQUIRES(lock);
    void traceShown(const BufferRecord& buffer, int64_t endNs) const;

    const TunnelConfig config;
    Display& display;
    mutable std::mutex lock;
    TunnelFaults faults KORVANE_GUARDED_BY(lock);
    int nextDevice KORVANE_GUARDED_BY(lock) = 0;
    std::set<int> devices KORVANE_GUARDED_BY(lock);
    FencePipes fencePipes KORVANE_GUARDED_BY(lock);  ///< outlives the fences
    std::map<int, TunnelState> tunnels KORVANE_GUARDED_BY(lock);
    /// The map's, by id, as every poll asks for one; null where the id has been freed.
    std::vector<TunnelState*> tunnelOfId KORVANE_GUARDED_BY(lock);
    /// By id; outlives the id while there are records.
    std::map<int, Log> logs KORVANE_GUARDED_BY(lock);
    int64_t nextSerial KORVANE_GUARDED_BY(lock) = 0;
    /// The latest time heard of, for closings that carry none.
    int64_t latestNs KORVANE_GUARDED_BY(lock) = 0;
};

Tunnel::Tunnel(const TunnelConfig& config, Display& display)
    : mImpl(std::make_unique<Impl>(config, display)) {}
Tunnel::~Tunnel() = default;

TunnelState* Tunnel::Impl::find(int device, int tunnelId) {
    const auto index = static_cast<size_t>(tunnelId);
    TunnelState* const tunnel = index < tunnelOfId.size() ? tunnelOfId[index] : nullptr;
    return tunnel != nullptr && tunnel->device == device ? tunnel : nullptr;
}

int Tunnel::open() {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    if (mImpl->faults.openFails) {
        return -ENODEV;
    }
    mImpl->devices.insert(mImpl->nextDevice);
    return mImpl->nextDevice++;
}

int Tunnel::close(int device) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    if (mImpl->devices.erase(device) == 0) {
        return -EBADF;
    }
    for (auto entry = mImpl->tunnels.begin(); entry != mImpl->tunnels.end();) {
        if (entry->second.device == device) {
            mImpl->disconnect(entry->second, mImpl->latestNs);
            mImpl->forgetEmptyLog(entry->first);
            mImpl->tunnelOfId[static_cast<size_t>(entry->first)] = nullptr;
            entry = mImpl->tunnels.erase(entry);
        } else {
            ++entry;
        }
    }
    return 0;
}

int Tunnel::allocId(int device, int* tunnelId) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    if (mImpl->devices.count(device) == 0) {
        return -EBADF;
    }
    if (mImpl->faults.allocFails || tunnelId == nullptr) {
        return -EINVAL;
    }
    if (static_cast<int>(mImpl->tunnels.size()) >= mImpl->config.maxTunnels) {
        return -ENOSPC;
    }
    *tunnelId = static_cast<int>(mImpl->tunnelOfId.size());
    TunnelState& tunnel = mImpl->tunnels[*tunnelId];
    mImpl->tunnelOfId.push_back(&tunnel);
    tunnel.device = device;
    tunnel.log = &mImpl->logs[*tunnelId];
    return 0;
}

int Tunnel::freeId(int device, int tunnelId) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    TunnelState* tunnel = mImpl->find(device, tunnelId);
    if (mImpl->faults.freeFails || tunnel == nullptr) {
        return -EINVAL;
    }
    mImpl->disconnect(*tunnel, mImpl->latestNs);
    mImpl->forgetEmptyLog(tunnelId);
    mImpl->tunnelOfId[static_cast<size_t>(tunnelId)] = nullptr;
    mImpl->tunnels.erase(tunnelId);
    return 0;
}

void Tunnel::Impl::forgetEmptyLog(int tunnelId) {
    if (logs[tunnelId].records().empty()) {
        logs.erase(tunnelId);
    }
}

int Tunnel::connect(int device, int tunnelId) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    TunnelState* tunnel = mImpl->find(device, tunnelId);
    if (mImpl->faults.connectFails || tunnel == nullptr) {
        return -EINVAL;
    }
    if (tunnel->connected) {
        return -EBUSY;
    }
    tunnel->connected = true;
    return 0;
}

int Tunnel::disconnect(int device, int tunnelId, int64_t nowNs) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->hear(nowNs);
    TunnelState* tunnel = mImpl->find(device, tunnelId);
    if (mImpl->faults.disconnectFails || tunnel == nullptr) {
        return -EINVAL;
    }
    if (!tunnel->connected) {
        return -ENOTCONN;
    }
    mImpl->disconnect(*tunnel, nowNs);
    return 0;
}

void Tunnel::Impl::disconnect(TunnelState& tunnel, int64_t nowNs) {
    for (const int64_t number : tunnel.waiting) {
        release(tunnel.at(number), BufferFate::DiscardedByDisconnect, nowNs);
    }
    if (tunnel.onScreen >= 0) {
        checkPicture(tunnel, tunnel.onScreen);
        release(tunnel.at(tunnel.onScreen), BufferFate::Shown, nowNs);
        traceShown(tunnel.at(tunnel.onScreen), nowNs);
    }
    for (const auto& [number, fence] : tunnel.fences) {
        int64_t& signalNs = tunnel.at(number).fenceSignalNs;
        signalNs = std::min(signalNs, nowNs);
    }
    TunnelState empty;  // closes fences and memory
    empty.device = tunnel.device;
    empty.log = tunnel.log;
    tunnel = std::move(empty);
}

int Tunnel::sendCommand(int device, int tunnelId, int /*command*/, int /*argument*/) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    return mImpl->find(device, tunnelId) == nullptr ? -EINVAL : 0;
}

int Tunnel::queueBuffer(int device, int tunnelId, int bufferFd, int acquireFenceFd,
                        int64_t presentationTimeUs, int64_t nowNs) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->hear(nowNs);
    TunnelState* tunnel = mImpl->find(device, tunnelId);
    // The panel has no way to wait for a picture that is still being written.
    if (mImpl->faults.queueFails || tunnel == nullptr || acquireFenceFd >= 0) {
        return -EINVAL;
    }
    if (!tunnel->connected) {
        return -ENOTCONN;
    }
    if (tunnel->held() >= mImpl->config.capacity) {
        return -ENOBUFS;
    }
    HeldBuffer memory;
    if (const int failure = tunnel->buffers.hold(bufferFd, &memory); failure < 0) {
        return failure;
    }
    BufferRecord buffer;
    const PictureHeader picture = memory.picture();
    const int64_t number = tunnel->log->end();
    buffer.serial = mImpl->nextSerial++;
    buffer.tunnelId = tunnelId;
    buffer.fd = bufferFd;
    buffer.frameNo = picture.frameNo;
    buffer.mediaTimeUs = picture.mediaTimeUs;
    buffer.presentationTimeUs = presentationTimeUs;
    buffer.atOnce = saturatingSub(presentationTimeUs, nowNs / 1000) > kNoScheduleAheadUs;
    buffer.queuedNs = nowNs;
    tunnel->waiting.push_back(number);
    tunnel->memory.emplace(number, std::move(memory));
    tunnel->log->add(buffer);
    return 0;
}

int Tunnel::dequeueBuffer(int device, int tunnelId, int* bufferFd, int* fenceFd, int64_t nowNs) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->hear(nowNs);
    TunnelState* tunnel = mImpl->find(device, tunnelId);
    if (mImpl->faults.dequeueFails || tunnel == nullptr || bufferFd == nullptr ||
        fenceFd == nullptr) {
        return -EINVAL;
    }
    if (tunnel->returned.empty()) {
        return -EAGAIN;
    }
    const Returned buffer = tunnel->returned.front();
    if (const int failure = mImpl->makeFence(*tunnel, buffer, fenceFd); failure < 0) {
        return failure;
    }
    tunnel->returned.pop_front();
    *bufferFd = tunnel->at(buffer.number).fd;
    tunnel->at(buffer.number).takenBackNs = nowNs;
    return 0;
}

int Tunnel::Impl::makeFence(TunnelState& tunnel, const Returned& buffer, int* fenceFd) {
    *fenceFd = -1;
    if (buffer.fence == FenceKind::None) {
        return 0;
    }
    FencePipe pipe;
    const int result = buffer.fence == FenceKind::WrongMode ? makeSocketPair(&pipe, fenceFd)
                                                            : fencePipes.make(&pipe, fenceFd);
    if (result < 0) {
        return result;
    }
    if (const auto pending = tunnel.fences.find(buffer.number); pending != tunnel.fences.end()) {
        pending->second.pipe = std::move(pipe);
    }
    return 0;
}

int Tunnel::displayVsync(int device, int tunnelId, int64_t nowNs, VsyncReport* out) {
    {
        const std::lock_guard<std::mutex> guard(mImpl->lock);
        if (mImpl->faults.vsyncQueryFails || mImpl->find(device, tunnelId) == nullptr ||
            out == nullptr) {
            return -EINVAL;
        }
    }
    return mImpl->display.report(nowNs, out) ? 0 : -EIO;
}

void Tunnel::scanOut(const Vsync& vsync, const Vsync& next) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->hear(vsync.timeNs);
    for (auto& [id, tunnel] : mImpl->tunnels) {
        mImpl->scanOut(tunnel, vsync, next);
    }
}

void Tunnel::Impl::scanOut(TunnelState& tunnel, const Vsync& vsync, const Vsync& next) {
    if (tunnel.leaving >= 0) {
        checkPicture(tunnel, tunnel.leaving);
        tunnel.memory.erase(std::exchange(tunnel.leaving, -1));
    }
    const int64_t newest = takeNewestDue(tunnel, vsync);
    if (newest >= 0) {
        replace(tunnel, newest, vsync, next);
    } else if (tunnel.onScreen >= 0) {
        ++tunnel.at(tunnel.onScreen).dwellVsyncs;
    }
}

/// Puts a buffer on screen and releases the one that was there.
void Tunnel::Impl::replace(TunnelState& tunnel, int64_t number, const Vsync& vsync,
                           const Vsync& next) {
    const int64_t old = std::exchange(tunnel.onScreen, number);
    BufferRecord& shown = tunnel.at(number);
    shown.fate = BufferFate::OnScreen;
    shown.firstVsync = vsync;
    shown.dwellVsyncs = 1;
    if (old < 0) {
        return;
    }
    release(tunnel.at(old), BufferFate::Shown, vsync.timeNs);
    traceShown(tunnel.at(old), vsync.timeNs);
    tunnel.leaving = old;
    if (faults.noFences) {
        tunnel.returned.push_back({old, FenceKind::None});
        return;
    }
    const int64_t signalNs =
        faults.fenceNeverSignals ? kNever : saturatingAdd(next.timeNs, faults.fenceDelayNs);
    tunnel.at(old).fenceSignalNs = signalNs;
    tunnel.fences.emplace(old, PendingFence{signalNs, FencePipe()});
    tunnel.returned.push_back(
        {old, faults.fenceWrongMode ? FenceKind::WrongMode : FenceKind::Pipe});
}

void Tunnel::Impl::traceShown(const BufferRecord& buffer, int64_t endNs) const {
    if (!recordingTrace()) {
        return;
    }
    traceSlice("screen, tunnel " + std::to_string(buffer.tunnelId),
               "frame " + std::to_string(buffer.frameNo), buffer.firstVsync.timeNs, endNs);
}

int64_t Tunnel::signalFences(int64_t nowNs) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    int64_t nextNs = kNever;
    for (auto& [id, tunnel] : mImpl->tunnels) {
        for (auto fence = tunnel.fences.begin(); fence != tunnel.fences.end();) {
            if (fence->second.signalNs <= nowNs) {
                fence = tunnel.fences.erase(fence);
            } else {
                nextNs = std::min(nextNs, fence->second.signalNs);
                ++fence;
            }
        }
    }
    return nextNs;
}

void Tunnel::setFaults(const TunnelFaults& faults) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->faults = faults;
}

TunnelFaults Tunnel::faults() const {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    return mImpl->faults;
}

std::vector<BufferRecord> Tunnel::record(int tunnelId) const {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    std::vector<BufferRecord> chosen;
    for (const auto& [id, log] : mImpl->logs) {
        if (tunnelId < 0 || tunnelId == id) {
            chosen.insert(chosen.end(), log.records().begin(), log.records().end());
        }
    }
    std::sort(chosen.begin(), chosen.end(),
              [](const BufferRecord& a, const BufferRecord& b) { return a.serial < b.serial; });
    return chosen;
}

std::vector<BufferRecord> Tunnel::takeFinished(int tunnelId) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    std::vector<BufferRecord> finished;
    const auto log = mImpl->logs.find(tunnelId);
    if (log == mImpl->logs.end()) {
        return finished;
    }
    const auto tunnel = mImpl->tunnels.find(tunnelId);
    const bool allocated = tunnel != mImpl->tunnels.end();
    while (!log->second.records().empty() &&
           !(allocated && tunnel->second.holds(log->second.first()))) {
        finished.push_back(log->second.takeFirst());
    }
    if (!allocated) {
        mImpl->logs.erase(log);
    }
    return finished;
}

int Tunnel::heldBuffers(int tunnelId) const {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    const auto found = mImpl->tunnels.find(tunnelId);
    return found == mImpl->tunnels.end() ? 0 : found->second.held();
}

int Tunnel::openDevices() const {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    return static_cast<int>(mImpl->devices.size());
}

int Tunnel::allocatedIds() const {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    return static_cast<int>(mImpl->tunnels.size());
}

int Tunnel::connectedTunnels() const {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    return static_cast<int>(
        std::count_if(mImpl->tunnels.begin(), mImpl->tunnels.end(),
                      [](const auto& entry) { return entry.second.connected; }));
}

std::string Tunnel::dump() const {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    std::ostringstream text;
    text << "video tunnel: " << mImpl->devices.size() << " devices open, " << mImpl->tunnels.size()
         << " ids allocated, " << mImpl->nextSerial << " buffers queued so far\n";
    for (const auto& [id, tunnel] : mImpl->tunnels) {
        text << "tunnel " << id << ": " << (tunnel.connected ? "connected, " : "not connected, ")
             << tunnel.waiting.size() << " waiting, " << tunnel.returned.size()
             << " to be taken back\n";
        if (tunnel.onScreen >= 0) {
            const BufferRecord& shown = tunnel.at(tunnel.onScreen);
            text << "  on screen: frame " << shown.frameNo << " since vsync "
                 << shown.firstVsync.index << ", " << shown.dwellVsyncs << " vsyncs so far\n";
        }
        for (const int64_t number : tunnel.waiting) {
            const BufferRecord& buffer = tunnel.at(number);
            text << "  waiting: frame " << buffer.frameNo << ", due "
                 << (buffer.atOnce ? "at once, asked for " : "at ") << buffer.presentationTimeUs
                 << " us\n";
        }
    }
    return text.str();
}

}  // namespace korvane::tv
