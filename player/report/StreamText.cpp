// SPDX-License-Identifier: Apache-2.0
#include "player/report/StreamText.h"

#include "player/base/Units.h"

namespace korvane::player {
namespace {

/// Changes listed one by one.
constexpr size_t kListedChanges = 10;

std::string describeProgram(const MediaProgram& program) {
    std::string text = "program " + std::to_string(program.number) + ":";
    for (const int stream : program.streams) {
        text += " #" + std::to_string(stream);
    }
    return text;
}

}  // namespace

std::vector<std::string> streamLines(const MediaInfo& media) {
    std::vector<std::string> lines;
    for (size_t i = 0; i < media.streams.size(); ++i) {
        const int index = static_cast<int>(i);
        const bool taken = index == media.videoStream || index == media.audioStream;
        lines.push_back(media.streams[i] + (taken ? "; taken" : "; not taken"));
    }
    for (const auto& program : media.programs) {
        lines.push_back(describeProgram(program));
    }
    if (media.interlacedPictures > 0) {
        lines.push_back(counted(media.interlacedPictures, "picture") +
                        " interlaced, shown as they are");
    }
    if (media.repeatedFields > 0) {
        lines.push_back(counted(media.repeatedFields, "picture") +
                        " with a field to be repeated (telecine)");
    }
    size_t changes = 0;
    for (const MediaChange& change : media.changes) {
        if (!change.splice && ++changes <= kListedChanges) {
            lines.push_back("at " + seconds(change.mediaTimeUs) + ": " + change.what);
        }
    }
    if (changes > kListedChanges) {
        lines.push_back("and " +
                        counted(static_cast<int64_t>(changes - kListedChanges), "more change"));
    }
    return lines;
}

}  // namespace korvane::player
