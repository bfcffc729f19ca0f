// SPDX-License-Identifier: Apache-2.0
// Reads the times of the audio packets of an input. Nothing is decoded, unless a SoundStore wants
// the samples.
//
// FFmpeg takes packets' durations from what it finds while it opens the input. If sound begins
// later than that, it finds nothing: then a packet lasts until the next one.
//
// Where the input cannot seek, a seek goes back among the packets of the last seconds: a player
// hands audio over ahead of what is heard, and after a flush has to hand over again what was
// dropped.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>

#include "player/media/Ffmpeg.h"
#include "player/media/FrameSource.h"
#include "player/media/SoundDecoder.h"

namespace korvane::player {

class Demuxer;

/// One thread at a time.
class AudioReader final : public PacketSource {
public:
    /// @param sound  receives the decoded samples; null: nothing is decoded
    /// @throws InputError if it cannot be decoded
    AudioReader(std::shared_ptr<Demuxer> demuxer, int stream, std::shared_ptr<SoundStore> sound);
    ~AudioReader() override;
    AudioReader(const AudioReader&) = delete;
    AudioReader& operator=(const AudioReader&) = delete;

    ReadStatus next(AudioPacket* packet) override;
    void seek(int64_t mediaTimeUs) override;

private:
    ReadStatus readOn(AudioPacket* packet);
    ReadStatus readOne(AudioPacket* packet);
    ReadStatus take(AudioPacket* packet);

    const std::shared_ptr<Demuxer> mDemuxer;
    const int mStream;
    const AVRational mTimeBase;
    const PacketPtr mPacket;
    std::unique_ptr<SoundDecoder> mDecoder;  ///< null: nothing is decoded
    int64_t mNextUs = 0;
    std::optional<AudioPacket> mAhead;  ///< read to learn how long the one before it lasts
    int64_t mLastDurationUs = 0;
    int64_t mSkipBeforeUs = 0;
    std::deque<AudioPacket> mRecent;  ///< what was read last
    size_t mGiven = 0;                ///< of these, how many were handed on
};

}  // namespace korvane::player
