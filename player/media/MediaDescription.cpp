// SPDX-License-Identifier: Apache-2.0
#include "player/media/MediaDescription.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "player/base/Errors.h"
#include "player/base/Units.h"

extern "C" {
#include <libavutil/display.h>
#include <libavutil/pixdesc.h>
}

namespace korvane::player {
namespace {

bool isCover(const AVStream& stream) {
    return (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
}

bool isPlayable(const AVStream& stream, AVMediaType type) {
    return stream.codecpar->codec_type == type && !isCover(stream);
}

const AVProgram* programNumbered(const AVFormatContext& format, int number) {
    for (unsigned i = 0; i < format.nb_programs; ++i) {
        if (format.programs[i]->id == number) {
            return format.programs[i];
        }
    }
    return nullptr;
}

bool holds(const AVProgram& program, int stream) {
    const unsigned* begin = program.stream_index;
    const unsigned* end = begin + program.nb_stream_indexes;
    return std::find(begin, end, static_cast<unsigned>(stream)) != end;
}

/// A stream whose program is not the one asked for, or not the video's.
bool isOfAnother(AVFormatContext& format, const AVProgram* program, int stream) {
    const bool ofSome = av_find_program_from_stream(&format, nullptr, stream) != nullptr;
    return program != nullptr && ofSome && !holds(*program, stream);
}

int bestStream(AVFormatContext& format, AVMediaType type, const AVProgram* program, int related) {
    const int best = av_find_best_stream(&format, type, -1, related, nullptr, 0);
    if (best >= 0 && isPlayable(*format.streams[best], type) &&
        !isOfAnother(format, program, best)) {
        return best;
    }
    for (unsigned i = 0; i < format.nb_streams; ++i) {
        if (isPlayable(*format.streams[i], type) &&
            !isOfAnother(format, program, static_cast<int>(i))) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

std::string listOf(AVFormatContext& format) {
    std::string text;
    for (unsigned i = 0; i < format.nb_streams; ++i) {
        text += (i == 0 ? "" : "; ") + describeStream(format, static_cast<int>(i));
    }
    return text;
}

int askedStream(AVFormatContext& format, const MediaRequest& request, AVMediaType type, int index) {
    const bool there = index >= 0 && index < static_cast<int>(format.nb_streams) &&
                       isPlayable(*format.streams[index], type);
    if (!there) {
        throw InputError("stream " + std::to_string(index) + " of '" + request.name + "' is no " +
                         av_get_media_type_string(type) + "; it holds " + listOf(format));
    }
    return index;
}

std::string programList(const AVFormatContext& format) {
    std::string text;
    for (unsigned i = 0; i < format.nb_programs; ++i) {
        text += (i == 0 ? "" : ", ") + std::to_string(format.programs[i]->id);
    }
    return text.empty() ? "none" : text;
}

/// A file's number may be no value of the enumeration, which then must not be read as one.
template <typename Enumeration>
int numberOf(const Enumeration& value) {
    int number = 0;
    static_assert(sizeof(number) == sizeof(value));
    std::memcpy(&number, &value, sizeof(number));
    return number;
}

std::string fieldOrderOf(const AVCodecParameters& codec) {
    switch (numberOf(codec.field_order)) {
        case AV_FIELD_TT:
        case AV_FIELD_TB:
            return "top field first";
        case AV_FIELD_BB:
        case AV_FIELD_BT:
            return "bottom field first";
        default:
            return "";
    }
}

std::string transferOf(const AVCodecParameters& codec) {
    switch (numberOf(codec.color_trc)) {
        case AVCOL_TRC_SMPTE2084:
            return "PQ";
        case AVCOL_TRC_ARIB_STD_B67:
            return "HLG";
        default:
            return "";
    }
}

int bitDepthOf(const AVCodecParameters& codec) {
    const auto* format = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(codec.format));
    return format != nullptr ? format->comp[0].depth : 0;
}

/// Clockwise, 0 to 359.
int rotationOf(const AVStream& stream) {
    const auto* matrix = av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, nullptr);
    const double turned =
        matrix != nullptr ? av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix)) : 0.0;
    return std::isnan(turned) ? 0 : (static_cast<int>(std::lround(-turned)) % 360 + 360) % 360;
}

double frameRateOf(AVFormatContext& format, AVStream& stream) {
    const AVRational hz = av_guess_frame_rate(&format, &stream, nullptr);
    return hz.num > 0 && hz.den > 0 ? av_q2d(hz) : 0.0;
}

std::string describePictures(AVFormatContext& format, AVStream& stream) {
    const AVCodecParameters& codec = *stream.codecpar;
    std::string text = " " + std::to_string(codec.width) + "x" + std::to_string(codec.height);
    if (isCover(stream)) {
        return text + ", a cover picture";
    }
    if (const double hz = frameRateOf(format, stream); hz > 0.0) {
        text += ", " + rate(hz) + " fps";
    }
    if (const int bits = bitDepthOf(codec); bits > 8) {
        text += ", " + std::to_string(bits) + " bit";
    }
    if (const std::string transfer = transferOf(codec); !transfer.empty()) {
        text += ", HDR (" + transfer + ")";
    }
    if (const std::string order = fieldOrderOf(codec); !order.empty()) {
        text += ", interlaced (" + order + ")";
    }
    if (const int degrees = rotationOf(stream); degrees != 0) {
        text += ", to be turned by " + std::to_string(degrees) + " degrees";
    }
    return text;
}

}  // namespace

std::string describeStream(AVFormatContext& format, int index) {
    AVStream& stream = *format.streams[index];
    const AVCodecParameters& codec = *stream.codecpar;
    const char* type = av_get_media_type_string(codec.codec_type);
    std::string text = "#" + std::to_string(index) + " " + (type != nullptr ? type : "unknown") +
                       " " + avcodec_get_name(codec.codec_id);
    if (codec.codec_type == AVMEDIA_TYPE_VIDEO) {
        text += describePictures(format, stream);
    } else if (codec.codec_type == AVMEDIA_TYPE_AUDIO) {
        text += " " + std::to_string(codec.sample_rate) + " Hz, " +
                counted(codec.ch_layout.nb_channels, "channel");
    }
    const AVDictionaryEntry* language = av_dict_get(stream.metadata, "language", nullptr, 0);
    return text + (language != nullptr ? std::string(", ") + language->value : std::string());
}

StreamChoice chooseStreams(AVFormatContext& format, const MediaRequest& request) {
    const AVProgram* program =
        request.program ? programNumbered(format, *request.program) : nullptr;
    if (request.program && program == nullptr) {
        throw InputError("'" + request.name + "' holds no program " +
                         std::to_string(*request.program) +
                         "; its programs: " + programList(format));
    }
    StreamChoice choice;
    choice.video = request.video ? askedStream(format, request, AVMEDIA_TYPE_VIDEO, *request.video)
                                 : bestStream(format, AVMEDIA_TYPE_VIDEO, program, -1);
    if (choice.video < 0) {
        throw InputError("'" + request.name + "' holds no video" +
                         (program != nullptr ? " in this program" : "") +
                         "; give a file with a video stream; it holds " + listOf(format));
    }
    if (program == nullptr) {
        program = av_find_program_from_stream(&format, nullptr, choice.video);
    }
    choice.audio = request.audio ? askedStream(format, request, AVMEDIA_TYPE_AUDIO, *request.audio)
                                 : bestStream(format, AVMEDIA_TYPE_AUDIO, program, choice.video);
    return choice;
}

MediaInfo describeMedia(AVFormatContext& format, const MediaRequest& request,
                        const StreamChoice& choice) {
    AVStream& video = *format.streams[choice.video];
    const AVCodecParameters& codec = *video.codecpar;
    MediaInfo info;
    info.path = request.name;
    info.container = format.iformat->name;
    info.videoCodec = avcodec_get_name(codec.codec_id);
    info.width = codec.width;
    info.height = codec.height;
    info.frameRateHz = frameRateOf(format, video);
    info.durationUs = format.duration > 0 ? format.duration : -1;
    info.hasAudio = choice.audio >= 0;
    if (info.hasAudio) {
        info.audioCodec = avcodec_get_name(format.streams[choice.audio]->codecpar->codec_id);
    }
    info.videoStream = choice.video;
    info.audioStream = request.withoutAudio ? -1 : choice.audio;
    info.fieldOrder = fieldOrderOf(codec);
    info.bitDepth = bitDepthOf(codec);
    info.transfer = transferOf(codec);
    info.rotationDegrees = rotationOf(video);
    for (unsigned i = 0; i < format.nb_streams; ++i) {
        info.streams.push_back(describeStream(format, static_cast<int>(i)));
    }
    for (unsigned i = 0; i < format.nb_programs; ++i) {
        const AVProgram& program = *format.programs[i];
        info.programs.push_back({program.id, {}});
        info.programs.back().streams.assign(program.stream_index,
                                            program.stream_index + program.nb_stream_indexes);
    }
    return info;
}

}  // namespace korvane::player
