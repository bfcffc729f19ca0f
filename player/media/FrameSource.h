// SPDX-License-Identifier: Apache-2.0
// Where playback's frames and audio packets come from: a media file, or made up by arithmetic.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct AVFrame;

namespace korvane::player {

/// A change in the input.
struct MediaChange {
    int64_t mediaTimeUs = 0;
    std::string what;     ///< "320x180 becomes 640x360"
    bool splice = false;  ///< the container's times jump here; media time goes on
};

struct MediaProgram {
    int number = 0;
    std::vector<int> streams;  ///< their indexes
};

/// The members from `interlacedPictures` on grow while the input is read.
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
    bool canSeek = true;

    std::vector<std::string> streams;  ///< each described, by index
    std::vector<MediaProgram> programs;
    int videoStream = -1;
    int audioStream = -1;  ///< the one that is taken; -1: none

    std::string fieldOrder;    ///< of interlaced video, "top field first"; else empty
    int bitDepth = 0;          ///< 0: unknown
    std::string transfer;      ///< of HDR video, "PQ" or "HLG"; else empty
    int rotationDegrees = 0;   ///< clockwise, to be applied by the display
    int64_t pictureBytes = 0;  ///< in a frame buffer; 0: has no pictures

    int64_t interlacedPictures = 0;
    int64_t repeatedFields = 0;        ///< pictures of which a field or more is to be shown again
    std::vector<MediaChange> changes;  ///< the first ones
};

enum class ReadStatus { Ready, End, BrokenOff };

/// Pictures in display order. One thread at a time.
class FrameSource {
public:
    virtual ~FrameSource() = default;

    virtual const MediaInfo& info() const = 0;
    /// Goes on to the next picture.
    virtual ReadStatus next() = 0;
    /// The picture of the last `next` that was Ready, valid until the following one; null when the
    /// source has times only.
    virtual const AVFrame* picture() const = 0;
    virtual int64_t mediaTimeUs() const = 0;
    /// Whether that picture is the first one after a splice.
    virtual bool followsSplice() const { return false; }
    /// Goes to the first picture at or after a media time.
    /// @return false when the source cannot seek; it then goes on where it was
    virtual bool seek(int64_t mediaTimeUs) = 0;
    /// Packets that were damaged or could not be decoded.
    virtual int64_t decodeErrors() const = 0;
    /// Media time that the source's data reaches, as far as it has been read.
    virtual int64_t readUpToUs() const = 0;
};

struct AudioPacket {
    int64_t mediaTimeUs = 0;
    int64_t durationUs = 0;
};

/// Times of audio packets; nothing is decoded. One thread at a time.
class PacketSource {
public:
    virtual ~PacketSource() = default;

    virtual ReadStatus next(AudioPacket* packet) = 0;
    /// Goes to the first packet that sounds at or after a media time.
    virtual void seek(int64_t mediaTimeUs) = 0;
};

}  // namespace korvane::player
