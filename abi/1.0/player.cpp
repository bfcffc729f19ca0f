// SPDX-License-Identifier: Apache-2.0
// A player of version 1.0, kept as it was: ten frames played, three flushed, everything handed
// back.
//
// It is built against the header beside it and nothing else of this tree, and calls each public
// operation in the order that header gives. What it checks is what that header promised, whatever
// the machine's load: results, records, which buffers come back and in which callback first. It
// plays without audio, so it anchors the clock itself. Exit status 0 when every promise was kept.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>

#include "VideoTunnelRenderer.h"

namespace {

constexpr int kPlayed = 10;
constexpr int kFlushed = 3;
constexpr int kBuffers = kPlayed + kFlushed;
constexpr int kStayInTunnel = 2;       // until `stop`
constexpr int kFirstBufferFd = 10000;  // not open: buffers without a picture
constexpr long kFrameUs = 1000000 / 24;
constexpr long kLeadUs = 100000;  // how far ahead of its time a frame is handed in
constexpr long kFarUs = 2000000;  // further ahead than a flush takes
constexpr long kPollUs = 5000;
constexpr long kGiveUpUs = 60000000;

std::atomic<int> gBroken{0};

void expect(bool kept, const char* promise) {
    if (!kept) {
        std::printf("broken: %s\n", promise);
        ++gBroken;
    }
}

long mediaTimeUs(int buffer) {
    return buffer * kFrameUs + (buffer < kPlayed ? kLeadUs : kFarUs);
}

/// What the callbacks, on whichever thread, saw of each buffer.
struct Returns {
    std::mutex lock;
    int asDescriptor[kBuffers] = {};
    int asStatus[kBuffers] = {};
    int shown = 0;
    int renderTimes = 0;

    int read(const int& count) {
        const std::lock_guard<std::mutex> guard(lock);
        return count;
    }
    int total() {
        const std::lock_guard<std::mutex> guard(lock);
        int sum = 0;
        for (const int times : asStatus) {
            sum += times;
        }
        return sum;
    }
    /// Waits until so many buffers are back, which takes until they are due.
    void await(int count, const char* promise) {
        for (long waitedUs = 0; total() < count && waitedUs < kGiveUpUs; waitedUs += kPollUs) {
            usleep(kPollUs);
        }
        expect(total() >= count, promise);
    }
};

bool ours(int fd) {
    return fd >= kFirstBufferFd && fd < kFirstBufferFd + kBuffers;
}

int onReturned(void* userData, void* info) {
    auto& returns = *static_cast<Returns*>(userData);
    const std::lock_guard<std::mutex> guard(returns.lock);
    const int fd = *static_cast<const int*>(info);
    expect(ours(fd), "type 0 names a buffer of ours");
    if (ours(fd)) {
        ++returns.asDescriptor[fd - kFirstBufferFd];
    }
    return 0;
}

int onStatus(void* userData, void* info) {
    auto& returns = *static_cast<Returns*>(userData);
    const std::lock_guard<std::mutex> guard(returns.lock);
    const auto& status = *static_cast<const framestatus*>(info);
    expect(ours(status.fd), "type 2 names a buffer of ours");
    expect(status.rendered <= 1, "type 2 says 0 or 1");
    expect(status.reserved[0] == 0 && status.reserved[1] == 0 && status.reserved[2] == 0,
           "the reserved bytes of type 2 are zero");
    if (ours(status.fd)) {
        const int buffer = status.fd - kFirstBufferFd;
        ++returns.asStatus[buffer];
        expect(returns.asDescriptor[buffer] == returns.asStatus[buffer], "type 0 comes first");
        returns.shown += status.rendered;
    }
    return 0;
}

int onRenderTime(void* userData, void* info) {
    auto& returns = *static_cast<Returns*>(userData);
    const std::lock_guard<std::mutex> guard(returns.lock);
    const auto& time = *static_cast<const rendertime*>(info);
    bool sent = false;
    for (int buffer = 0; buffer < kBuffers; ++buffer) {
        sent = sent || time.mediaTimeUs == mediaTimeUs(buffer);
    }
    expect(sent, "type 1 names the media time of a frame of ours");
    expect(time.renderTimeUs > 0, "type 1 names a time");
    ++returns.renderTimes;
    return 0;
}

void expectNothingBeforeInit(VideoTunnelRenderer& renderer) {
    long timeUs = -7;
    int fd = -7;
    expect(renderer.onVideoSyncQueueVideoFrame(0, 1) == 0, "no frame is announced before init");
    expect(!renderer.updateVideoTime(0), "no anchor before init");
    expect(!renderer.getRealTimeFor(0, &timeUs), "no real time before init");
    expect(!renderer.getTrackMediaTime(&timeUs), "no track time before init");
    expect(!renderer.getStartingTimeMedia(&timeUs), "no starting time before init");
    expect(!renderer.getNeedFillVideoFrame(&fd), "no buffer before start");
    expect(timeUs == -7 && fd == -7, "outputs stay untouched before init");
}

void setUp(VideoTunnelRenderer& renderer, Returns* returns) {
    expect(renderer.init(0) == 1, "init answers 1");
    expect(renderer.regCallBack(kFrameReturnCallback, onReturned, returns) == 0,
           "type 0 is stored");
    expect(renderer.regCallBack(kRenderTimeCallback, onRenderTime, returns) == 0,
           "type 1 is stored");
    expect(renderer.regCallBack(kFrameStatusCallback, onStatus, returns) == 0, "type 2 is stored");
    expect(renderer.regCallBack(3, onStatus, returns) == -1, "there is no type 3");
    expect(renderer.regCallBack(kFrameStatusCallback, nullptr, returns) == -1,
           "a callback cannot be removed");
    const int tunnelId = renderer.getTunnelId();
    expect(tunnelId >= 0 && renderer.getTunnelId() == tunnelId, "one tunnel id, kept");
    expect(renderer.setFrameRate(2400) == 1, "setFrameRate answers 1");
    expect(renderer.onVideoSyncQueueVideoFrame(0, 1) == 1, "a frame is announced");
}

void send(VideoTunnelRenderer& renderer, int buffer, bool peek) {
    expect(renderer.sendVideoFrame(kFirstBufferFd + buffer, mediaTimeUs(buffer), peek) == 1,
           "sendVideoFrame answers 1");
}

void play(VideoTunnelRenderer& renderer) {
    long realTimeUs = 0;
    expect(renderer.updateVideoTime(0), "the clock is anchored");
    expect(renderer.getRealTimeFor(kLeadUs, &realTimeUs) && realTimeUs > 0, "the clock runs");
    send(renderer, 0, false);
    expect(renderer.peekFirstFrame() == 1, "peekFirstFrame answers 1");
    expect(renderer.start() == 1 && renderer.start() == 1, "start answers 1, also when started");
    for (int buffer = 1; buffer < kPlayed; ++buffer) {
        usleep(kFrameUs);
        send(renderer, buffer, false);
    }
}

}  // namespace

int main() {
    Returns returns;
    VideoTunnelRenderer* renderer = VideoTunnelRenderer_create();
    if (renderer == nullptr) {
        std::puts("broken: the factory makes a renderer");
        return 1;
    }
    expectNothingBeforeInit(*renderer);
    setUp(*renderer, &returns);
    play(*renderer);
    returns.await(kPlayed - kStayInTunnel, "played frames come back");
    const int shown = returns.read(returns.shown);

    for (int buffer = kPlayed; buffer < kBuffers; ++buffer) {
        send(*renderer, buffer, false);
    }
    expect(renderer->flush() == 1, "flush answers 1");
    returns.await(kBuffers - kStayInTunnel, "flushed frames come back");
    expect(returns.read(returns.renderTimes) > 0, "render times are reported");
    expect(renderer->nodifyRenderTime() == 1, "nodifyRenderTime answers 1");
    expect(renderer->stop() == 1 && renderer->stop() == 1, "stop answers 1, also when stopped");

    const int back = returns.total();
    expect(back == kBuffers - kStayInTunnel, "no buffer comes back twice");
    expect(renderer->onFillVideoFrame(kFirstBufferFd, true) == 1, "onFillVideoFrame is taken");
    expect(returns.total() == back + 1, "onFillVideoFrame calls back");
    delete renderer;
    delete VideoTunnelRenderer_create();
    expect(returns.total() == back + 1, "nothing comes back after stop");

    const int dropped = kPlayed - kStayInTunnel - shown;
    if (dropped > 0) {
        std::printf("%d frames dropped\n", dropped);
    }
    std::printf("%d frames shown and back, %d promises broken\n", shown, gBroken.load());
    return gBroken == 0 ? 0 : 1;
}
