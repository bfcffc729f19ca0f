// SPDX-License-Identifier: Apache-2.0
// The tunnel's entry points: devices, ids, connections and error numbers, under one lock. What
// happens to an id's buffers is in TunnelBuffers. Nothing is called under the lock but the trace.
#include "tv/Tunnel.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <map>
#include <mutex>
#include <set>
#include <utility>

#include "include/ThreadAnnotations.h"
#include "tv/TunnelBuffers.h"
#include "tv/clock/FencePipe.h"

namespace korvane::tv {

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
    /// One allocated id.
    struct TunnelState {
        int device;
        TunnelBuffers buffers;
        bool connected = false;

        void disconnect(int64_t nowNs) {
            connected = false;
            buffers.disconnect(nowNs);
        }
    };

    explicit Impl(const TunnelConfig& tunnelConfig, Display& panel)
        : config(tunnelConfig), display(panel) {}

    TunnelState* find(int device, int tunnelId) KORVANE_REQUIRES(lock);
    /// Disconnects and frees an id. Its records stay until they have been taken.
    void freeId(int tunnelId) KORVANE_REQUIRES(lock);
    void noteTime(int64_t nowNs) KORVANE_REQUIRES(lock) { latestNs = std::max(latestNs, nowNs); }

    const TunnelConfig config;
    Display& display;
    mutable std::mutex lock;
    TunnelFaults faults KORVANE_GUARDED_BY(lock);
    int nextDevice KORVANE_GUARDED_BY(lock) = 0;
    int idsNotFreed KORVANE_GUARDED_BY(lock) = 0;
    std::set<int> devices KORVANE_GUARDED_BY(lock);
    FencePipes fencePipes KORVANE_GUARDED_BY(lock);  ///< outlives the fences
    /// By id; kept after the id is freed while it has records.
    std::map<int, BufferRecords> records KORVANE_GUARDED_BY(lock);
    std::map<int, TunnelState> tunnels KORVANE_GUARDED_BY(lock);
    /// Entries of `tunnels` by id, because every poll looks one up; null once the id is freed.
    std::vector<TunnelState*> tunnelOfId KORVANE_GUARDED_BY(lock);
    int64_t nextSerial KORVANE_GUARDED_BY(lock) = 0;
    /// The latest time passed in, for `close` and `freeId`, which have no time argument.
    int64_t latestNs KORVANE_GUARDED_BY(lock) = 0;
};

Tunnel::Tunnel(const TunnelConfig& config, Display& display)
    : mImpl(std::make_unique<Impl>(config, display)) {}
Tunnel::~Tunnel() = default;

Tunnel::Impl::TunnelState* Tunnel::Impl::find(int device, int tunnelId) {
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
    for (size_t id = 0; id < mImpl->tunnelOfId.size(); ++id) {
        if (mImpl->find(device, static_cast<int>(id)) != nullptr) {
            mImpl->freeId(static_cast<int>(id));
            ++mImpl->idsNotFreed;
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
    Impl::TunnelState tunnel{device, TunnelBuffers(mImpl->records[*tunnelId])};
    const auto entry = mImpl->tunnels.emplace(*tunnelId, std::move(tunnel)).first;
    mImpl->tunnelOfId.push_back(&entry->second);
    return 0;
}

int Tunnel::freeId(int device, int tunnelId) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    Impl::TunnelState* tunnel = mImpl->find(device, tunnelId);
    if (mImpl->faults.freeFails || tunnel == nullptr) {
        return -EINVAL;
    }
    mImpl->freeId(tunnelId);
    return 0;
}

void Tunnel::Impl::freeId(int tunnelId) {
    TunnelState*& tunnel = tunnelOfId[static_cast<size_t>(tunnelId)];
    tunnel->disconnect(latestNs);
    tunnel = nullptr;
    tunnels.erase(tunnelId);
    if (const auto left = records.find(tunnelId); left->second.all().empty()) {
        records.erase(left);
    }
}

int Tunnel::connect(int device, int tunnelId) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    Impl::TunnelState* tunnel = mImpl->find(device, tunnelId);
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
    mImpl->noteTime(nowNs);
    Impl::TunnelState* tunnel = mImpl->find(device, tunnelId);
    if (mImpl->faults.disconnectFails || tunnel == nullptr) {
        return -EINVAL;
    }
    if (!tunnel->connected) {
        return -ENOTCONN;
    }
    tunnel->disconnect(nowNs);
    return 0;
}

int Tunnel::sendCommand(int device, int tunnelId, int /*command*/, int /*argument*/) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    return mImpl->find(device, tunnelId) == nullptr ? -EINVAL : 0;
}

int Tunnel::queueBuffer(int device, int tunnelId, int bufferFd, int acquireFenceFd,
                        int64_t presentationTimeUs, int64_t nowNs) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->noteTime(nowNs);
    Impl::TunnelState* tunnel = mImpl->find(device, tunnelId);
    // The panel has no way to wait for a picture that is still being written.
    if (mImpl->faults.queueFails || tunnel == nullptr || acquireFenceFd >= 0) {
        return -EINVAL;
    }
    if (!tunnel->connected) {
        return -ENOTCONN;
    }
    if (tunnel->buffers.held() >= mImpl->config.capacity) {
        return -ENOBUFS;
    }
    BufferRecord buffer;
    buffer.serial = mImpl->nextSerial;
    buffer.tunnelId = tunnelId;
    buffer.fd = bufferFd;
    buffer.presentationTimeUs = presentationTimeUs;
    buffer.queuedNs = nowNs;
    const int result = tunnel->buffers.queue(buffer);
    mImpl->nextSerial += result == 0 ? 1 : 0;
    return result;
}

int Tunnel::dequeueBuffer(int device, int tunnelId, int* bufferFd, int* fenceFd, int64_t nowNs) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->noteTime(nowNs);
    Impl::TunnelState* tunnel = mImpl->find(device, tunnelId);
    if (mImpl->faults.dequeueFails || tunnel == nullptr || bufferFd == nullptr ||
        fenceFd == nullptr) {
        return -EINVAL;
    }
    return tunnel->buffers.takeBack(mImpl->fencePipes, bufferFd, fenceFd, nowNs);
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
    mImpl->noteTime(vsync.timeNs);
    for (auto& [id, tunnel] : mImpl->tunnels) {
        tunnel.buffers.scanOut(vsync, next, mImpl->faults);
    }
}

int64_t Tunnel::signalFences(int64_t nowNs) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    int64_t nextNs = std::numeric_limits<int64_t>::max();
    for (auto& [id, tunnel] : mImpl->tunnels) {
        nextNs = std::min(nextNs, tunnel.buffers.signalFences(nowNs));
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
    for (const auto& [id, records] : mImpl->records) {
        if (tunnelId < 0 || tunnelId == id) {
            chosen.insert(chosen.end(), records.all().begin(), records.all().end());
        }
    }
    std::sort(chosen.begin(), chosen.end(),
              [](const BufferRecord& a, const BufferRecord& b) { return a.serial < b.serial; });
    return chosen;
}

std::vector<BufferRecord> Tunnel::takeFinished(int tunnelId) {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    std::vector<BufferRecord> finished;
    const auto entry = mImpl->records.find(tunnelId);
    if (entry == mImpl->records.end()) {
        return finished;
    }
    BufferRecords& records = entry->second;
    const auto tunnel = mImpl->tunnels.find(tunnelId);
    const bool allocated = tunnel != mImpl->tunnels.end();
    while (!records.all().empty() && !(allocated && tunnel->second.buffers.uses(records.first()))) {
        finished.push_back(records.takeFirst());
    }
    if (!allocated) {
        mImpl->records.erase(entry);
    }
    return finished;
}

std::optional<BufferRecord> Tunnel::onScreen() const {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    for (auto tunnel = mImpl->tunnels.rbegin(); tunnel != mImpl->tunnels.rend(); ++tunnel) {
        if (auto buffer = tunnel->second.buffers.onScreen()) {
            return buffer;
        }
    }
    return std::nullopt;
}

int Tunnel::heldBuffers(int tunnelId) const {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    const auto found = mImpl->tunnels.find(tunnelId);
    return found == mImpl->tunnels.end() ? 0 : found->second.buffers.held();
}

int Tunnel::openDevices() const {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    return static_cast<int>(mImpl->devices.size());
}

int Tunnel::idsNotFreed() const {
    const std::lock_guard<std::mutex> guard(mImpl->lock);
    return mImpl->idsNotFreed;
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
    std::string text =
        fmt::format("video tunnel: {} devices open, {} ids allocated, {} buffers queued so far\n",
                    mImpl->devices.size(), mImpl->tunnels.size(), mImpl->nextSerial);
    for (const auto& [id, tunnel] : mImpl->tunnels) {
        text += fmt::format("tunnel {}: {}connected, {}", id, tunnel.connected ? "" : "not ",
                            tunnel.buffers.dump());
    }
    return text;
}

}  // namespace korvane::tv
