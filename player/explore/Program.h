// SPDX-License-Identifier: Apache-2.0
// What an exploration plays: a short program of calls, the same in every schedule.
//
//   program   the TV, its faults, and players that run side by side
//   player    sessions, one after the other
//   session   one renderer from create to delete, its callbacks, and one list of steps for each of
//             the player's threads. The first thread owns the renderer: it makes, starts, stops and
//             deletes it, the last at the end of its steps.
//
// Some programs are built in and need no file; others come from a scenario (ScenarioProgram.h) or,
// in tests, from random bytes.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "player/playback/PlaybackPlan.h"

namespace korvane::player {

enum class Act : uint8_t {
    // of the renderer's owner
    Begin,   ///< the session's other threads begin, unless they have
    Start,   ///< `start` and Begin
    Stop,    ///< `stop`
    Join,    ///< waits for the other threads
    Settle,  ///< until every frame has run its course; it is a fault if that takes longer than `us`
    Recall,  ///< the same, with a `flush` every 20 ms; of a renderer that runs
    // of any thread
    Send,          ///< one frame of media time `us`
    SendPeek,      ///< the same, marked to be shown at once
    SendNext,      ///< one frame `us` after the last, if a buffer is free
    PeekFirst,     ///< `peekFirstFrame`
    Flush,         ///< `flush`
    AwaitBack,     ///< until no frame is in the library, `us` at most
    Anchor,        ///< `updateVideoTime(us)`
    ReadClock,     ///< `getRealTimeFor(us)`, `getTrackMediaTime`, `getStartingTimeMedia`
    Register,      ///< registers the same callbacks again
    NotifyTimes,   ///< `nodifyRenderTime`
    TakeReleased,  ///< `getNeedFillVideoFrame`
    HandBack,      ///< `onFillVideoFrame` of a buffer that was not sent
    Announce,      ///< `onVideoSyncQueueVideoFrame(us, number)`
    FrameRate,     ///< `setFrameRate(number)`
    Sleep,         ///< for `us`
    Until,         ///< playback time `us`
    // of the sound, if there is any
    Sound,  ///< packets from `us` on, `number` of them
    SoundFlush,
    SoundEnd,
    Pause,  ///< sound and its clock
    Resume,
    // of the TV
    Faults,          ///< switches its faults to entry `number` of the program
    Mode,            ///< the display changes to `number` / 1000 Hz
    CreateFails,     ///< media-sync clients cannot be made (`number` 1), or can again (0)
    SyncFails,       ///< the calls of media-sync instance `number`
    SyncWorks,       ///< ... again
    EndPassthrough,  ///< of instance `number`
    PowerOff
};

struct Step {
    Act act = Act::Send;
    int64_t us = 0;
    int number = 0;
};
using Steps = std::vector<Step>;

/// One renderer from create to delete.
struct Session {
    bool withAudio = false;
    bool passthrough = false;
    bool unknownSync = false;  ///< `init` with the id of no media-sync instance
    /// Waits until a buffer is free. Sound comes with the first frame and is flushed with the
    /// frames; pass-through announces each frame. Else only the steps do so.
    bool tidy = true;
    bool return0 = false;  ///< registers type 0
    bool return2 = true;   ///< ... and type 2; one of them at least
    bool renderTimes = true;
    int answers = 0;      ///< result of the callbacks of types 0 and 2 ...
    int answersEach = 1;  ///< ... each so many times; 0 otherwise
    int64_t callbackTakesUs = 0;
    /// What callbacks do beside taking the buffer, as docs/integration.md allows, so many times.
    Steps onReturn;
    Steps onRenderTime;
    int callsBack = 1;
    std::vector<Steps> threads;
};

struct Program {
    std::string name;
    std::string shows;
    tv::TvConfig tv;
    std::vector<TvFaults> faults;  ///< for Act::Faults
    Steps tvThread;                ///< steps of the TV, on a thread of its own
    int buffers = 6;               ///< of each player
    tv::AudioConfig audio;
    std::function<void(const std::shared_ptr<tv::SyncInstance>&)> prepareClock;
    int64_t longestUs =
        60'000'000;  ///< far more than it takes; threads that poll for ever reach it
    std::vector<std::vector<Session>> players;
};

/// Hard on threads, each within a few hundred points of preemption.
const std::vector<Program>& builtInPrograms();

/// Without the last frames: those sent beyond so many by one thread are left out.
Program withFrames(Program program, int frames);
/// The most frames that one of its threads sends.
int framesOf(const Program& program);

/// Whether any of these is among the steps; for checks that hold only without it.
using Acts = std::initializer_list<Act>;
bool does(const Steps& steps, Acts acts);
bool does(const Session& session, Acts acts);
bool does(const Program& program, Acts acts);
/// Whether any of its faults is so.
bool hasFault(const Program& program, const std::function<bool(const TvFaults&)>& is);
/// The TV may refuse buffers, which then come back with `stop` only.
bool refusesBuffers(const Program& program);
/// The TV may keep buffers that it took, because their fences fail.
bool keepsBuffers(const Program& program);
/// The library may log an error.
bool mayLogErrors(const Program& program);

/// The tunnel's faults that are on or off, with their names.
inline constexpr std::pair<const char*, bool tv::TunnelFaults::*> kTunnelFaults[] = {
    {"open", &tv::TunnelFaults::openFails},
    {"alloc", &tv::TunnelFaults::allocFails},
    {"free", &tv::TunnelFaults::freeFails},
    {"connect", &tv::TunnelFaults::connectFails},
    {"disconnect", &tv::TunnelFaults::disconnectFails},
    {"queue", &tv::TunnelFaults::queueFails},
    {"dequeue", &tv::TunnelFaults::dequeueFails},
    {"vsync-query", &tv::TunnelFaults::vsyncQueryFails},
    {"no-fences", &tv::TunnelFaults::noFences},
    {"fence-never", &tv::TunnelFaults::fenceNeverSignals},
    {"fence-mode", &tv::TunnelFaults::fenceWrongMode}};

/// The program in words, a line for each thread.
std::string toText(const Program& program);

}  // namespace korvane::player
