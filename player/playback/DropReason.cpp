// SPDX-License-Identifier: Apache-2.0
#include "player/playback/DropReason.h"

namespace korvane::player {
namespace {

/// The library's own limit: a frame later than this is dropped.
constexpr int64_t kLateLimitUs = 40'000;

struct AnnouncingLine {
    const char* part;  ///< of the text that the library logs right before the drop
    DropReason reason;
};

constexpr AnnouncingLine kAnnouncingLines[] = {
    {"drop frame for sync audio", DropReason::BeforeAudio},
    {"to catch up audio after underflow", DropReason::UnderflowCatchUp},
    {"]drop = frameNo:", DropReason::Late},
    {"MEDIASYNC_VIDEO_DROP", DropReason::Policy},
};

}  // namespace

const char* toString(DropReason reason) {
    switch (reason) {
        case DropReason::None:
            return "none";
        case DropReason::BeforeAudio:
            return "before_audio";
        case DropReason::Late:
            return "late";
        case DropReason::UnderflowCatchUp:
            return "underflow_catch_up";
        case DropReason::Policy:
            return "policy";
        case DropReason::Flush:
            return "flush";
        case DropReason::Unknown:
            break;
    }
    return "unknown";
}

const char* toString(DropEvidence evidence) {
    switch (evidence) {
        case DropEvidence::LogLine:
            return "log";
        case DropEvidence::Values:
            return "values";
        case DropEvidence::None:
            break;
    }
    return "none";
}

DropReason dropReasonFromValues(const DropValues& values) {
    if (values.flushing) {
        return DropReason::Flush;
    }
    if (values.passthrough) {
        return DropReason::Policy;
    }
    if (values.hasAudio && values.syncMode == 0) {
        return DropReason::BeforeAudio;
    }
    // The library compares after moving the time by up to one vsync, to keep the pattern.
    if (values.lateUs > kLateLimitUs - values.vsyncPeriodUs && !values.underflowSeen) {
        return DropReason::Late;
    }
    if (values.underflowSeen) {
        return values.lateUs > kLateLimitUs + values.vsyncPeriodUs ? DropReason::Late
                                                                   : DropReason::UnderflowCatchUp;
    }
    return DropReason::Unknown;
}

std::optional<DropReason> dropReasonFromLog(const std::string& text) {
    for (const auto& line : kAnnouncingLines) {
        if (text.find(line.part) != std::string::npos) {
            return line.reason;
        }
    }
    return std::nullopt;
}

}  // namespace korvane::player
