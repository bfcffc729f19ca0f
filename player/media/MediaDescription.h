// SPDX-License-Identifier: Apache-2.0
// Which streams of an input are taken, and a description of all of them.
//
// By default these are the best video stream, never a cover picture, and the best audio stream of
// the same program. If a program is named, only its streams are considered.
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

/// All that is known before the first picture is decoded.
MediaInfo describeMedia(AVFormatContext& format, const MediaRequest& request,
                        const StreamChoice& choice);

/// "#0 video h264 1920x1080, 25 fps, interlaced"
std::string describeStream(AVFormatContext& format, int index);

}  // namespace korvane::player
