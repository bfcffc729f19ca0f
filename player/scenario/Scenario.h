// SPDX-License-Identifier: Apache-2.0
// A scenario: content, a TV with its faults, a player with its habits, and what must come of it.
//
// Plain values, as ScenarioFile reads them from a file and ScenarioRun plays them. All times are
// microseconds. Two time lines occur: media time (of the content) and playback time, which is the
// clock's time since the library's `start`. Where a field does not say media time, it is playback
// time.
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

namespace korvane::player {

struct DisplayPlan {
    FrameRate rate{60, 1};
    double driftPpm = 0.0;
    int64_t jitterUs = 0;
    struct ModeChange {
        int64_t atUs = 0;
        FrameRate rate{60, 1};
    };
    std::vector<ModeChange> modeChanges;  ///< by time
    std::vector<Span> queryFails;         ///< the tunnel does not answer, the adapter does
    std::vector<Span> reportFails;        ///< neither answers
    struct FalsePeriod {
        Span span;
        int64_t periodNs = 0;
    };
    std::vector<FalsePeriod> falsePeriods;
};

struct AudioPlan {
    bool enabled = false;
    int64_t startDelayUs = 50'000;
    int64_t stepUs = 21'333;
    double driftPpm = 0.0;
    bool neverStarts = false;
    std::vector<Span> underflows;  ///< at media times
    std::vector<Span> pauses;
    struct StepBack {
        int64_t atUs = 0;  ///< media time
        int64_t byUs = 0;
    };
    std::vector<StepBack> stepBacks;
    int64_t latencyJumpUs = 0;
    int64_t latencyJumpForUs = 0;
    int64_t drainUs = 0;
};

struct SeekPlan {
    int64_t atUs = 0;
    int64_t toUs = 0;      ///< media time
    bool inPlace = false;  ///< flush only
};

struct PlayerPlan {
    int prebufferFrames = 8;
    int buffers = 16;
    std::vector<Span> late;
    int64_t slowUs = 0;           ///< decode time of each frame
    std::vector<SeekPlan> seeks;  ///< by time
    bool peek = false;            ///< the first frame, and the first after a flush, is marked
    bool peekCall = false;        ///< `peekFirstFrame` is called while the first frame is alone
    bool setFrameRate = true;
    std::optional<double> toldFps;  ///< what `setFrameRate` is told instead of the content's rate
    std::optional<int64_t> restartAtUs;
    bool reuse = false;  ///< a restart takes the same renderer again
    int64_t callbackTakesUs = 0;
    int callbackAnswers = 0;
    std::optional<int64_t> stopAtUs;
};

struct TunnelPlan {
    int capacity = 64;
    std::vector<Span> refuse;
    std::vector<Span> fenceNever;
    int64_t fenceDelayUs = 0;
    bool noFences = false;
};

/// One entry of a pass-through policy script.
struct PolicyStep {
    enum class Kind { Auto, Render, Hold, Drop, Exit };
    Kind kind = Kind::Auto;
    int64_t times = 1;
    int64_t offsetUs = 0;  ///< Render: this much after the clock's time for the frame
};

struct PassthroughPlan {
    bool enabled = false;
    std::vector<PolicyStep> policy;  ///< empty: the TV's own
    bool freeRun = false;
};

struct LogExpectation {
    std::string text;            ///< part of the line; empty: any
    std::optional<int> minimum;  ///< lowest priority that counts, Android's numbers
    Range count{1, INT64_MAX};
};

/// What must hold; what is not set is not looked at, but for `end`, `lost` and `buffersReturned`.
struct Expectations {
    std::string end = "complete";
    bool buffersReturned = true;
    std::optional<Range> buffersKept;   ///< instead: so many never came back
    std::vector<std::string> patterns;  ///< one: of every stretch; else one for each stretch
    std::optional<Range> patternWithinUs;
    std::optional<Range> slips;
    std::optional<Range> unexpected;
    std::optional<Range> dwell;  ///< vsyncs
    std::optional<Range> framesIn;
    bool shownAll = false;
    std::map<Outcome, Range> outcomes;
    std::optional<Range> dropped;  ///< for whatever reason
    std::map<DropReason, Range> drops;
    std::optional<Range> longestDropRun;
    std::optional<Range> offsetMedianUs;
    std::optional<Range> offsetWorstUs;
    std::optional<Range> firstFrameUs;
    std::optional<Range> secondFrameUs;
    std::optional<Range> seekUs;
    std::optional<Range> resumeUs;
    std::optional<Range> underflows;
    std::optional<Range> reanchors;
    std::optional<Range> holds;
    Range overwritten{0, 0};          ///< pictures written to while the panel read them
    std::optional<Range> playbackUs;  ///< from `start` to the end of `stop`
    std::optional<Range> stopUs;      ///< how long the library's `stop` took
    std::vector<LogExpectation> log;
};

struct Scenario {
    std::string path;
    std::string name;  ///< the file's name without its ending
    std::string title;
    std::string holds;
    ContentPlan content;
    DisplayPlan display;
    AudioPlan audio;
    PlayerPlan player;
    TunnelPlan tunnel;
    PassthroughPlan passthrough;
    uint64_t seed = 1;
    std::optional<int32_t> logMask;
    Expectations expect;
};

}  // namespace korvane::player
