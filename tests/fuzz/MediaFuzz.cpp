// SPDX-License-Identifier: Apache-2.0
// Bytes as a media file: the player reads pictures and sound, seeks and reads on, or refuses it in
// one line.
#include <sys/mman.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "player/base/Errors.h"
#include "player/media/Ffmpeg.h"
#include "player/media/SoundStore.h"
#include "player/media/VideoReader.h"
#include "tests/fuzz/Refusal.h"

namespace {

constexpr int kMostReads = 24;
constexpr size_t kMostAllocated = size_t{256} * 1024 * 1024;

/// @return whether FFmpeg's own limits are set; they keep an input of a few bytes small
bool limitFfmpeg() {
    av_log_set_level(AV_LOG_QUIET);
    av_max_alloc(kMostAllocated);
    return true;
}

void readSome(korvane::player::FrameSource* pictures, korvane::player::PacketSource* sound) {
    using korvane::player::ReadStatus;
    korvane::player::AudioPacket packet;
    for (int i = 0; i < kMostReads && pictures->next() == ReadStatus::Ready; ++i) {
        pictures->mediaTimeUs();
    }
    for (int i = 0; sound != nullptr && i < kMostReads; ++i) {
        if (sound->next(&packet) != ReadStatus::Ready) {
            return;
        }
    }
}

void play(const std::string& path) {
    korvane::player::MediaRequest request;
    request.name = path;
    request.sound = std::make_shared<korvane::player::SoundStore>();
    korvane::player::VideoReader pictures(request);
    const auto sound = pictures.openAudio();
    for (const int64_t toUs : {INT64_MIN, int64_t{40'000}, int64_t{0}, int64_t{3'000'000}}) {
        if (toUs < 0 || (pictures.seek(toUs) && sound != nullptr)) {
            readSome(&pictures, sound.get());
        }
    }
    pictures.readUpToUs();
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace korvane;
    static const bool limited = limitFfmpeg();
    const int fd = memfd_create("film", MFD_CLOEXEC);
    if (limited && write(fd, data, size) == static_cast<ssize_t>(size)) {
        test::takeOrRefuse<player::InputError>(
            [&] { play("/proc/self/fd/" + std::to_string(fd)); });
    }
    close(fd);
    return 0;
}
