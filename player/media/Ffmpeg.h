// SPDX-License-Identifier: Apache-2.0
// FFmpeg's objects with owners. For the files that read media with it, and for no other.
#pragma once

#include <memory>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace korvane::player {

constexpr AVRational kMicroseconds{1, AV_TIME_BASE};

template <typename T, void (*release)(T**)>
struct Release {
    void operator()(T* object) const { release(&object); }
};
using FormatPtr = std::unique_ptr<AVFormatContext, Release<AVFormatContext, avformat_close_input>>;
using CodecPtr = std::unique_ptr<AVCodecContext, Release<AVCodecContext, avcodec_free_context>>;
using FramePtr = std::unique_ptr<AVFrame, Release<AVFrame, av_frame_free>>;
struct CloseFile {
    void operator()(AVIOContext* file) const { avio_close(file); }
};
using FilePtr = std::unique_ptr<AVIOContext, CloseFile>;
using ParametersPtr =
    std::unique_ptr<AVCodecParameters, Release<AVCodecParameters, avcodec_parameters_free>>;
using PacketPtr = std::unique_ptr<AVPacket, Release<AVPacket, av_packet_free>>;

/// FFmpeg's words for one of its errors.
std::string errorText(int error);

}  // namespace korvane::player
