// SPDX-License-Identifier: Apache-2.0
// A whole player: two seconds of 24 fps without audio, from six buffers, on a simulated TV of 60
// Hz.
//
// The main thread takes a free buffer, writes the next picture into it and sends it. The renderer's
// callback puts the buffer back. When none is free the main thread waits: six buffers are the only
// limit on how far it runs ahead. At the end the program reads from the display what was on screen.
//
// Exit status 0 when every frame was shown, in order, and all buffers but the tunnel's last two
// came back before `stop`.
#include <VideoTunnelRenderer.h>
#include <sys/mman.h>
#include <tv/Log.h>
#include <tv/Picture.h>
#include <tv/Tv.h>
#include <tv/clock/VirtualTime.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

namespace {

namespace tv = korvane::tv;

constexpr int kFrames = 48;
constexpr size_t kBuffers = 6;
/// Until `stop` the tunnel keeps the last two.
constexpr size_t kKeptByTunnel = 2;
/// Android's log priority from which on lines are written.
constexpr int kWarnings = 5;

/// Rounded from the frame number each time, so that no error adds up.
int64_t mediaTimeUsOf(int frame) {
    return frame * int64_t{1'000'000} / 24;
}

/// The player's side of the callbacks: which of its buffers are free, and how far the picture is.
/// Any thread.
class Playback {
public:
    Playback() {
        for (int& fd : mBuffers) {
            fd = memfd_create("frame", MFD_CLOEXEC);
            if (fd < 0) {
                throw std::runtime_error("cannot make a frame buffer");
            }
            mFree.insert(fd);
        }
    }
    ~Playback() {
        for (const int fd : mBuffers) {
            close(fd);
        }
    }
    Playback(const Playback&) = delete;
    Playback& operator=(const Playback&) = delete;

    /// Waits until a buffer is free and takes it.
    int takeBuffer() {
        std::unique_lock<std::mutex> guard(mLock);
        mChanged.wait(guard, [this] { return !mFree.empty(); });
        return mFree.extract(mFree.begin()).value();
    }
    /// Waits until the time at which a frame is to be on screen.
    void waitForRenderTime(int64_t mediaTimeUs) {
        std::unique_lock<std::mutex> guard(mLock);
        mChanged.wait(guard, [&] { return mRenderedUs >= mediaTimeUs; });
    }
    size_t buffersOut() {
        const std::lock_guard<std::mutex> guard(mLock);
        return kBuffers - mFree.size();
    }

    /// Type 2: a buffer is the player's again. One that comes back twice changes nothing.
    static int onFrameStatus(void* self, void* info) {
        auto* playback = static_cast<Playback*>(self);
        const std::lock_guard<std::mutex> guard(playback->mLock);
        playback->mFree.insert(static_cast<framestatus*>(info)->fd);
        playback->mChanged.notify_all();
        return 0;
    }
    /// Type 1, called under a lock of the renderer: take a note, wake the main thread, return.
    static int onRenderTime(void* self, void* info) {
        auto* playback = static_cast<Playback*>(self);
        const std::lock_guard<std::mutex> guard(playback->mLock);
        playback->mRenderedUs = static_cast<rendertime*>(info)->mediaTimeUs;
        playback->mChanged.notify_all();
        return 0;
    }

private:
    std::array<int, kBuffers> mBuffers{};
    std::mutex mLock;
    std::condition_variable mChanged;
    std::set<int> mFree;
    int64_t mRenderedUs = -1;
};

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

    Playback playback;
    const std::unique_ptr<VideoTunnelRenderer> renderer(VideoTunnelRenderer_create());
    if (renderer == nullptr) {
        throw std::runtime_error("no memory for a renderer");
    }
    renderer->init(0);  // no audio
    renderer->regCallBack(kRenderTimeCallback, &Playback::onRenderTime, &playback);
    renderer->regCallBack(kFrameStatusCallback, &Playback::onFrameStatus, &playback);
    renderer->getTunnelId();
    renderer->start();
    renderer->updateVideoTime(mediaTimeUsOf(0));  // without audio the player sets the clock
    for (int frame = 0; frame < kFrames; ++frame) {
        const int fd = playback.takeBuffer();
        writePicture(fd, frame);
        if (renderer->sendVideoFrame(fd, mediaTimeUsOf(frame), false) == 0) {
            throw std::runtime_error("no memory for a frame");
        }
    }
    // `stop` ends playback at once: give the last frame its time on screen before.
    playback.waitForRenderTime(mediaTimeUsOf(kFrames - 1));
    std::this_thread::sleep_for(std::chrono::microseconds(mediaTimeUsOf(1)));
    const size_t out = playback.buffersOut();
    renderer->stop();  // the buffers that the tunnel still has are the player's now

    const int shown = printWhatWasShown(set->tunnel());
    std::printf("%d of %d shown, %zu buffers returned by stop\n", shown, kFrames, out);
    set->powerOff();
    return shown == kFrames && out == kKeptByTunnel ? 0 : 1;
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
