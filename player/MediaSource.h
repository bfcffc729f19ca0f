// A media file: its pictures decoded, its audio packets' times. FFmpeg stays behind this file.
//
// Media time is microseconds from the file's own start, so that it begins near 0 in every
// container. Video and audio are read by two readers, each with the file open for itself: neither
// can starve the other however badly a file is interleaved, and each seeks on its own.
//
// A reader ends in one of two ways: at the end of the file, or where the file breaks off (a read
// error, or the file's end well before the duration that its header promises).
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

struct AVFrame;

namespace korvane::player {

/// The file cannot be played; `what` is one line that says why and what to do.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct MediaInfo {
    std::string path;
    std::string container;
    std::string videoCodec;
    std::string audioCodec;  ///< empty without audio
    int width = 0;
    int height = 0;
    double frameRateHz = 0.0;  ///< as the file says; 0: it does not
    int64_t durationUs = -1;   ///< -1: unknown
    bool hasAudio = false;
};

enum class ReadStatus { Ready, End, BrokenOff };

/// Decodes the video stream with FFmpeg's own threads. One thread at a time.
class VideoReader {
public:
    /// @throws InputError
    explicit VideoReader(const std::string& path);
    ~VideoReader();
    VideoReader(const VideoReader&) = delete;
    VideoReader& operator=(const VideoReader&) = delete;

    const MediaInfo& info() const;
    /// Decodes the next picture in display order.
    ReadStatus next();
    /// The picture of the last `next` that was Ready, valid until the following one.
    const AVFrame& picture() const;
    int64_t mediaTimeUs() const;
    /// Goes to the first picture at or after a media time.
    /// @return false when the file cannot seek; the reader then goes on where it was
    bool seek(int64_t mediaTimeUs);
    /// Packets that the decoder could make nothing of.
    int64_t decodeErrors() const;
    /// Media time that the file's data reaches, as far as it has been read.
    int64_t readUpToUs() const;

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

/// Reads the times of the audio packets; nothing is decoded. One thread at a time.
class AudioReader {
public:
    /// @throws InputError
    explicit AudioReader(const std::string& path);
    ~AudioReader();
    AudioReader(const AudioReader&) = delete;
    AudioReader& operator=(const AudioReader&) = delete;

    struct Packet {
        int64_t mediaTimeUs = 0;
        int64_t durationUs = 0;
    };
    ReadStatus next(Packet* packet);
    /// Goes to the first packet that sounds at or after a media time.
    void seek(int64_t mediaTimeUs);

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

/// Versions of the FFmpeg libraries in use, for `--version`.
std::string ffmpegVersions();

}  // namespace korvane::player
