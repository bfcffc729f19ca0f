// SPDX-License-Identifier: Apache-2.0
#include "player/media/SoundDecoder.h"

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "player/base/Errors.h"
#include "player/media/Demuxer.h"

extern "C" {
#include <libswresample/swresample.h>
}

namespace korvane::player {
namespace {

/// Containers round to a millisecond at most: less than two milliseconds is no gap.
constexpr int64_t kRoundingSamples = kSoundHz / 500;

CodecPtr openSoundDecoder(const AVStream& stream) {
    const AVCodec* decoder = avcodec_find_decoder(stream.codecpar->codec_id);
    CodecPtr codec(decoder == nullptr ? nullptr : avcodec_alloc_context3(decoder));
    if (!codec || avcodec_parameters_to_context(codec.get(), stream.codecpar) < 0) {
        return nullptr;
    }
    codec->thread_count = 1;
    codec->pkt_timebase = stream.time_base;
    return avcodec_open2(codec.get(), decoder, nullptr) < 0 ? nullptr : std::move(codec);
}

}  // namespace

void SoundDecoder::FreeResampler::operator()(SwrContext* resampler) const {
    swr_free(&resampler);
}

SoundDecoder::SoundDecoder(const Demuxer& demuxer, int stream, std::shared_ptr<SoundStore> store)
    : mDemuxer(demuxer),
      mTimeBase(demuxer.stream(stream).time_base),
      mStore(std::move(store)),
      mCodec(openSoundDecoder(demuxer.stream(stream))),
      mFrame(av_frame_alloc()) {
    if (!mCodec) {
        throw InputError(std::string("this FFmpeg cannot decode the film's ") +
                         avcodec_get_name(demuxer.stream(stream).codecpar->codec_id) +
                         " audio, which is to be recorded; give --no-audio");
    }
}

SoundDecoder::~SoundDecoder() = default;

void SoundDecoder::decode(const AVPacket& packet) {
    if (avcodec_send_packet(mCodec.get(), &packet) < 0) {
        return;
    }
    while (avcodec_receive_frame(mCodec.get(), mFrame.get()) >= 0) {
        takeFrame();
    }
}

void SoundDecoder::restart() {
    avcodec_flush_buffers(mCodec.get());
    mResampler.reset();
    mNextSample.reset();
}

/// Broadcasts change the layout on the way.
bool SoundDecoder::prepareResampler() {
    const bool same = mFrame->sample_rate == mResampledHz && mFrame->format == mResampledFormat &&
                      mFrame->ch_layout.nb_channels == mResampledChannels;
    if (mResampler && same) {
        return true;
    }
    mResampledHz = mFrame->sample_rate;
    mResampledFormat = mFrame->format;
    mResampledChannels = mFrame->ch_layout.nb_channels;
    AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
    SwrContext* made = nullptr;
    swr_alloc_set_opts2(&made, &stereo, AV_SAMPLE_FMT_FLT, kSoundHz, &mFrame->ch_layout,
                        static_cast<AVSampleFormat>(mFrame->format), mFrame->sample_rate, 0,
                        nullptr);
    mResampler.reset(made);
    if (!mResampler || swr_init(mResampler.get()) < 0) {
        mResampler.reset();
    }
    return mResampler != nullptr;
}

void SoundDecoder::takeFrame() {
    if (!prepareResampler()) {
        return;
    }
    const int64_t delay = swr_get_delay(mResampler.get(), kSoundHz);
    std::vector<float> samples(
        static_cast<size_t>(swr_get_out_samples(mResampler.get(), mFrame->nb_samples)) *
        kSoundChannels);
    auto* out = reinterpret_cast<uint8_t*>(samples.data());
    const int count =
        swr_convert(mResampler.get(), &out, static_cast<int>(samples.size()) / kSoundChannels,
                    const_cast<const uint8_t**>(mFrame->extended_data), mFrame->nb_samples);
    if (count <= 0) {
        return;
    }
    samples.resize(static_cast<size_t>(count) * kSoundChannels);
    if (const int64_t timestamp = mFrame->best_effort_timestamp; timestamp != AV_NOPTS_VALUE) {
        const int64_t told = av_rescale_q(mDemuxer.toMediaUs(timestamp, mTimeBase), kMicroseconds,
                                          AVRational{1, kSoundHz}) -
                             delay;
        if (!mNextSample || std::llabs(told - *mNextSample) > kRoundingSamples) {
            mNextSample = told;
        }
    }
    const int64_t from = mNextSample.value_or(0);
    mNextSample = from + count;
    mStore->add(from, std::move(samples));
}

}  // namespace korvane::player
