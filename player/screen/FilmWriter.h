// SPDX-License-Identifier: Apache-2.0
// Encodes pictures and sound into a film.
//
//   name ends in   container   video, the first that FFmpeg has     audio
//   .mp4           MP4         H.264 (libx264, libopenh264),         AAC
//   .mkv           Matroska    else MPEG-4                           AAC
//   .webm          WebM        VP9, else VP8                         Opus, else Vorbis
//
// Every picture can be stepped to in both directions: a key picture at least twice a second, and
// none that needs a later one. A film on something that cannot seek, such as a pipe, is written in
// fragments where its container needs that.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "player/base/FrameRate.h"
#include "player/media/Ffmpeg.h"

namespace korvane::player {

/// What a film is made with: FFmpeg's names.
struct FilmFormat {
    std::string container;
    std::string video;
    std::string audio;
};

/// The format that a file name asks for.
/// @param available  whether FFmpeg has an encoder
/// @throws std::runtime_error with one line, if it asks for none or an encoder is missing
FilmFormat filmFormat(const std::string& path,
                      const std::function<bool(const std::string& encoder)>& available);
/// The same with the encoders that this FFmpeg has.
FilmFormat filmFormat(const std::string& path);

struct FilmSpec {
    FilmFormat format;
    AVRational pictureRate{60, 1};  ///< pictures a second, exactly
    bool withSound = false;         ///< stereo at 48 kHz
    bool threads = false;           ///< the encoders may have threads of their own
};

/// Vsyncs a second of a display, exactly; a drift is known to a millionth of a percent.
AVRational trueRate(const FrameRate& nominal, double driftPpm);

class FilmWriter {
public:
    /// @param out  outlives the writer; its owner also has to check that it took everything
    FilmWriter(const FilmSpec& spec, std::ostream* out);
    /// Ends the film, ignoring errors, unless `finish` has.
    ~FilmWriter();
    FilmWriter(const FilmWriter&) = delete;
    FilmWriter& operator=(const FilmWriter&) = delete;

    /// Adds the picture number `number`, counting from 0. The first one sets size and colour space.
    /// Changes the picture's timestamp.
    /// @throws std::runtime_error when it cannot be encoded or written
    void addPicture(AVFrame* picture, int64_t number);
    /// Adds samples after the last ones, left and right in turn. Not before the first picture.
    /// @throws std::runtime_error
    void addSound(const std::vector<float>& interleaved);
    /// Ends the film, so that it can be played. Call once.
    /// @throws std::runtime_error
    void finish();

private:
    struct Track {
        CodecPtr codec;
        AVStream* stream = nullptr;
    };
    struct CloseData {
        void operator()(AVIOContext* data) const;
    };
    struct FreeOutput {
        void operator()(AVFormatContext* film) const { avformat_free_context(film); }
    };

    void open(const AVFrame& first);
    Track addTrack(const std::string& encoder, const std::function<void(AVCodecContext*)>& set);
    void encode(const Track& track, const AVFrame* frame);
    void encodeSound(bool last);
    static int write(void* self, uint8_t* data, int bytes);
    static int64_t seek(void* self, int64_t offset, int whence);

    const FilmSpec mSpec;
    std::ostream& mOut;
    const bool mCanSeek;
    std::unique_ptr<AVIOContext, CloseData> mData;
    std::unique_ptr<AVFormatContext, FreeOutput> mFilm;
    Track mVideo;
    Track mAudio;
    PacketPtr mPacket;
    std::vector<float> mSamples;  ///< not yet encoded
    int64_t mSamplesEncoded = 0;
    bool mOpen = false;
};

}  // namespace korvane::player
