// SPDX-License-Identifier: Apache-2.0
// What an exploration plays: a short program of calls, the same in every schedule.
//
// A program has the TV, the clock and the callbacks that a player has, and one list of steps for
// each of the player's threads. The first thread owns the renderer: it makes, starts, stops and
// deletes it; the others begin with `start`. Some programs are built in and need no file; others
// come from a scenario (ScenarioProgram.h).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "player/playback/PlaybackPlan.h"

namespace korvane::player {

enum class Act : uint8_t {
    Start,        ///< `start`, audio's start, and the other threads' begin
    Send,         ///< one frame of media time `us`, once a buffer is free
    SendPeek,     ///< the same, marked to be shown at once
    PeekFirst,    ///< `peekFirstFrame`
    Flush,        ///< audio's flush, then `flush`
    AwaitBack,    ///< until no frame is in the library, `us` at most
    Anchor,       ///< `updateVideoTime(us)`
    Register,     ///< registers the same callbacks again
    NotifyTimes,  ///< `nodifyRenderTime`
    Pause,        ///< audio and its clock
    Resume,
    Faults,  ///< switches the TV's faults to entry `us` of the program
    Sleep,   ///< for `us`
    Until,   ///< playback time `us`
    Join,    ///< the owner waits for the other threads
    Settle,  ///< until every frame has run its course; it is a fault if that takes longer than `us`
    Stop
};

struct Step {
    Act act = Act::Send;
    int64_t us = 0;
};

/// What a callback of type 0 or 2 does beside taking the buffer, as docs/integration.md allows.
enum class CallsBack { Nothing, Flush, Send, Register };

struct Program {
    std::string name;
    std::string shows;
    tv::TvConfig tv;
    std::vector<TvFaults> faults;  ///< for Act::Faults
    int buffers = 6;
    int renderers = 1;  ///< each with its own threads
    bool withAudio = false;
    bool passthrough = false;
    tv::AudioConfig audio;
    std::function<void(const std::shared_ptr<tv::SyncInstance>&)> prepareClock;
    bool bothReturns = false;  ///< registers types 0 and 2, else type 2 only
    int callbackAnswers = 0;
    int64_t callbackTakesUs = 0;
    CallsBack callsBack = CallsBack::Nothing;
    std::vector<std::vector<Step>> threads;
};

/// Hard on threads, each within a few hundred points of preemption.
const std::vector<Program>& builtInPrograms();

/// Without the last frames: those sent beyond so many are left out.
Program withFrames(Program program, int frames);
/// Whether the TV keeps buffers for ever, because it refuses them or their fences fail.
bool losesBuffers(const Program& program);
/// How many frames its threads send.
int framesOf(const Program& program);

}  // namespace korvane::player
