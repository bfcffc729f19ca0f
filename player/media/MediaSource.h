// SPDX-License-Identifier: Apache-2.0
// A media file: its pictures decoded, its audio packets' times. FFmpeg stays behind this file.
//
// Media time is microseconds from the file's own start, so that it begins near 0 in every
// container. Video and audio are read by two readers, each with the file open for itself: neither
// can starve the other however badly a file is interleaved, and each seeks on its own.
//
// A reader ends in one of two ways: at the end of the file, or where the file breaks off (a read
// error, or the file's end well before the duration that its header promises, the end that a stream
// is told to have, or the last data that the index names).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "player/base/Errors.h"
#include "player/media/FrameSource.h"

namespace korvane::player {

/// Decodes the video stream; in real time with FFmpeg's own threads. One thread at a time. One that
/// could be opened has a picture: what cannot be played is known before anything else begins.
class VideoReader final : public FrameSource {
public:
    /// @throws InputError
    explicit VideoReader(const std::string& path);
    ~VideoReader() override;
    VideoReader(const VideoReader&) = delete;
    VideoReader& operator=(const VideoReader&) = delete;

    const MediaInfo& info() const override;
    ReadStatus next() override;
    const AVFrame* picture() const override;
    int64_t mediaTimeUs() const override;
    bool seek(int64_t mediaTimeUs) override;
    int64_t decodeErrors() const override;
    int64_t readUpToUs() const override;

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

/// Reads the times of the audio packets; nothing is decoded. One thread at a time.
class AudioReader final : public PacketSource {
public:
    /// @throws InputError
    explicit AudioReader(const std::string& path);
    ~AudioReader() override;
    AudioReader(const AudioReader&) = delete;
    AudioReader& operator=(const AudioReader&) = delete;

    ReadStatus next(AudioPacket* packet) override;
    void seek(int64_t mediaTimeUs) override;

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

/// Versions of the FFmpeg libraries in use, for `--version`.
std::string ffmpegVersions();

}  // namespace korvane::player
