// SPDX-License-Identifier: Apache-2.0
#include "player/screen/PngWriter.h"

#include <ostream>
#include <stdexcept>

extern "C" {
#include <libswscale/swscale.h>
}

namespace korvane::player {
namespace {

struct FreePngScaler {
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};

FramePtr toRgb(const AVFrame& picture, AVColorSpace colours) {
    FramePtr rgb(av_frame_alloc());
    rgb->width = picture.width;
    rgb->height = picture.height;
    rgb->format = AV_PIX_FMT_RGB24;
    const std::unique_ptr<SwsContext, FreePngScaler> scaler(
        sws_getContext(picture.width, picture.height, AV_PIX_FMT_YUV420P, picture.width,
                       picture.height, AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (!scaler || av_frame_get_buffer(rgb.get(), 0) < 0) {
        throw std::runtime_error("cannot convert a picture to PNG");
    }
    constexpr int kOne = 1 << 16;
    sws_setColorspaceDetails(scaler.get(), sws_getCoefficients(colours), 0,
                             sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, kOne, kOne);
    sws_scale(scaler.get(), picture.data, picture.linesize, 0, picture.height, rgb->data,
              rgb->linesize);
    return rgb;
}

}  // namespace

void writePng(const Canvas& canvas, AVColorSpace colours, std::ostream* out) {
    const FramePtr rgb = toRgb(canvas.frame(), colours);
    const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_PNG);
    const CodecPtr codec(encoder != nullptr ? avcodec_alloc_context3(encoder) : nullptr);
    const PacketPtr packet(av_packet_alloc());
    if (codec) {
        codec->width = rgb->width;
        codec->height = rgb->height;
        codec->pix_fmt = AV_PIX_FMT_RGB24;
        codec->time_base = AVRational{1, 1};
        codec->thread_count = 1;
    }
    if (!codec || avcodec_open2(codec.get(), encoder, nullptr) < 0 ||
        avcodec_send_frame(codec.get(), rgb.get()) < 0 ||
        avcodec_send_frame(codec.get(), nullptr) < 0 ||
        avcodec_receive_packet(codec.get(), packet.get()) < 0) {
        throw std::runtime_error("this FFmpeg cannot write PNG");
    }
    out->write(reinterpret_cast<const char*>(packet->data), packet->size);
}

}  // namespace korvane::player
