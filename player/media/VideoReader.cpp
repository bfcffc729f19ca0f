// SPDX-License-Identifier: Apache-2.0
#include "player/media/VideoReader.h"

#include <algorithm>
#include <optional>
#include <utility>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/parseutils.h>
}

#include "player/base/Errors.h"
#include "player/base/Units.h"
#include "player/media/AudioReader.h"
#include "player/media/Demuxer.h"
#include "player/media/MediaDescription.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::player {
namespace {

/// How much earlier than announced a stream may end: one frame may lack a duration.
constexpr int64_t kStreamToleranceUs = 100'000;
/// Without a frame rate in the file, a missing timestamp counts on by this.
constexpr int64_t kDefaultFrameUs = 40'000;
/// How much further back a seek starts that found no picture at or before its target; doubled each
/// time.
constexpr int64_t kSeekBackUs = 1'000'000;
/// Changes on the way that are kept for the report.
constexpr size_t kKeptChanges = 100;

/// The timestamp at which a stream ends, as Matroska tells in a tag, "00:00:12.021000000"; 0: it
/// does not.
int64_t toldEndUs(const AVStream& stream) {
    const AVDictionaryEntry* tag = av_dict_get(stream.metadata, "DURATION", nullptr, 0);
    int64_t us = 0;
    return tag != nullptr && av_parse_time(&us, tag->value, 1) >= 0 ? us : 0;
}

CodecPtr openDecoder(const std::string& path, const AVCodecParameters& parameters,
                     AVRational timeBase) {
    const char* name = avcodec_get_name(parameters.codec_id);
    const AVCodec* decoder = avcodec_find_decoder(parameters.codec_id);
    CodecPtr codec(decoder == nullptr ? nullptr : avcodec_alloc_context3(decoder));
    if (!codec || avcodec_parameters_to_context(codec.get(), &parameters) < 0) {
        throw InputError(
            "'" + path + "' holds " + name +
            " video, which this FFmpeg cannot decode; convert it, for example to H.264");
    }
    // In real time as many as there are cores. In virtual time more would gain nothing, and their
    // number would change the order of all threads, so that a run would depend on the machine.
    codec->thread_count = tv::VirtualTime::active() ? 1 : 0;
    codec->pkt_timebase = timeBase;
    const int result = avcodec_open2(codec.get(), decoder, nullptr);
    if (result < 0) {
        throw InputError("cannot decode the " + std::string(name) + " video of '" + path + "' (" +
                         errorText(result) + "); the file may be damaged, try another one");
    }
    return codec;
}

std::string sizeOf(int width, int height) {
    return std::to_string(width) + "x" + std::to_string(height);
}

}  // namespace

struct VideoReader::Impl {
    explicit Impl(const MediaRequest& asked)
        : request(asked),
          demuxer(std::make_shared<Demuxer>(asked)),
          choice(chooseStreams(demuxer->format(), asked)),
          stream(demuxer->stream(choice.video)),
          picture(av_frame_alloc()),
          packet(av_packet_alloc()),
          ahead(av_packet_alloc()),
          decoded(choice.video) {
        info = describeMedia(demuxer->format(), asked, choice);
        info.canSeek = demuxer->canSeek();
        toldDurationUs = info.durationUs;
        frameUs =
            info.frameRateHz > 0.0 ? static_cast<int64_t>(1e6 / info.frameRateHz) : kDefaultFrameUs;
        knownStreams = demuxer->streams();
        codec = openDecoder(asked.name, *stream.codecpar, stream.time_base);
        demuxer->follow(choice.video, choice.audio);
        demuxer->keep(choice.video, false);
        if (info.audioStream >= 0 && !info.canSeek) {
            demuxer->keep(choice.audio, asked.sound == nullptr);
        }
        decodedAhead = decodeNext();
        if (*decodedAhead != ReadStatus::Ready) {
            throw InputError("'" + asked.name + "' holds no " + info.videoCodec +
                             " picture that can be decoded; the file may be damaged, try another "
                             "one");
        }
        // If pictures begin late, FFmpeg finds nothing about them while it opens the input.
        info.width = picture->width;
        info.height = picture->height;
        info.pictureBytes = av_image_get_buffer_size(static_cast<AVPixelFormat>(picture->format),
                                                     picture->width, picture->height, 32);
    }

    /// Hands the decoder one more packet of the stream, or the end.
    void feedDecoder() {
        const ReadStatus status = demuxer->read(choice.video, packet.get());
        if (status != ReadStatus::Ready) {
            const bool early =
                reachedUs + kStreamToleranceUs < toldEndUs(stream) - demuxer->startUs();
            ended = early ? ReadStatus::BrokenOff : status;
            avcodec_send_packet(codec.get(), nullptr);
            if (!demuxer->splices().empty()) {
                info.durationUs = demuxer->reachedUs();
            }
            noteSuccessors();
            return;
        }
        if (packet->stream_index != decoded) {
            // Drains the old decoder first.
            av_packet_move_ref(ahead.get(), packet.get());
            avcodec_send_packet(codec.get(), nullptr);
            return;
        }
        sendPacket();
    }

    void sendPacket() {
        if (packet->pts != AV_NOPTS_VALUE) {
            const int64_t endUs =
                demuxer->toMediaUs(packet->pts + packet->duration, stream.time_base);
            reachedUs = std::max(reachedUs, endUs);
        }
        const bool damaged = (packet->flags & AV_PKT_FLAG_CORRUPT) != 0;
        if (avcodec_send_packet(codec.get(), packet.get()) < 0 || damaged) {
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
            if (result == AVERROR_EOF && (ahead->size == 0 || !changeDecoder())) {
                return ended;
            }
            if (result != AVERROR(EAGAIN) && result != AVERROR_EOF) {
                ++decodeErrors;
            }
            if (ended != ReadStatus::Ready) {
                return ended;
            }
            feedDecoder();
        }
    }

    /// Goes on with the packet of another stream.
    /// @return false when that cannot be decoded
    bool changeDecoder() {
        decoded = ahead->stream_index;
        av_packet_move_ref(packet.get(), ahead.get());
        try {
            codec = openDecoder(request.name, demuxer->parameters(decoded), stream.time_base);
        } catch (const InputError& error) {
            noteChange(lastUs, error.what());
            ended = ReadStatus::BrokenOff;
            cutOff = true;
            return false;
        }
        sendPacket();
        return true;
    }

    /// The picture's time; one that is missing or does not advance counts on from the last.
    void takeTime() {
        const int64_t timestamp = picture->best_effort_timestamp;
        int64_t us = timestamp == AV_NOPTS_VALUE ? lastUs + frameUs
                                                 : demuxer->toMediaUs(timestamp, stream.time_base);
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
        if (!info.canSeek) {
            return false;
        }
        const int64_t errorsBefore = decodeErrors;
        bool found = false;
        for (int64_t backUs = 0; !found; backUs = std::max(2 * backUs, kSeekBackUs)) {
            const int64_t fromUs = mediaUs - backUs;
            if (!demuxer->seek(choice.video, fromUs)) {
                return backUs > 0;  // what was found last must do
            }
            avcodec_flush_buffers(codec.get());
            skipBeforeUs = mediaUs;
            ended = ReadStatus::Ready;
            haveLast = false;
            sought = true;
            passedSplices = 0;
            av_packet_unref(ahead.get());
            cutOff = false;
            lastUs = demuxer->hasTimes() ? lastUs : 0;
            decodedAhead.reset();
            decodedAhead = decodeNext();
            found =
                (*decodedAhead == ReadStatus::Ready && lastUs <= mediaUs) || fromUs <= -kSeekBackUs;
        }
        // Pictures before the key frame cannot be decoded; that is no damage.
        decodeErrors = errorsBefore;
        return true;
    }

    ReadStatus next() {
        ReadStatus status = ReadStatus::Ready;
        do {
            status = decodeNext();
        } while (status == ReadStatus::Ready && lastUs < skipBeforeUs);
        if (status == ReadStatus::Ready) {
            look();
        }
        return status;
    }

    /// Notes properties that only the pictures have.
    void look() {
        info.interlacedPictures += picture->interlaced_frame != 0 ? 1 : 0;
        info.repeatedFields += picture->repeat_pict > 0 ? 1 : 0;
        if (picture->width != width || picture->height != height) {
            if (width != 0) {
                noteChange(lastUs, sizeOf(width, height) + " becomes " +
                                       sizeOf(picture->width, picture->height));
            }
            width = picture->width;
            height = picture->height;
        }
        lookForSplices();
        lookForSuccessions();
        const int streams = demuxer->streams();
        if (streams > knownStreams) {
            noteChange(lastUs, "the input brings " + std::to_string(streams - knownStreams) +
                                   " more streams");
            knownStreams = streams;
        }
    }

    /// After a seek back a splice comes again.
    void lookForSplices() {
        const auto splices = demuxer->splices();
        const size_t before = passedSplices;
        while (passedSplices < splices.size() && splices[passedSplices].pictureUs >= 0 &&
               splices[passedSplices].pictureUs <= lastUs) {
            ++passedSplices;
        }
        const bool first = std::exchange(sought, false);
        followsSplice = passedSplices > before && !first;
        for (const Splice& splice : splices) {
            const auto known = [&](const MediaChange& change) {
                return change.splice && change.mediaTimeUs == splice.atUs;
            };
            if (splice.atUs <= lastUs &&
                std::none_of(info.changes.begin(), info.changes.end(), known)) {
                noteChange(splice.atUs, describe(splice), true);
                // FFmpeg would use the last part's times for the whole.
                info.durationUs =
                    toldDurationUs > 0 ? std::max(toldDurationUs + splice.shiftUs, lastUs) : -1;
            }
        }
    }

    void lookForSuccessions() {
        for (const auto& succession : demuxer->successions()) {
            const std::string what = "stream #" + std::to_string(succession.stream) +
                                     " goes on as #" + std::to_string(succession.as) + " (" +
                                     avcodec_get_name(demuxer->parameters(succession.as).codec_id) +
                                     ")";
            const auto known = [&](const MediaChange& change) { return change.what == what; };
            if (succession.atUs <= lastUs &&
                std::none_of(info.changes.begin(), info.changes.end(), known)) {
                noteChange(succession.atUs, what);
            }
        }
    }

    /// Reports a stream that continues under a number that was not taken. If it is the video, the
    /// film was not played to its end.
    void noteSuccessors() {
        for (const int taken : {info.videoStream, info.audioStream}) {
            const auto successor = demuxer->successorOf(taken);
            if (successor.stream >= 0) {
                noteChange(successor.fromUs, "stream #" + std::to_string(taken) + " goes on as #" +
                                                 std::to_string(successor.stream) +
                                                 ", which was not taken");
                cutOff = cutOff || taken == info.videoStream;
                ended = cutOff ? ReadStatus::BrokenOff : ended;
            }
        }
    }

    void noteChange(int64_t mediaTimeUs, const std::string& what, bool splice = false) {
        if (info.changes.size() < kKeptChanges) {
            info.changes.push_back({mediaTimeUs, what, splice});
        }
    }

    const MediaRequest request;
    const std::shared_ptr<Demuxer> demuxer;
    const StreamChoice choice;
    const AVStream& stream;
    CodecPtr codec;
    FramePtr picture;
    PacketPtr packet;
    PacketPtr ahead;      ///< of the stream that goes on, while the old decoder is drained
    int decoded;          ///< index of the stream whose packets the decoder takes
    bool cutOff = false;  ///< the input goes on, but cannot be played
    MediaInfo info;
    int64_t frameUs = kDefaultFrameUs;
    int64_t reachedUs = 0;  ///< by the stream's packets
    ReadStatus ended = ReadStatus::Ready;
    std::optional<ReadStatus> decodedAhead;  ///< when opened or by a seek; `next` returns it first
    bool haveLast = false;
    int64_t lastUs = 0;
    int64_t skipBeforeUs = INT64_MIN;
    int64_t decodeErrors = 0;
    int64_t toldDurationUs = -1;  ///< by FFmpeg
    bool followsSplice = false;   ///< of the picture, as the interface says
    size_t passedSplices = 0;     ///< by the picture
    bool sought = false;          ///< the picture comes after a seek
    int width = 0;                ///< of the picture before
    int height = 0;
    int knownStreams = 0;
};

VideoReader::VideoReader(const MediaRequest& request) : mImpl(std::make_unique<Impl>(request)) {}
VideoReader::~VideoReader() = default;

std::unique_ptr<PacketSource> VideoReader::openAudio() const {
    if (mImpl->info.audioStream < 0) {
        return nullptr;
    }
    auto demuxer = mImpl->demuxer;
    if (mImpl->info.canSeek) {
        demuxer = std::make_shared<Demuxer>(mImpl->request);
        demuxer->follow(mImpl->choice.video, mImpl->choice.audio);
        demuxer->keepOnly(mImpl->choice.audio, mImpl->request.sound == nullptr);
    }
    return std::make_unique<AudioReader>(demuxer, mImpl->choice.audio, mImpl->request.sound);
}

const MediaInfo& VideoReader::info() const {
    return mImpl->info;
}
const AVFrame* VideoReader::picture() const {
    return mImpl->picture.get();
}
int64_t VideoReader::mediaTimeUs() const {
    return mImpl->lastUs;
}
bool VideoReader::followsSplice() const {
    return mImpl->followsSplice;
}
bool VideoReader::seek(int64_t mediaTimeUs) {
    return mImpl->seek(mediaTimeUs);
}
int64_t VideoReader::decodeErrors() const {
    return mImpl->decodeErrors;
}
int64_t VideoReader::readUpToUs() const {
    return mImpl->cutOff ? mImpl->reachedUs : mImpl->demuxer->reachedUs();
}

ReadStatus VideoReader::next() {
    return mImpl->next();
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
