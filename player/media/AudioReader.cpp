// SPDX-License-Identifier: Apache-2.0
#include "player/media/AudioReader.h"

#include <utility>

#include "player/media/Demuxer.h"

namespace korvane::player {
namespace {

/// Three times what players hand over ahead.
constexpr int64_t kRecentUs = 10'000'000;

/// No codec's packets last longer.
constexpr int64_t kLongestPacketUs = 1'000'000;

}  // namespace

AudioReader::AudioReader(std::shared_ptr<Demuxer> demuxer, int stream,
                         std::shared_ptr<SoundStore> sound)
    : mDemuxer(std::move(demuxer)),
      mStream(stream),
      mTimeBase(mDemuxer->stream(stream).time_base),
      mPacket(av_packet_alloc()) {
    if (sound) {
        mDecoder = std::make_unique<SoundDecoder>(*mDemuxer, stream, std::move(sound));
    }
}

AudioReader::~AudioReader() = default;

ReadStatus AudioReader::next(AudioPacket* packet) {
    for (;;) {
        const ReadStatus status = take(packet);
        // Packets that end before the start are the encoder's priming samples, which are never
        // heard.
        const bool heard =
            packet->durationUs > 0 && packet->mediaTimeUs + packet->durationUs > mSkipBeforeUs;
        if (status != ReadStatus::Ready || heard) {
            return status;
        }
    }
}

ReadStatus AudioReader::take(AudioPacket* packet) {
    if (mGiven == mRecent.size()) {
        const ReadStatus status = readOn(packet);
        if (status != ReadStatus::Ready) {
            return status;
        }
        mRecent.push_back(*packet);
    }
    *packet = mRecent[mGiven++];
    while (mRecent.front().mediaTimeUs + kRecentUs < packet->mediaTimeUs) {
        mRecent.pop_front();
        --mGiven;
    }
    return ReadStatus::Ready;
}

ReadStatus AudioReader::readOn(AudioPacket* packet) {
    if (mAhead) {
        *packet = *std::exchange(mAhead, std::nullopt);
    } else if (const ReadStatus status = readOne(packet); status != ReadStatus::Ready) {
        return status;
    }
    AudioPacket following;
    if (packet->durationUs == 0 && readOne(&following) == ReadStatus::Ready) {
        mAhead = following;
        packet->durationUs = following.mediaTimeUs - packet->mediaTimeUs;
    }
    if (packet->durationUs <= 0 || packet->durationUs > kLongestPacketUs) {
        packet->durationUs = mLastDurationUs;
    }
    mLastDurationUs = packet->durationUs;
    return ReadStatus::Ready;
}

ReadStatus AudioReader::readOne(AudioPacket* packet) {
    const ReadStatus status = mDemuxer->read(mStream, mPacket.get());
    if (status == ReadStatus::Ready) {
        packet->durationUs = av_rescale_q(mPacket->duration, mTimeBase, kMicroseconds);
        packet->mediaTimeUs =
            mPacket->pts == AV_NOPTS_VALUE ? mNextUs : mDemuxer->toMediaUs(mPacket->pts, mTimeBase);
        mNextUs = packet->mediaTimeUs + packet->durationUs;
        if (mDecoder) {
            mDecoder->decode(*mPacket);
        }
    }
    return status;
}

void AudioReader::seek(int64_t mediaTimeUs) {
    if (mDemuxer->seek(mStream, mediaTimeUs)) {
        mRecent.clear();
        if (mDecoder) {
            mDecoder->restart();
        }
        mAhead.reset();
    }
    mSkipBeforeUs = mediaTimeUs;
    mGiven = 0;
}

}  // namespace korvane::player
