// SPDX-License-Identifier: Apache-2.0
// The pictures of an input, decoded; its audio comes from a reader beside it.
//
// Media time is microseconds from the input's own start, so that it begins near 0 in every
// container. FFmpeg stays behind this file and AudioReader.h.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "player/media/FrameSource.h"
#include "player/media/MediaRequest.h"

namespace korvane::player {

/// Decodes a video stream; in real time with FFmpeg's own threads. One thread at a time. Opening it
/// decodes the first picture, so that input that cannot be played is refused before anything else
/// begins.
///
/// A stream also breaks off where it ends before its announced end.
class VideoReader final : public FrameSource {
public:
    /// @throws InputError
    explicit VideoReader(const MediaRequest& request);
    ~VideoReader() override;
    VideoReader(const VideoReader&) = delete;
    VideoReader& operator=(const VideoReader&) = delete;

    /// The audio that goes with it, for another thread; null: none is taken. Call once.
    /// @throws InputError
    std::unique_ptr<PacketSource> openAudio() const;

    const MediaInfo& info() const override;
    ReadStatus next() override;
    const AVFrame* picture() const override;
    int64_t mediaTimeUs() const override;
    bool followsSplice() const override;
    bool seek(int64_t mediaTimeUs) override;
    int64_t decodeErrors() const override;
    int64_t readUpToUs() const override;

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

/// Versions of the FFmpeg libraries in use, for `--version`.
std::string ffmpegVersions();

}  // namespace korvane::player
