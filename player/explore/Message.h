// SPDX-License-Identifier: Apache-2.0
// What a worker process tells its parent: frames of a kind, a length and bytes, through a pipe.
// They are written by system calls of their own: in virtual time a write would be a point of
// preemption.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "player/explore/RunRecord.h"
#include "tv/explore/ScheduleText.h"

namespace korvane::player {

enum class MessageKind : uint32_t {
    Fault,       ///< program, strategy, schedule, what, detail
    Crash,       ///< program, strategy, signal, address; then the deviations as they lie in memory
    CrashCalls,  ///< return addresses of the calls that led to it; may be missing
    Exhausted,   ///< program, schedules, whether all
    Coverage,    ///< pairs, in both orders
    Listing      ///< text
};

struct Message {
    MessageKind kind = MessageKind::Fault;
    std::string bytes;
};

using Fields = std::vector<std::string>;
std::string joinFields(const Fields& fields);
Fields splitFields(const std::string& bytes);

void sendMessage(int pipe, MessageKind kind, const std::string& bytes);

/// Takes the whole messages from the front of what was read so far.
std::vector<Message> takeMessages(std::string* read);

/// What the signal handler of a worker knows; it allocates nothing.
struct CrashRecord {
    uint32_t program = 0;
    uint32_t strategy = 0;
    int32_t signal = 0;
    uint32_t deviations = 0;
    const void* code = nullptr;
};
void sendCrash(int pipe, const CrashRecord& record, const tv::Deviation* deviations);
std::vector<tv::Deviation> readCrash(const std::string& bytes, CrashRecord* record);

/// What was told of a crash, as a fault. Addresses are the same in all processes of an exploration.
struct Crash {
    CrashRecord record;
    std::vector<tv::Deviation> schedule;
    std::vector<const void*> calls;
};
/// "crash: segmentation fault in function file:line"; slow, see tv::Exploration::places.
Fault faultOf(const Crash& crash);
/// Whether an instruction is the library's, and not the TV's or the player's.
bool ofTheLibrary(const void* code);

std::vector<const void*> readCalls(const std::string& bytes);

}  // namespace korvane::player
