// SPDX-License-Identifier: Apache-2.0
// What one playback of a program left behind, and which of it is a fault: a decision from values.
//
//   each frame   comes back once, or stays in the tunnel until `stop`, or is discarded by `stop`
//                out of the input queue; a later frame is never further than an earlier one
//   callbacks    types 0 and 2 come for the same frames
//   decisions    a frame goes to the tunnel or is dropped as renderer/FrameDecision.h has it for
//                the same values
//   stop         within its bound; afterwards no callback, no id, no device is left
//
// What the player or the TV does may forbid a check; the record's flags say so.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "player/explore/Program.h"
#include "tv/Tv.h"

namespace korvane::player {

struct Fault {
    std::string what;    ///< the same text for the same fault
    std::string detail;  ///< of this run: numbers, stacks
};

struct SentFrame {
    int buffer = -1;
    int64_t mediaUs = 0;
    bool peek = false;
    bool flushed = false;    ///< a flush was under way, or began while the library had it
    bool afterStop = false;  ///< `stop` had begun before `sendVideoFrame` returned
    int64_t backNs = -1;     ///< first return
    bool rendered = false;   ///< told by that one
    bool dropped = false;    ///< likewise; type 0 tells neither
    int64_t dueUs = -1;      ///< at its return, by the anchor that the player set; -1: unknown
    int returns = 0;
    int returns0 = 0;  ///< by type 0
    int taken = 0;     ///< of the returns: fetched by the player itself
    int reports = 0;   ///< render times
};

/// Of one renderer.
struct RunRecord {
    std::vector<SentFrame> frames;  ///< by number, from `firstFrame` on
    int64_t firstFrame = 0;
    std::vector<tv::BufferRecord> tunnel;
    bool oneSender = true;    ///< frames entered the queue in the order of their numbers
    bool withAudio = false;   ///< the library waits for audio
    bool decides = true;      ///< the library does; in pass-through the sync instance does
    bool marksPeek = false;   ///< `peekFirstFrame` may make a peek frame of any
    bool bothTypes = false;   ///< callbacks of types 0 and 2 are registered
    bool refuses = false;     ///< the TV may refuse buffers
    bool keeps = false;       ///< ... or keep them
    bool fetches = false;     ///< the player takes buffers out of the tunnel, too
    bool knowsPeriod = true;  ///< the library knows the display's true period
    int flushes = 0;
    int64_t stopBeganNs = INT64_MAX;
    int64_t stopTookNs = 0;
    int64_t stopBoundNs = 0;
    /// How long the schedule kept threads away, in all: limits of time give way by that much.
    int64_t awayNs = 0;
    int32_t periodNs = 16'666'666;
    int lateCallbacks = 0;     ///< after `stop` or the delete
    int unknownBuffers = 0;    ///< returned without having been sent
    int brokenReports = 0;     ///< render times of no frame, too early, or out of order
    std::vector<Fault> noted;  ///< while it ran

    bool losesBuffers() const { return refuses || keeps; }
};

bool waitsForAudio(const Session& session);
/// What is known of a session before it plays.
RunRecord recordOf(const Program& program, const Session& session, int64_t firstFrame);
std::vector<Fault> faultsOf(const RunRecord& record);
/// Adds what is left behind on the TV once all renderers are gone. A device that is closed gives up
/// its id and its connection.
/// @param neverRan  renderers that were not started, whose `stop` does nothing
void judgeTv(const Program& program, tv::Tv& tv, int neverRan, std::vector<Fault>* faults);

/// Why such a fault is meant to be so; null when it is none of the behaviours that
/// docs/integration.md names.
const char* deliberateReason(const Fault& fault);

}  // namespace korvane::player
