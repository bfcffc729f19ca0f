// SPDX-License-Identifier: Apache-2.0
#include "player/screen/FilmWriter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ostream>
#include <stdexcept>

#include "player/media/SoundStore.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace korvane::player {
namespace {

constexpr int kDataBytes = 1 << 16;
constexpr int64_t kSoundBitRate = 160'000;

struct Choice {
    const char* suffix;
    const char* container;
    std::vector<std::string> video;
    std::vector<std::string> audio;
};

const std::vector<Choice>& choices() {
    static const std::vector<std::string> h264{"libx264", "libopenh264", "mpeg4"};
    static const std::vector<Choice> all{
        {".mp4", "mp4", h264, {"aac"}},
        {".mkv", "matroska", h264, {"aac"}},
        {".webm", "webm", {"libvpx-vp9", "libvpx"}, {"libopus", "libvorbis"}}};
    return all;
}

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const auto& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

void check(int result, const std::string& what) {
    if (result < 0) {
        throw std::runtime_error(what + " (" + errorText(result) + ")");
    }
}

bool canSeek(std::ostream& out) {
    const bool can = out.seekp(0).good();
    out.clear();
    return can;
}

/// Good pictures at recording speed; an encoder ignores options that it does not know.
void setEncoder(AVCodecContext* codec, const std::string& name) {
    const auto set = [codec](const char* key, const char* value) {
        av_opt_set(codec, key, value, AV_OPT_SEARCH_CHILDREN);
    };
    if (name.compare(0, 6, "libvpx") == 0) {
        set("deadline", "realtime");
        set("cpu-used", "8");
        set("crf", "24");
        set("lag-in-frames", "0");
        codec->bit_rate = 0;
        if (name == "libvpx") {
            codec->bit_rate = int64_t{codec->width} * codec->height * 8;
        }
    } else if (name == "mpeg4") {
        codec->flags |= AV_CODEC_FLAG_QSCALE;
        codec->global_quality = FF_QP2LAMBDA * 3;
    } else {
        set("preset", "superfast");
        set("crf", "20");
    }
}

}  // namespace

FilmFormat filmFormat(const std::string& path,
                      const std::function<bool(const std::string& encoder)>& available) {
    const auto choice = std::find_if(choices().begin(), choices().end(), [&](const Choice& entry) {
        return endsWith(path, entry.suffix);
    });
    if (choice == choices().end()) {
        throw std::runtime_error("the name tells no film; let it end in .mp4, .mkv or .webm");
    }
    const auto first = [&](const std::vector<std::string>& names) {
        const auto found = std::find_if(names.begin(), names.end(), available);
        if (found == names.end()) {
            throw std::runtime_error("this FFmpeg lacks the encoder for it (" + joined(names) +
                                     "); let the name end in " +
                                     (endsWith(path, ".webm") ? ".mp4 or .mkv" : ".webm"));
        }
        return *found;
    };
    return {choice->container, first(choice->video), first(choice->audio)};
}

FilmFormat filmFormat(const std::string& path) {
    return filmFormat(path, [](const std::string& encoder) {
        return avcodec_find_encoder_by_name(encoder.c_str()) != nullptr;
    });
}

void FilmWriter::CloseData::operator()(AVIOContext* data) const {
    av_freep(&data->buffer);
    avio_context_free(&data);
}

AVRational trueRate(const FrameRate& nominal, double driftPpm) {
    const AVRational rate{static_cast<int>(nominal.frames), static_cast<int>(nominal.seconds)};
    constexpr int kParts = 100'000'000;
    return driftPpm == 0.0 ? rate : av_mul_q(rate, av_d2q(1.0 + driftPpm * 1e-6, kParts));
}

FilmWriter::FilmWriter(const FilmSpec& spec, std::ostream* out)
    : mSpec(spec), mOut(*out), mCanSeek(canSeek(*out)), mPacket(av_packet_alloc()) {
    mData.reset(avio_alloc_context(static_cast<unsigned char*>(av_malloc(kDataBytes)), kDataBytes,
                                   1, this, nullptr, write, mCanSeek ? seek : nullptr));
    av_log_set_level(AV_LOG_QUIET);
    AVFormatContext* film = nullptr;
    check(avformat_alloc_output_context2(&film, nullptr, spec.format.container.c_str(), nullptr),
          "cannot make a film");
    mFilm.reset(film);
    mFilm->pb = mData.get();
    // The sound encoder's priming samples lie before time 0; without this, libavformat would move
    // the pictures for them.
    mFilm->avoid_negative_ts = 0;
}

FilmWriter::~FilmWriter() {
    if (mOpen) {
        av_write_trailer(mFilm.get());
    }
}

int FilmWriter::write(void* self, uint8_t* data, int bytes) {
    auto& out = static_cast<FilmWriter*>(self)->mOut;
    out.write(reinterpret_cast<const char*>(data), bytes);
    return out.flush() ? bytes : AVERROR(EIO);
}

int64_t FilmWriter::seek(void* self, int64_t offset, int whence) {
    auto& out = static_cast<FilmWriter*>(self)->mOut;
    if (whence != SEEK_SET && whence != SEEK_CUR && whence != SEEK_END) {
        return AVERROR(EINVAL);
    }
    const auto from = whence == SEEK_SET   ? std::ios::beg
                      : whence == SEEK_CUR ? std::ios::cur
                                           : std::ios::end;
    return out.seekp(offset, from) ? static_cast<int64_t>(out.tellp()) : AVERROR(EIO);
}

FilmWriter::Track FilmWriter::addTrack(const std::string& name,
                                       const std::function<void(AVCodecContext*)>& set) {
    const AVCodec* encoder = avcodec_find_encoder_by_name(name.c_str());
    Track track{CodecPtr(avcodec_alloc_context3(encoder)), nullptr};
    set(track.codec.get());
    track.codec->thread_count = mSpec.threads ? 0 : 1;
    if ((mFilm->oformat->flags & AVFMT_GLOBALHEADER) != 0) {
        track.codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    check(avcodec_open2(track.codec.get(), encoder, nullptr), name + " does not take the film");
    track.stream = avformat_new_stream(mFilm.get(), nullptr);
    track.stream->time_base = track.codec->time_base;
    track.stream->avg_frame_rate = track.codec->framerate;
    check(avcodec_parameters_from_context(track.stream->codecpar, track.codec.get()),
          "cannot describe the film");
    return track;
}

void FilmWriter::open(const AVFrame& first) {
    mVideo = addTrack(mSpec.format.video, [&](AVCodecContext* codec) {
        codec->width = first.width;
        codec->height = first.height;
        codec->pix_fmt = static_cast<AVPixelFormat>(first.format);
        codec->time_base = av_inv_q(mSpec.pictureRate);
        codec->framerate = mSpec.pictureRate;
        codec->sample_aspect_ratio = first.sample_aspect_ratio;
        codec->color_range = first.color_range;
        codec->colorspace = first.colorspace;
        codec->color_primaries = first.color_primaries;
        codec->color_trc = first.color_trc;
        codec->gop_size = std::max(static_cast<int>(av_q2d(mSpec.pictureRate) / 2), 1);
        codec->max_b_frames = 0;
        setEncoder(codec, mSpec.format.video);
    });
    mVideo.stream->sample_aspect_ratio = first.sample_aspect_ratio;
    if (mSpec.withSound) {
        mAudio = addTrack(mSpec.format.audio, [&](AVCodecContext* codec) {
            const AVSampleFormat* formats = codec->codec->sample_fmts;
            codec->sample_fmt = AV_SAMPLE_FMT_FLTP;
            for (; *formats != AV_SAMPLE_FMT_NONE; ++formats) {
                codec->sample_fmt =
                    *formats == AV_SAMPLE_FMT_FLT ? AV_SAMPLE_FMT_FLT : codec->sample_fmt;
            }
            codec->sample_rate = kSoundHz;
            codec->time_base = AVRational{1, kSoundHz};
            codec->ch_layout = AV_CHANNEL_LAYOUT_STEREO;
            codec->bit_rate = kSoundBitRate;
        });
    }
    AVDictionary* options = nullptr;
    if (!mCanSeek) {
        av_dict_set(&options, "movflags", "frag_keyframe+empty_moov", 0);
    }
    const int result = avformat_write_header(mFilm.get(), &options);
    av_dict_free(&options);
    check(result, "cannot begin the film");
    // libavformat 59 tells WebM's readers to skip Opus's priming samples, but does not write them.
    mSamplesEncoded =
        mAudio.codec && mSpec.format.audio == "libopus" ? mAudio.codec->initial_padding : 0;
    mOpen = true;
}

void FilmWriter::encode(const Track& track, const AVFrame* frame) {
    check(avcodec_send_frame(track.codec.get(), frame), "cannot encode");
    for (;;) {
        const int result = avcodec_receive_packet(track.codec.get(), mPacket.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
            return;
        }
        check(result, "cannot encode");
        if (mPacket->duration == 0 && track.codec->codec_type == AVMEDIA_TYPE_VIDEO) {
            mPacket->duration = 1;
        }
        av_packet_rescale_ts(mPacket.get(), track.codec->time_base, track.stream->time_base);
        mPacket->stream_index = track.stream->index;
        check(av_interleaved_write_frame(mFilm.get(), mPacket.get()), "cannot write");
    }
}

void FilmWriter::addPicture(AVFrame* picture, int64_t number) {
    if (!mOpen) {
        open(*picture);
    }
    picture->pts = number;
    picture->pict_type = AV_PICTURE_TYPE_NONE;
    encode(mVideo, picture);
}

void FilmWriter::addSound(const std::vector<float>& interleaved) {
    mSamples.insert(mSamples.end(), interleaved.begin(), interleaved.end());
    encodeSound(false);
}

/// Encodes whole frames, and the rest at the end.
void FilmWriter::encodeSound(bool last) {
    const int wanted = mAudio.codec->frame_size > 0 ? mAudio.codec->frame_size : 1024;
    size_t used = 0;
    const auto left = [&] { return static_cast<int>((mSamples.size() - used) / kSoundChannels); };
    while (left() >= wanted || (last && left() > 0)) {
        const FramePtr frame(av_frame_alloc());
        frame->nb_samples = std::min(left(), wanted);
        frame->format = mAudio.codec->sample_fmt;
        frame->sample_rate = kSoundHz;
        frame->ch_layout = mAudio.codec->ch_layout;
        check(av_frame_get_buffer(frame.get(), 0), "cannot encode");
        const bool planar = frame->format == AV_SAMPLE_FMT_FLTP;
        for (int i = 0; i < frame->nb_samples * kSoundChannels; ++i) {
            const int plane = planar ? i % kSoundChannels : 0;
            const int at = planar ? i / kSoundChannels : i;
            reinterpret_cast<float*>(frame->data[plane])[at] = mSamples[used++];
        }
        frame->pts = mSamplesEncoded;
        mSamplesEncoded += frame->nb_samples;
        encode(mAudio, frame.get());
    }
    mSamples.erase(mSamples.begin(), mSamples.begin() + static_cast<ptrdiff_t>(used));
}

void FilmWriter::finish() {
    if (!mOpen) {
        return;
    }
    mOpen = false;
    encode(mVideo, nullptr);
    if (mAudio.codec) {
        encodeSound(true);
        encode(mAudio, nullptr);
    }
    check(av_write_trailer(mFilm.get()), "cannot write");
    avio_flush(mData.get());
    check(mData->error, "cannot write");
}

}  // namespace korvane::player
