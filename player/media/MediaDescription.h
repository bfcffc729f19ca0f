// SPDX-License-Identifier: Apache-2.0
// Which streams of an input are taken, and what there is to say of all of them.
//
// Without a wish the best video stream is taken, never a cover picture, and the best audio stream
// of the same program. With a program named, only its own streams are.
#pragma once

#include "player/media/Ffmpeg.h"
#include "player/media/FrameSource.h"
#include "player/media/MediaRequest.h"

namespace korvane::player {

struct StreamChoice {
    int video = -1;
    int audio = -1;  ///< -1: there is none
};

/// @throws InputError when there is no video, or not what was asked for
StreamChoice chooseStreams(AVFormatContext& format, const MediaRequest& request);

/// All that is known before the first picture.
MediaInfo describeMedia(AVFormatContext& format, const MediaRequest& request,
                        const StreamChoice& choice);

/// "#0 video h264 1920x1080, 25 fps, interlaced"
std::string describeStream(AVFormatContext& format, int index);

}  // namespace korvane::player
