// SPDX-License-Identifier: Apache-2.0
// A small player of somebody else's: ten frames of 24 fps without audio on a simulated TV of 60 Hz,
// in virtual time. Prints what was on screen, frame by frame; exit status 0 when that were all ten
// in order and every buffer came back.
#include <VideoTunnelRenderer.h>
#include <sys/mman.h>
#include <tv/Log.h>
#include <tv/Picture.h>
#include <tv/Tv.h>
#include <tv/clock/VirtualTime.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

namespace {

namespace tv = korvane::tv;

constexpr int kFrames = 10;
constexpr long kFrameUs = 1'000'000 / 24;
/// Android's log priority from which on lines are written.
constexpr int kWarnings = 5;

/// Buffers that the library holds.
class Buffers {
public:
    Buffers() {
        for (int frame = 0; frame < kFrames; ++frame) {
            tv::PictureHeader picture;
            picture.frameNo = frame;
            picture.mediaTimeUs = frame * kFrameUs;
            mFd[frame] = memfd_create("frame", MFD_CLOEXEC);
            if (pwrite(mFd[frame], &picture, sizeof(picture), 0) != sizeof(picture)) {
                std::perror("play_ten: cannot make a frame buffer");
            }
        }
    }
    ~Buffers() {
        for (const int fd : mFd) {
            close(fd);
        }
    }
    Buffers(const Buffers&) = delete;
    Buffers& operator=(const Buffers&) = delete;

    int take(int frame) {
        const std::lock_guard<std::mutex> guard(mLock);
        mOut.insert(mFd[frame]);
        return mFd[frame];
    }
    size_t out() {
        const std::lock_guard<std::mutex> guard(mLock);
        return mOut.size();
    }
    static int onFrameStatus(void* self, void* info) {
        auto* buffers = static_cast<Buffers*>(self);
        const std::lock_guard<std::mutex> guard(buffers->mLock);
        return buffers->mOut.erase(static_cast<framestatus*>(info)->fd) == 1 ? 0 : -1;
    }

private:
    int mFd[kFrames];
    std::mutex mLock;
    std::set<int> mOut;
};

/// @return how many of the frames were on screen, each after the one before it, and given back
int printWhatWasShown(const tv::Tunnel& tunnel) {
    int shown = 0;
    for (const auto& buffer : tunnel.record()) {
        std::printf("frame %lld: %s, %lld vsyncs\n", static_cast<long long>(buffer.frameNo),
                    tv::toString(buffer.fate), static_cast<long long>(buffer.dwellVsyncs));
        if (buffer.frameNo == shown && buffer.dwellVsyncs > 0 && buffer.releasedNs > 0) {
            ++shown;
        }
    }
    return shown;
}

}  // namespace

int main() {
    const tv::VirtualTime time(1);
    tv::openLog(kWarnings);
    const auto set = tv::Tv::powerOn();
    Buffers buffers;
    const std::unique_ptr<VideoTunnelRenderer> renderer(VideoTunnelRenderer_create());
    renderer->init(0);
    renderer->regCallBack(kFrameStatusCallback, &Buffers::onFrameStatus, &buffers);
    renderer->getTunnelId();
    renderer->start();
    renderer->updateVideoTime(0);
    for (int frame = 0; frame < kFrames; ++frame) {
        renderer->sendVideoFrame(buffers.take(frame), frame * kFrameUs, false);
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
    // The last two stay in the tunnel until `stop` hands everything back.
    const size_t kept = buffers.out();
    renderer->stop();
    const int shown = printWhatWasShown(set->tunnel());
    std::printf("%d of %d shown and back, %zu of them by stop\n", shown, kFrames, kept);
    set->powerOff();
    return shown == kFrames && kept == 2 ? 0 : 1;
}
