// SPDX-License-Identifier: Apache-2.0
#include "tests/fuzz/PlayerProgram.h"

#include <algorithm>

namespace korvane::test {
namespace {

constexpr size_t kMostOperations = 256;

struct NamedCall {
    Call call;
    const char* name;
    int weight;  ///< of 32
};
constexpr NamedCall kCalls[] = {
    {Call::Send, "send", 7},
    {Call::SendPeek, "send-peek", 1},
    {Call::Sleep, "sleep", 5},
    {Call::Flush, "flush", 3},
    {Call::PeekFirst, "peek-first", 1},
    {Call::Register, "register", 1},
    {Call::Anchor, "anchor", 2},
    {Call::ReadClock, "read-clock", 1},
    {Call::NotifyTime, "notify", 1},
    {Call::TakeReleased, "take-released", 1},
    {Call::HandBack, "hand-back", 1},
    {Call::Announce, "announce", 1},
    {Call::FrameRate, "frame-rate", 1},
    {Call::AwaitReturns, "await", 1},
    {Call::Audio, "audio", 2},
    {Call::Stop, "stop", 1},
    {Call::Start, "start", 1},
    {Call::Session, "session", 1},
};
/// The TV's operations that sleep; each of the others has one number.
constexpr int kSleepsOf32 = 32 - kKnobs + 1;
constexpr const char* kKnobNames[kKnobs] = {
    "sleep",        "open-fails",  "alloc-fails",   "free-fails",  "connect-fails",
    "disc-fails",   "queue-fails", "dequeue-fails", "vsync-fails", "no-fences",
    "fence-never",  "fence-mode",  "fence-delay",   "sync-status", "create-fails",
    "report-fails", "period",      "mode",          "end-pass",    "power-off"};

/// Zeros beyond the end, so that the front of an input is a program too.
class Bytes {
public:
    Bytes(const uint8_t* data, size_t size) : mData(data), mEnd(data + size) {}
    bool empty() const { return mData == mEnd; }
    uint8_t next() { return empty() ? uint8_t{0} : *mData++; }
    template <typename Value, size_t N>
    Value pick(const Value (&values)[N]) {
        return values[next() % N];
    }

private:
    const uint8_t* mData;
    const uint8_t* mEnd;
};

Call callOf(int number) {
    for (const auto& known : kCalls) {
        number -= known.weight;
        if (number < 0) {
            return known.call;
        }
    }
    return Call::Sleep;
}

const char* nameOf(Call call) {
    return kCalls[static_cast<size_t>(call)].name;
}

SessionPlan decodeSession(Bytes* bytes) {
    constexpr int64_t kFrames[] = {41'708, 33'366, 16'683, 40'000};
    constexpr int kRefusals[] = {0, 0, 3, 1};
    constexpr int64_t kCallbackUs[] = {0, 0, 0, 0, 200, 2'000, 20'000, 100'000};
    SessionPlan plan;
    const unsigned kind = bytes->next();
    plan.sync = static_cast<Sync>(kind & 3);
    plan.ending = static_cast<Ending>(kind >> 2 & 3);
    plan.startsByItself = (kind >> 4 & 3) != 3;
    plan.frameUs = kFrames[kind >> 6];
    const unsigned callbacks = bytes->next();
    plan.returnType0 = (callbacks & 1) != 0;
    plan.returnType2 = (callbacks & 3) != 1;
    plan.renderTimes = (callbacks >> 2 & 1) != 0;
    plan.refusesEach = kRefusals[callbacks >> 3 & 3];
    plan.callbackUs = kCallbackUs[callbacks >> 5];
    constexpr CallIn kInReturn[] = {CallIn::Nothing,   CallIn::Nothing, CallIn::Flush,
                                    CallIn::Register,  CallIn::Anchor,  CallIn::ReadClock,
                                    CallIn::FrameRate, CallIn::Send};
    constexpr CallIn kInRenderTime[] = {CallIn::Nothing,  CallIn::Nothing, CallIn::Flush,
                                        CallIn::Register, CallIn::Anchor,  CallIn::ReadClock,
                                        CallIn::FrameRate};
    plan.inReturn = bytes->pick(kInReturn);
    plan.inRenderTime = bytes->pick(kInRenderTime);
    return plan;
}

/// A return callback may run under the input lock where a peek frame is refused: then it must not
/// send.
void keepLegal(SessionPlan* plan) {
    for (const auto& thread : plan->calls) {
        for (const auto& operation : thread) {
            const bool peeks =
                operation.kind == Call::SendPeek || operation.kind == Call::PeekFirst;
            if (peeks && plan->inReturn == CallIn::Send) {
                plan->inReturn = CallIn::Nothing;
            }
        }
    }
}

void decodeOperations(Bytes* bytes, PlayerProgram* program) {
    struct Place {
        size_t player;
        size_t thread;
    };
    constexpr Place kPlaces[] = {{0, 0}, {0, 1}, {0, 2}, {1, 0}, {1, 1}, {2, 0}, {2, 1}};
    for (size_t count = 0; !bytes->empty() && count < kMostOperations; ++count) {
        const unsigned head = bytes->next();
        const uint8_t argument = bytes->next();
        if (head >> 5 == 0) {
            const int knob = std::max(0, static_cast<int>(head) - kSleepsOf32 + 1);
            program->knobs.push_back({static_cast<Knob>(knob), argument});
            continue;
        }
        const Place place = kPlaces[(head >> 5) - 1];
        auto& sessions = program->players[place.player % program->players.size()];
        Call call = callOf(static_cast<int>(head & 31));
        if (call >= Call::Stop && place.thread != 0) {
            call = Call::Sleep;
        }
        if (call == Call::Session) {
            sessions.push_back(decodeSession(bytes));
        } else {
            sessions.back().calls[place.thread].push_back({call, argument});
        }
    }
}

template <typename Kind, typename NameOf>
void addLine(std::string* text, const std::string& who, const std::vector<Operation<Kind>>& all,
             const NameOf& name) {
    *text += who + ":";
    for (const auto& operation : all) {
        *text += std::string(" ") + name(operation.kind) + ":" + std::to_string(operation.argument);
    }
    *text += "\n";
}

}  // namespace

bool PlayerProgram::uses(Knob knob) const {
    return std::any_of(knobs.begin(), knobs.end(),
                       [knob](const auto& operation) { return operation.kind == knob; });
}

PlayerProgram decodeProgram(const uint8_t* data, size_t size) {
    constexpr double kRates[] = {60.0, 60000.0 / 1001.0, 50.0, 24.0, 120.0};
    constexpr int kCapacities[] = {kRoomForAll, kRoomForAll, kRoomForAll, kRoomForAll, 5, 2};
    constexpr uint32_t kPreemptions[] = {0, 256, 4096, 16'384};
    constexpr int64_t kLongestNs[] = {0, 10'000, 100'000, 1'000'000};
    constexpr int kLogMasks[] = {0, 0, 1, 31};
    constexpr int64_t kJitterNs[] = {0, 0, 500'000, 5'000'000};
    Bytes bytes(data, size);
    PlayerProgram program;
    program.rateHz = bytes.pick(kRates);
    program.capacity = bytes.pick(kCapacities);
    program.seed = bytes.next() + 1U;
    program.preemptions = bytes.pick(kPreemptions);
    program.longestPreemptionNs = bytes.pick(kLongestNs);
    const unsigned rest = bytes.next();
    program.spuriousWakeups = (rest & 1) != 0 ? 4096 : 0;
    program.logMask = kLogMasks[rest >> 1 & 3];
    program.trace = (rest >> 3 & 1) != 0;
    program.jitterNs = bytes.pick(kJitterNs);
    program.players.resize(bytes.next() % 3 + 1U);
    for (auto& player : program.players) {
        player.push_back(decodeSession(&bytes));
    }
    decodeOperations(&bytes, &program);
    for (auto& player : program.players) {
        std::for_each(player.begin(), player.end(), [](auto& plan) { keepLegal(&plan); });
    }
    return program;
}

std::string toText(const PlayerProgram& program) {
    const auto number = [](auto value) {
        return " " + std::to_string(static_cast<int64_t>(value));
    };
    std::string text =
        "rate, jitter, capacity, seed, preemptions, longest, spurious, log, trace:" +
        number(program.rateHz) + number(program.jitterNs) + number(program.capacity) +
        number(program.seed) + number(program.preemptions) + number(program.longestPreemptionNs) +
        number(program.spuriousWakeups) + number(program.logMask) + number(program.trace) + "\n";
    addLine(&text, "tv", program.knobs,
            [](Knob knob) { return kKnobNames[static_cast<size_t>(knob)]; });
    for (size_t player = 0; player < program.players.size(); ++player) {
        for (const auto& plan : program.players[player]) {
            text +=
                "player" + number(player) +
                ", sync, ending, starts, frame us, types 0, 2, 1, refuses, takes us, calls in:" +
                number(plan.sync) + number(plan.ending) + number(plan.startsByItself) +
                number(plan.frameUs) + number(plan.returnType0) + number(plan.returnType2) +
                number(plan.renderTimes) + number(plan.refusesEach) + number(plan.callbackUs) +
                number(plan.inReturn) + number(plan.inRenderTime) + "\n";
            for (const auto& thread : plan.calls) {
                addLine(&text, "  thread", thread, nameOf);
            }
        }
    }
    return text;
}

}  // namespace korvane::test
