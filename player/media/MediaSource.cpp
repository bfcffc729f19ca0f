// SPDX-License-Identifier: Apache-2.0
#include "player/media/MediaSource.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
#include <libavutil/parseutils.h>
}

#include "tv/clock/VirtualTime.h"

namespace korvane::player {
namespace {

constexpr AVRational kMicroseconds{1, AV_TIME_BASE};
/// A file that ends this much before its header's duration breaks off. Containers round their
/// durations, and streams of one file end apart by less than this.
constexpr int64_t kBreakOffToleranceUs = 500'000;
/// The same for a stream that is told its own end: one frame may come without a duration.
constexpr int64_t kStreamToleranceUs = 100'000;
/// Without a frame rate in the file, a missing timestamp counts on by this.
constexpr int64_t kDefaultFrameUs = 40'000;
/// How much further back a seek starts that found no picture at or before its target; doubled each
/// time.
constexpr int64_t kSeekBackUs = 1'000'000;

template <typename T, void (*release)(T**)>
struct Release {
    void operator()(T* object) const { release(&object); }
};
using FormatPtr = std::unique_ptr<AVFormatContext, Release<AVFormatContext, avformat_close_input>>;
using CodecPtr = std::unique_ptr<AVCodecContext, Release<AVCodecContext, avcodec_free_context>>;
using FramePtr = std::unique_ptr<AVFrame, Release<AVFrame, av_frame_free>>;
using PacketPtr = std::unique_ptr<AVPacket, Release<AVPacket, av_packet_free>>;

std::string errorText(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(error, text, sizeof text);
    return text;
}

/// What FFmpeg would report in its own words, or not at all, is said here plainly.
void checkIsFile(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        const std::string reason = std::generic_category().message(errno);
        throw InputError("cannot open '" + path + "': " + reason + "; give an existing media file");
    }
    if (S_ISDIR(status.st_mode)) {
        throw InputError("'" + path + "' is a directory; give a media file");
    }
    // Video and audio are read by two readers, and both begin at the beginning.
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)) {
        throw InputError("'" + path + "' is " + (S_ISFIFO(status.st_mode) ? "a pipe" : "no file") +
                         ", which cannot be played; give a file");
    }
    if (access(path.c_str(), R_OK) != 0) {
        throw InputError("'" + path + "' may not be read (" +
                         std::generic_category().message(errno) +
                         "); give a file that you may read");
    }
    if (S_ISREG(status.st_mode) && status.st_size == 0) {
        throw InputError("'" + path + "' is empty; give a media file, or fetch this one again");
    }
}

FormatPtr openFormat(const std::string& path) {
    av_log_set_level(AV_LOG_QUIET);
    checkIsFile(path);
    // Only the file itself: a playlist must not make the player fetch anything.
    AVDictionary* options = nullptr;
    av_dict_set(&options, "protocol_whitelist", "file", 0);
    AVFormatContext* opened = nullptr;
    int result = avformat_open_input(&opened, ("file:" + path).c_str(), nullptr, &options);
    av_dict_free(&options);
    FormatPtr format(opened);
    // FFmpeg's demuxer for text-mode pictures takes any text file by its name.
    if (result >= 0 && std::strcmp(format->iformat->name, "tty") == 0) {
        result = AVERROR_INVALIDDATA;
    }
    if (result >= 0) {
        result = avformat_find_stream_info(format.get(), nullptr);
    }
    if (result < 0) {
        throw InputError("'" + path +
                         "' is no media file that can be played, or is cut off before "
                         "its index (" +
                         errorText(result) + "); give a whole media file");
    }
    return format;
}

int findStream(AVFormatContext& format, AVMediaType type) {
    const int index = av_find_best_stream(&format, type, -1, -1, nullptr, 0);
    if (index < 0) {
        return -1;
    }
    // The cover picture of a song is no video.
    const bool cover = (format.streams[index]->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
    return cover ? -1 : index;
}

/// A file being read packet by packet, on the media time line that starts at 0.
struct Demuxer {
    explicit Demuxer(const std::string& path)
        : format(openFormat(path)), packet(av_packet_alloc()) {
        startUs = format->start_time == AV_NOPTS_VALUE ? 0 : format->start_time;
    }

    int64_t toMediaUs(int64_t timestamp, const AVStream& stream) const {
        return av_rescale_q(timestamp, stream.time_base, kMicroseconds) - startUs;
    }

    /// Reads the next packet of any stream.
    ReadStatus read() {
        av_packet_unref(packet.get());
        const int result = av_read_frame(format.get(), packet.get());
        if (result == AVERROR_EOF) {
            return endsEarly() ? ReadStatus::BrokenOff : ReadStatus::End;
        }
        if (result < 0) {
            return ReadStatus::BrokenOff;
        }
        const AVStream& stream = *format->streams[packet->stream_index];
        if (packet->pts != AV_NOPTS_VALUE) {
            reachedUs = std::max(reachedUs, toMediaUs(packet->pts + packet->duration, stream));
        }
        return ReadStatus::Ready;
    }

    bool endsEarly() const {
        const bool guessed = format->duration_estimation_method == AVFMT_DURATION_FROM_BITRATE;
        // Some containers count the duration from 0, others from the file's start.
        const int64_t endUs = reachedUs + std::max<int64_t>(startUs, 0);
        const bool early =
            !guessed && format->duration > 0 && endUs + kBreakOffToleranceUs < format->duration;
        return early || indexGoesOn();
    }

    /// The index tells of data after the file's end.
    bool indexGoesOn() const {
        const int64_t bytes = avio_size(format->pb);
        for (unsigned i = 0; bytes > 0 && i < format->nb_streams; ++i) {
            AVStream* stream = format->streams[i];
            const AVIndexEntry* last =
                avformat_index_get_entry(stream, avformat_index_get_entries_count(stream) - 1);
            if (last != nullptr && last->pos + last->size > bytes) {
                return true;
            }
        }
        return false;
    }

    bool seek(int stream, int64_t mediaUs) {
        const AVRational timeBase = format->streams[stream]->time_base;
        const int64_t target = av_rescale_q(mediaUs + startUs, kMicroseconds, timeBase);
        return av_seek_frame(format.get(), stream, target, AVSEEK_FLAG_BACKWARD) >= 0;
    }

    FormatPtr format;
    PacketPtr packet;
    int64_t startUs = 0;
    int64_t reachedUs = 0;
};

/// The timestamp at which a stream ends, as Matroska tells in a tag, "00:00:12.021000000"; 0: it
/// does not.
int64_t toldEndUs(const AVStream& stream) {
    const AVDictionaryEntry* tag = av_dict_get(stream.metadata, "DURATION", nullptr, 0);
    int64_t us = 0;
    return tag != nullptr && av_parse_time(&us, tag->value, 1) >= 0 ? us : 0;
}

CodecPtr openDecoder(const std::string& path, const AVStream& stream) {
    const char* name = avcodec_get_name(stream.codecpar->codec_id);
    const AVCodec* decoder = avcodec_find_decoder(stream.codecpar->codec_id);
    CodecPtr codec(decoder == nullptr ? nullptr : avcodec_alloc_context3(decoder));
    if (!codec || avcodec_parameters_to_context(codec.get(), stream.codecpar) < 0) {
        throw InputError(
            "'" + path + "' holds " + name +
            " video, which this FFmpeg cannot decode; convert it, for example to H.264");
    }
    // In real time as many as there are cores. In virtual time more would gain nothing, and their
    // number would change the order of all threads, so that a run would depend on the machine.
    codec->thread_count = tv::VirtualTime::active() ? 1 : 0;
    codec->pkt_timebase = stream.time_base;
    const int result = avcodec_open2(codec.get(), decoder, nullptr);
    if (result < 0) {
        throw InputError("cannot decode the " + std::string(name) + " video of '" + path + "' (" +
                         errorText(result) + "); the file may be damaged, try another one");
    }
    return codec;
}

}  // namespace

struct VideoReader::Impl {
    explicit Impl(const std::string& path) : demuxer(path), picture(av_frame_alloc()) {
        streamIndex = findStream(*demuxer.format, AVMEDIA_TYPE_VIDEO);
        if (streamIndex < 0) {
            throw InputError("'" + path + "' holds no video; give a file with a video stream");
        }
        codec = openDecoder(path, stream());
        describe(path);
        decodedAhead = decodeNext();
        if (*decodedAhead != ReadStatus::Ready) {
            throw InputError("'" + path + "' holds no " + info.videoCodec +
                             " picture that can be decoded; the file may be damaged, try another "
                             "one");
        }
    }

    AVStream& stream() const { return *demuxer.format->streams[streamIndex]; }

    void describe(const std::string& path) {
        AVFormatContext* format = demuxer.format.get();
        const AVRational frameRate = av_guess_frame_rate(format, &stream(), nullptr);
        info.path = path;
        info.container = format->iformat->name;
        info.videoCodec = avcodec_get_name(stream().codecpar->codec_id);
        info.width = stream().codecpar->width;
        info.height = stream().codecpar->height;
        info.frameRateHz = frameRate.num > 0 && frameRate.den > 0 ? av_q2d(frameRate) : 0.0;
        info.durationUs = format->duration > 0 ? format->duration : -1;
        frameUs =
            info.frameRateHz > 0.0 ? static_cast<int64_t>(1e6 / info.frameRateHz) : kDefaultFrameUs;
        const int audio = findStream(*format, AVMEDIA_TYPE_AUDIO);
        info.hasAudio = audio >= 0;
        if (info.hasAudio) {
            info.audioCodec = avcodec_get_name(format->streams[audio]->codecpar->codec_id);
        }
    }

    /// Hands the decoder one more packet of the stream, or the end.
    void feedDecoder() {
        ReadStatus status = ReadStatus::Ready;
        do {
            status = demuxer.read();
        } while (status == ReadStatus::Ready && demuxer.packet->stream_index != streamIndex);
        if (status != ReadStatus::Ready) {
            const bool early =
                reachedUs + kStreamToleranceUs < toldEndUs(stream()) - demuxer.startUs;
            ended = early ? ReadStatus::BrokenOff : status;
            avcodec_send_packet(codec.get(), nullptr);
            return;
        }
        const AVPacket& packet = *demuxer.packet;
        if (packet.pts != AV_NOPTS_VALUE) {
            reachedUs =
                std::max(reachedUs, demuxer.toMediaUs(packet.pts + packet.duration, stream()));
        }
        const bool damaged = (packet.flags & AV_PKT_FLAG_CORRUPT) != 0;
        if (avcodec_send_packet(codec.get(), &packet) < 0 || damaged) {
            ++decodeErrors;
        }
    }

    ReadStatus decodeNext() {
        if (decodedAhead) {
            return *std::exchange(decodedAhead, std::nullopt);
        }
        for (;;) {
            const int result = avcodec_receive_frame(codec.get(), picture.get());
            if (result >= 0) {
                takeTime();
                return ReadStatus::Ready;
            }
            if (result == AVERROR_EOF) {
                return ended;
            }
            if (result != AVERROR(EAGAIN)) {
                ++decodeErrors;
            }
            if (ended != ReadStatus::Ready) {
                return ended;
            }
            feedDecoder();
        }
    }

    /// The picture's time; one that is missing or does not advance counts on from the last.
    void takeTime() {
        const int64_t timestamp = picture->best_effort_timestamp;
        int64_t us =
            timestamp == AV_NOPTS_VALUE ? lastUs + frameUs : demuxer.toMediaUs(timestamp, stream());
        if (haveLast && us <= lastUs) {
            us = lastUs + frameUs;
        }
        lastUs = us;
        haveLast = true;
    }

    /// Starts at a key frame at or before the target, so that the decoder has all that it needs
    /// for it. A container without an index leads to a packet of about that time, and the next key
    /// frame may come after the target: then the search begins further back, up to before the
    /// file's start, as packets are sorted by decoding time, which is earlier.
    bool seek(int64_t mediaUs) {
        const int64_t errorsBefore = decodeErrors;
        bool found = false;
        for (int64_t backUs = 0; !found; backUs = std::max(2 * backUs, kSeekBackUs)) {
            const int64_t fromUs = mediaUs - backUs;
            if (!demuxer.seek(streamIndex, fromUs)) {
                return backUs > 0;  // what was found at last has to do
            }
            avcodec_flush_buffers(codec.get());
            skipBeforeUs = mediaUs;
            ended = ReadStatus::Ready;
            haveLast = false;
            decodedAhead.reset();
            decodedAhead = decodeNext();
            found =
                (*decodedAhead == ReadStatus::Ready && lastUs <= mediaUs) || fromUs <= -kSeekBackUs;
        }
        // What stands before the key frame cannot be decoded by itself; that is no damage.
        decodeErrors = errorsBefore;
        return true;
    }

    ReadStatus next() {
        ReadStatus status = ReadStatus::Ready;
        do {
            status = decodeNext();
        } while (status == ReadStatus::Ready && lastUs < skipBeforeUs);
        return status;
    }

    Demuxer demuxer;
    int streamIndex = -1;
    CodecPtr codec;
    FramePtr picture;
    MediaInfo info;
    int64_t frameUs = kDefaultFrameUs;
    int64_t reachedUs = 0;  ///< by the stream's packets
    ReadStatus ended = ReadStatus::Ready;
    std::optional<ReadStatus> decodedAhead;  ///< when opened or by a seek; the next to be told
    bool haveLast = false;
    int64_t lastUs = 0;
    int64_t skipBeforeUs = INT64_MIN;
    int64_t decodeErrors = 0;
};

VideoReader::VideoReader(const std::string& path) : mImpl(std::make_unique<Impl>(path)) {}
VideoReader::~VideoReader() = default;

const MediaInfo& VideoReader::info() const {
    return mImpl->info;
}
const AVFrame* VideoReader::picture() const {
    return mImpl->picture.get();
}
int64_t VideoReader::mediaTimeUs() const {
    return mImpl->lastUs;
}
bool VideoReader::seek(int64_t mediaTimeUs) {
    return mImpl->seek(mediaTimeUs);
}
int64_t VideoReader::decodeErrors() const {
    return mImpl->decodeErrors;
}
int64_t VideoReader::readUpToUs() const {
    return mImpl->demuxer.reachedUs;
}

ReadStatus VideoReader::next() {
    return mImpl->next();
}

struct AudioReader::Impl {
    explicit Impl(const std::string& path) : demuxer(path) {
        streamIndex = findStream(*demuxer.format, AVMEDIA_TYPE_AUDIO);
        for (unsigned i = 0; i < demuxer.format->nb_streams; ++i) {
            if (static_cast<int>(i) != streamIndex) {
                demuxer.format->streams[i]->discard = AVDISCARD_ALL;
            }
        }
    }

    ReadStatus next(AudioPacket* packet) {
        for (;;) {
            const ReadStatus status = demuxer.read();
            if (status != ReadStatus::Ready) {
                return status;
            }
            const AVPacket& read = *demuxer.packet;
            if (read.stream_index != streamIndex) {
                continue;
            }
            const AVStream& stream = *demuxer.format->streams[streamIndex];
            const int64_t durationUs = av_rescale_q(read.duration, stream.time_base, kMicroseconds);
            const int64_t us =
                read.pts == AV_NOPTS_VALUE ? nextUs : demuxer.toMediaUs(read.pts, stream);
            nextUs = us + durationUs;
            // What ends before the start is the encoder's run-up, never heard.
            if (durationUs > 0 && nextUs > skipBeforeUs) {
                *packet = {us, durationUs};
                return ReadStatus::Ready;
            }
        }
    }

    Demuxer demuxer;
    int streamIndex = -1;
    int64_t nextUs = 0;
    int64_t skipBeforeUs = 0;
};

AudioReader::AudioReader(const std::string& path) : mImpl(std::make_unique<Impl>(path)) {}
AudioReader::~AudioReader() = default;

ReadStatus AudioReader::next(AudioPacket* packet) {
    return mImpl->next(packet);
}

void AudioReader::seek(int64_t mediaTimeUs) {
    mImpl->demuxer.seek(mImpl->streamIndex, mediaTimeUs);
    mImpl->skipBeforeUs = mediaTimeUs;
}

std::string ffmpegVersions() {
    const auto text = [](const char* name, unsigned version) {
        return std::string(name) + " " + std::to_string(AV_VERSION_MAJOR(version)) + "." +
               std::to_string(AV_VERSION_MINOR(version)) + "." +
               std::to_string(AV_VERSION_MICRO(version));
    };
    return text("libavformat", avformat_version()) + ", " + text("libavcodec", avcodec_version()) +
           ", " + text("libavutil", avutil_version());
}

}  // namespace korvane::player
