// SPDX-License-Identifier: Apache-2.0
// What one playback of a program left behind, and which of it is a fault: a decision from values.
//
//   each frame   comes back once, or stays in the tunnel until `stop`, or is discarded by `stop`
//                out of the input queue; a later frame is never further than an earlier one
//   decisions    a frame goes to the tunnel or is dropped as renderer/FrameDecision.h has it for
//                the same values
//   stop         within its bound; afterwards no callback, no id, no device is left
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tv/Tunnel.h"

namespace korvane::player {

struct Fault {
    std::string what;    ///< the same text for the same fault
    std::string detail;  ///< of this run: numbers, stacks
};

struct SentFrame {
    int buffer = -1;
    int64_t mediaUs = 0;
    int64_t sentNs = 0;
    bool peek = false;
    bool flushed = false;  ///< a flush was under way, or began while the library had it
    int64_t backNs = -1;   ///< first return
    bool rendered = false;
    int64_t dueUs = -1;  ///< at its return, by the anchor that the player set; -1: unknown
    int returns = 0;
    int reports = 0;  ///< render times
};

/// Of one renderer.
struct RunRecord {
    std::vector<SentFrame> frames;  ///< by number, from `firstFrame` on
    int64_t firstFrame = 0;
    std::vector<tv::BufferRecord> tunnel;
    bool oneSender = true;  ///< frames entered the queue in the order of their numbers
    bool settled = true;    ///< false: frames had not come to their end when they should have
    bool expectSettled = false;
    bool withAudio = false;
    bool decides = true;       ///< the library does; in pass-through the sync instance does
    bool marksPeek = false;    ///< `peekFirstFrame` may make a peek frame of any
    bool loseBuffers = false;  ///< the TV refuses buffers, or fences fail
    int64_t stopBeganNs = INT64_MAX;
    int64_t stopTookNs = 0;
    int64_t stopBoundNs = 0;
    /// How long the schedule kept threads away, in all: limits of time give way by that much.
    int64_t awayNs = 0;
    int32_t periodNs = 16'666'666;
    int lateCallbacks = 0;     ///< after `stop` had returned
    int unknownBuffers = 0;    ///< returned without having been sent
    int brokenReports = 0;     ///< render times of no frame, too early, or out of order
    std::vector<Fault> noted;  ///< while it ran
};

std::vector<Fault> faultsOf(const RunRecord& record);

/// Why such a fault is meant to be so; null when it is none of the behaviours that
/// docs/integration.md names.
const char* deliberateReason(const Fault& fault);

}  // namespace korvane::player
