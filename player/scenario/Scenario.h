// SPDX-License-Identifier: Apache-2.0
// A scenario: content, a playback of it on a TV with faults, and what must hold.
//
// ScenarioFile reads it, ScenarioRun plays it. Times are microseconds, on one of two time lines:
// media time, which counts in the content, and playback time, which counts from the library's
// `start`. A time is playback time unless its comment says media time.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "player/base/Range.h"
#include "player/media/ContentPlan.h"
#include "player/playback/DropReason.h"
#include "player/playback/FrameLedger.h"
#include "player/playback/Playback.h"
#include "player/playback/PlaybackPlan.h"

namespace korvane::player {

/// Lines to count in the log.
struct LogExpectation {
    std::string text;            ///< part of the line; empty: any line
    std::optional<int> minimum;  ///< lowest priority that counts, Android's numbers
    Range count{1, INT64_MAX};
};

/// A band of lip-sync (see LipSync.h) that is to be kept: EBU R37, or what BT.1359-1 accepts.
enum class LipSyncLimit { None, Ebu, Itu };

/// What must hold. An empty expectation is not checked.
struct Expectations {
    EndCause end = EndCause::Complete;
    bool buffersReturned = true;        ///< every buffer comes back
    std::optional<Range> buffersKept;   ///< instead: this many never come back
    std::vector<std::string> patterns;  ///< one for all stretches, or one for each
    std::optional<Range> patternWithinUs;
    std::optional<bool> even;    ///< or as even as the rates allow
    std::optional<bool> inSync;  ///< by the verdict's measure
    std::optional<Range> slips;
    std::optional<Range> unexpected;
    Range unexplained{0, 0};     ///< unexpected dwells without a cause
    std::optional<Range> dwell;  ///< vsyncs
    std::optional<Range> framesIn;
    bool shownAll = false;
    std::map<Outcome, Range> outcomes;  ///< without an entry, `lost` must be 0
    std::optional<Range> dropped;       ///< for any reason
    std::map<DropReason, Range> drops;
    std::optional<Range> longestDropRun;
    std::optional<Range> lipSyncMedianUs;
    std::optional<Range> lipSyncWorstUs;
    LipSyncLimit lipSync = LipSyncLimit::None;
    std::optional<Range> offsetMedianUs;
    std::optional<Range> offsetWorstUs;
    std::optional<Range> firstFrameUs;
    std::optional<Range> secondFrameUs;
    std::optional<Range> seekUs;
    std::optional<Range> splices;
    std::optional<Range> spliceLostUs;
    std::optional<Range> resumeUs;
    std::optional<Range> underflows;
    std::optional<Range> reanchors;
    std::optional<Range> holds;
    Range overwritten{0, 0};          ///< pictures written to while the panel reads them
    std::optional<Range> playbackUs;  ///< from `start` to the end of `stop`
    std::optional<Range> stopUs;      ///< how long the library's `stop` takes
    std::vector<LogExpectation> log;
};

/// Something that is to happen, or to begin, at a playback time.
struct TimedAction {
    std::string key;  ///< as the file says it, "audio.pause"
    int64_t atUs = 0;
};

struct Scenario {
    std::string path;
    std::string name;  ///< the file's name without its extension
    std::string title;
    std::string holds;
    ContentPlan content;
    PlaybackPlan plan;
    std::vector<TimedAction> actions;  ///< all of the plan
    uint64_t seed = 1;                 ///< of the order of threads and of the display's jitter
    /// Threads lose the processor and wake without cause, where and for how long the seed says.
    /// Unset: with another seed than the scenario's own.
    std::optional<bool> preempt;
    std::map<std::string, std::string> properties;  ///< system properties, set before playback
    Expectations expect;
};

}  // namespace korvane::player
