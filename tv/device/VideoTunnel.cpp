// SPDX-License-Identifier: Apache-2.0
// libvideotunnel.so: the tunnel's C entry points on the current TV's tunnel.
//
// A failure is the error number negated; errno is set, too, as by a driver's library.
// Without a TV every call fails with ENODEV.
#include "platform/VideoTunnelLibrary.h"

#include <cerrno>

#include "tv/Tv.h"

namespace {

using korvane::tv::Tv;

/// Calls the current TV's tunnel.
template <typename Call>
int onTunnel(const Call& call) {
    const auto tv = Tv::current();
    const int result = tv ? call(*tv) : -ENODEV;
    if (result < 0) {
        errno = -result;
    }
    return result;
}

}  // namespace

#pragma GCC visibility push(default)

int tovak_vt_open() {
    return onTunnel([](Tv& tv) { return tv.tunnel().open(); });
}

int tovak_vt_close(int device) {
    return onTunnel([=](Tv& tv) { return tv.tunnel().close(device); });
}

int tovak_vt_alloc_id(int device, int* tunnelId) {
    return onTunnel([=](Tv& tv) { return tv.tunnel().allocId(device, tunnelId); });
}

int tovak_vt_free_id(int device, int tunnelId) {
    return onTunnel([=](Tv& tv) { return tv.tunnel().freeId(device, tunnelId); });
}

// The tunnel has only producers, so the role is ignored.
int tovak_vt_connect(int device, int tunnelId, int /*role*/) {
    return onTunnel([=](Tv& tv) { return tv.tunnel().connect(device, tunnelId); });
}

int tovak_vt_disconnect(int device, int tunnelId, int /*role*/) {
    return onTunnel(
        [=](Tv& tv) { return tv.tunnel().disconnect(device, tunnelId, korvane::tv::nowNs()); });
}

int tovak_vt_queue_buffer(int device, int tunnelId, int bufferFd, int acquireFenceFd,
                          int64_t presentationTime) {
    return onTunnel([=](Tv& tv) {
        return tv.tunnel().queueBuffer(device, tunnelId, bufferFd, acquireFenceFd, presentationTime,
                                       korvane::tv::nowNs());
    });
}

int tovak_vt_dequeue_buffer(int device, int tunnelId, int* bufferFd, int* fenceFd) {
    return onTunnel([=](Tv& tv) {
        return tv.tunnel().dequeueBuffer(device, tunnelId, bufferFd, fenceFd, korvane::tv::nowNs());
    });
}

int tovak_vt_send_cmd(int device, int tunnelId, int command, int argument) {
    return onTunnel(
        [=](Tv& tv) { return tv.tunnel().sendCommand(device, tunnelId, command, argument); });
}

int tovak_vt_getDisplayVsyncAndPeroid(int device, int tunnelId, int64_t* vsyncTimestamp,
                                      int32_t* vsyncPeriod) {
    return onTunnel([=](Tv& tv) {
        korvane::tv::VsyncReport report;
        const int result =
            tv.tunnel().displayVsync(device, tunnelId, korvane::tv::nowNs(), &report);
        if (result >= 0) {
            *vsyncTimestamp = report.timestampNs;
            *vsyncPeriod = report.periodNs;
        }
        return result;
    });
}

#pragma GCC visibility pop
