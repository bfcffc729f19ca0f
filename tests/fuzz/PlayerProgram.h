// SPDX-License-Identifier: Apache-2.0
// A random player as a program, decoded from bytes: any bytes give one, and every one calls the
// library only as docs/integration.md allows.
//
//   8 bytes         display, tunnel, seed, how often threads are preempted, logs, players
//   4 bytes each    the first session of each player: one renderer from create to delete
//   2 bytes each    an operation: whose (upper 3 bits), which (lower 5 bits), its argument.
//                   Whose: 0 the TV's; 1, 4, 6 the threads that own the players' renderers; the
//                   others threads that call beside them. "session" takes 4 bytes more.
//
// One byte changes one thing, so that a fuzzer's small steps are small steps of a player.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace korvane::test {

enum class Call : uint8_t {
    Send,
    SendPeek,
    Sleep,
    Flush,
    PeekFirst,
    Register,
    Anchor,
    ReadClock,
    NotifyTime,
    TakeReleased,
    HandBack,
    Announce,
    FrameRate,
    AwaitReturns,
    Audio,
    Stop,  ///< the owner's only, like the rest
    Start,
    Session,  ///< ends this session and begins another
};

enum class Knob : uint8_t {
    Sleep,
    OpenFails,
    AllocFails,
    FreeFails,
    ConnectFails,
    DisconnectFails,
    QueueFails,
    DequeueFails,
    VsyncQueryFails,
    NoFences,
    FenceNeverSignals,
    FenceWrongMode,
    FenceDelay,
    SyncStatus,
    CreateFails,
    ReportFails,
    ReportedPeriod,
    ChangeMode,
    EndPassthrough,
    PowerOff,
};
constexpr int kKnobs = static_cast<int>(Knob::PowerOff) + 1;

template <typename Kind>
struct Operation {
    Kind kind;
    uint8_t argument;
};

/// What a callback of the player calls.
enum class CallIn : uint8_t { Nothing, Flush, Register, Anchor, ReadClock, FrameRate, Send };
/// How a session ends.
enum class Ending : uint8_t { SettleThenStop, StopBesideCalls, DeleteRunning, StopTwice };
enum class Sync : uint8_t { None, Audio, Passthrough, UnknownId };

constexpr int kThreadsPerPlayer = 3;
/// Capacity of a tunnel that has room for every frame of a session.
constexpr int kRoomForAll = 256;

struct SessionPlan {
    Sync sync = Sync::None;
    Ending ending = Ending::SettleThenStop;
    bool startsByItself = true;
    int64_t frameUs = 0;
    bool returnType0 = false;
    bool returnType2 = true;
    bool renderTimes = false;
    int refusesEach = 0;  ///< every third result of a return callback is not 0, for 3; 0: none
    int64_t callbackUs = 0;
    CallIn inReturn = CallIn::Nothing;
    CallIn inRenderTime = CallIn::Nothing;
    std::vector<Operation<Call>> calls[kThreadsPerPlayer];  ///< the owner's first
};

struct PlayerProgram {
    double rateHz = 60.0;
    int64_t jitterNs = 0;
    int capacity = kRoomForAll;
    uint64_t seed = 1;
    uint32_t preemptions = 0;
    int64_t longestPreemptionNs = 0;
    uint32_t spuriousWakeups = 0;
    int logMask = 0;
    bool trace = false;
    std::vector<Operation<Knob>> knobs;
    std::vector<std::vector<SessionPlan>> players;

    bool uses(Knob knob) const;
};

PlayerProgram decodeProgram(const uint8_t* data, size_t size);
/// One line per thread.
std::string toText(const PlayerProgram& program);

}  // namespace korvane::test
