// SPDX-License-Identifier: Apache-2.0
// A whole player: two seconds of 24 fps without audio, from six buffers, on a simulated TV of 60
// Hz.
//
// The main thread takes a free buffer, writes the next picture into it and sends it. The renderer's
// callback puts the buffer back. When none is free the main thread waits: six buffers are the only
// limit on how far it runs ahead. At the end the program reads from the display what was on screen.
//
// Exit status 0 when every frame was shown, in order, and every buffer came back.
#include <VideoTunnelRenderer.h>
#include <sys/mman.h>
#include <tv/Picture.h>
#include <tv/Platform.h>
#include <tv/Tv.h>
#include <tv/clock/VirtualTime.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>

namespace {

namespace tv = korvane::tv;

constexpr int kFrames = 48;
constexpr size_t kBuffers = 6;
/// The tunnel keeps the picture on screen and the next one until `stop`.
constexpr size_t kKeptByTunnel = 2;
/// Android's log priority from which on lines are written.
constexpr int kWarnings = 5;

/// Rounded from the frame number each time, so that no error adds up.
int64_t mediaTimeUsOf(int frame) {
    return frame * int64_t{1'000'000} / 24;
}

/// Six buffers, and which of them are free. Any thread.
class BufferPool {
public:
    BufferPool() {
        for (int& fd : mBuffers) {
            fd = memfd_create("frame", MFD_CLOEXEC);
            if (fd < 0) {
                throw std::runtime_error("cannot make a frame buffer");
            }
            mFree.insert(fd);
        }
    }
    ~BufferPool() {
        for (const int fd : mBuffers) {
            close(fd);
        }
    }
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;

    /// Waits until a buffer is free.
    int take() {
        std::unique_lock<std::mutex> guard(mLock);
        mChanged.wait(guard, [this] { return !mFree.empty(); });
        return mFree.extract(mFree.begin()).value();
    }
    /// A buffer may be given back twice (see docs/integration.md); the second time changes nothing.
    void giveBack(int fd) {
        const std::lock_guard<std::mutex> guard(mLock);
        mFree.insert(fd);
        mChanged.notify_all();
    }
    void waitForFree(size_t count) {
        std::unique_lock<std::mutex> guard(mLock);
        mChanged.wait(guard, [&] { return mFree.size() >= count; });
    }

private:
    std::array<int, kBuffers> mBuffers{};
    std::mutex mLock;
    std::condition_variable mChanged;
    std::set<int> mFree;
};

struct Player {
    BufferPool pool;
    std::atomic<int> renderTimes{0};
};

/// Type 2, mostly on the fill thread: a buffer is the player's again.
int onFrameStatus(void* userData, void* info) {
    static_cast<Player*>(userData)->pool.giveBack(static_cast<framestatus*>(info)->fd);
    return 0;
}

/// Type 1, on the fill thread and under a lock of the renderer: take a note and return.
int onRenderTime(void* userData, void* info) {
    const auto* time = static_cast<rendertime*>(info);
    static_cast<Player*>(userData)->renderTimes += time->renderTimeUs > 0 ? 1 : 0;
    return 0;
}

/// A decoder would write the picture's planes behind the header, from kPictureHeaderBytes on.
void writePicture(int fd, int frame) {
    tv::PictureHeader header;
    header.frameNo = frame;
    header.mediaTimeUs = mediaTimeUsOf(frame);
    if (pwrite(fd, &header, sizeof(header), 0) != sizeof(header)) {
        throw std::runtime_error("cannot write a frame buffer");
    }
}

/// @return how many frames were on screen, each after the one before it
int printWhatWasShown(const tv::Tunnel& tunnel) {
    int shown = 0;
    for (const auto& buffer : tunnel.record()) {
        std::printf("frame %lld: %s, %lld vsyncs\n", static_cast<long long>(buffer.frameNo),
                    tv::toString(buffer.fate), static_cast<long long>(buffer.dwellVsyncs));
        if (buffer.frameNo == shown && buffer.dwellVsyncs > 0) {
            ++shown;
        }
    }
    return shown;
}

int play() {
    const tv::VirtualTime virtualTime(1);  // without this line it plays in real time
    tv::openLog(kWarnings);
    const auto set = tv::Tv::powerOn();

    Player player;
    const std::unique_ptr<VideoTunnelRenderer> renderer(VideoTunnelRenderer_create());
    if (renderer == nullptr) {
        throw std::runtime_error("no memory for a renderer");
    }
    renderer->init(0);  // no audio
    renderer->regCallBack(kRenderTimeCallback, &onRenderTime, &player);
    renderer->regCallBack(kFrameStatusCallback, &onFrameStatus, &player);
    renderer->getTunnelId();
    renderer->start();
    renderer->updateVideoTime(mediaTimeUsOf(0));  // without audio the player sets the clock
    for (int frame = 0; frame < kFrames; ++frame) {
        const int fd = player.pool.take();
        writePicture(fd, frame);
        renderer->sendVideoFrame(fd, mediaTimeUsOf(frame), false);
    }
    player.pool.waitForFree(kBuffers - kKeptByTunnel);
    renderer->stop();  // every buffer is the player's now

    const int shown = printWhatWasShown(set->tunnel());
    std::printf("%d of %d shown, %d render times\n", shown, kFrames, player.renderTimes.load());
    set->powerOff();
    return shown == kFrames && player.renderTimes > 0 ? 0 : 1;
}

}  // namespace

int main() {
    try {
        return play();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "player: %s\n", error.what());
        return 2;
    }
}
