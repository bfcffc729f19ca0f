// SPDX-License-Identifier: Apache-2.0
// Decodes a stream's audio packets into a SoundStore: stereo at 48 kHz, placed by media time.
//
// Containers round times, so samples continue where the last ones ended, unless the time shows a
// gap or a repetition. Damaged packets leave silence.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "player/media/Ffmpeg.h"
#include "player/media/SoundStore.h"

struct SwrContext;

namespace korvane::player {

class Demuxer;

/// One thread at a time.
class SoundDecoder {
public:
    /// @throws InputError if there is no decoder for the stream
    SoundDecoder(const Demuxer& demuxer, int stream, std::shared_ptr<SoundStore> store);
    ~SoundDecoder();
    SoundDecoder(const SoundDecoder&) = delete;
    SoundDecoder& operator=(const SoundDecoder&) = delete;

    void decode(const AVPacket& packet);
    /// The next packet is from elsewhere.
    void restart();

private:
    struct FreeResampler {
        void operator()(SwrContext* resampler) const;
    };
    bool prepareResampler();
    void takeFrame();

    const Demuxer& mDemuxer;
    const AVRational mTimeBase;
    const std::shared_ptr<SoundStore> mStore;
    CodecPtr mCodec;
    FramePtr mFrame;
    std::unique_ptr<SwrContext, FreeResampler> mResampler;
    int mResampledHz = 0;        ///< of what the resampler takes
    int mResampledFormat = -1;   ///< the same
    int mResampledChannels = 0;  ///< the same
    std::optional<int64_t> mNextSample;
};

}  // namespace korvane::player
