// SPDX-License-Identifier: Apache-2.0
// What is to be played: an input and the streams of it.
//
//   film.mkv            a file; it opens nothing but itself
//   -  or a named pipe  read once, as it comes
//   img%03d.png         pictures by number, 25 a second or at the rate asked for
//   concat:list.txt     a playlist, named as one: it may open the local files that it lists; so
//                       does hls:list.m3u8
//   lavfi:testsrc       a graph of FFmpeg's filters that makes its own pictures
//   http://host/film    any other address that FFmpeg knows, concat:a.ts|b.ts among them
//
// A file with exactly that name takes precedence over all other meanings.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "player/base/FrameRate.h"

namespace korvane::player {

class SoundStore;

struct MediaRequest {
    std::string name;
    std::optional<int> video;    ///< index of a stream; empty: the best
    std::optional<int> audio;    ///< the same
    std::optional<int> program;  ///< its number; streams of others are not taken
    bool withoutAudio = false;
    std::optional<FrameRate> rate = {};   ///< of pictures without times, as an image sequence's
    std::optional<int64_t> limitUs = {};  ///< how much is to be played; bounds the wait for a pipe
    /// Receives the samples of the audio as it is read; null: it is not decoded.
    std::shared_ptr<SoundStore> sound;
    std::function<bool()> interrupted = {};  ///< ends a wait for data; may be empty
};

enum class InputKind { File, Pipe, Sequence, Playlist, Generator, Address };

struct InputName {
    InputKind kind = InputKind::File;
    std::string demuxer;  ///< FFmpeg's name of the one to use; empty: detected from the data
    std::string opened;   ///< what is opened: a path, an address or a graph
};

/// What a name stands for. Pure.
/// @param fileMode  `st_mode` of the file of that name, or of standard input; empty: none there
InputName inputOf(const std::string& name, std::optional<unsigned> fileMode);

/// The same, with the mode of the file of that name.
InputName inputOf(const std::string& name);

}  // namespace korvane::player
