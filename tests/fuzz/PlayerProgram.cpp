// SPDX-License-Identifier: Apache-2.0
#include "tests/fuzz/PlayerProgram.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <utility>

#include "tv/Log.h"
#include "tv/Properties.h"
#include "tv/Trace.h"

namespace korvane::test {
namespace {

using player::Act;
using player::Session;
using player::Step;
using player::Steps;

constexpr size_t kMostOperations = 256;
constexpr size_t kThreads = 3;    ///< of a player
constexpr int kMostFrames = 256;  ///< of a session
constexpr int64_t kFurthestUs = 5'000'000;
constexpr int64_t kRecallUs = 30'000'000;
constexpr int64_t kLongestUs = int64_t{3600} * 1'000'000;

/// By an operation's number. The last three are the owner's; the last one begins another session.
constexpr Act kActs[32] = {Act::Send,      Act::Send,        Act::Send,         Act::Send,
                           Act::Send,      Act::Send,        Act::Send,         Act::SendPeek,
                           Act::Sleep,     Act::Sleep,       Act::Sleep,        Act::Sleep,
                           Act::Sleep,     Act::Flush,       Act::Flush,        Act::Flush,
                           Act::PeekFirst, Act::Register,    Act::Anchor,       Act::Anchor,
                           Act::ReadClock, Act::NotifyTimes, Act::TakeReleased, Act::HandBack,
                           Act::Announce,  Act::FrameRate,   Act::AwaitBack,    Act::Sound,
                           Act::Sound,     Act::Stop,        Act::Start,        Act::Begin};

/// An operation of the TV's from this number on toggles a fault of its tunnel; before, it sleeps.
constexpr unsigned kFirstToggle = 13;

template <typename Value, size_t N>
Value at(const Value (&values)[N], unsigned number) {
    return values[number % N];
}

/// Zeros beyond the end, so that the front of an input is a program too.
class Bytes {
public:
    Bytes(const uint8_t* data, size_t size) : mData(data), mEnd(data + size) {}
    bool empty() const { return mData == mEnd; }
    uint8_t next() { return empty() ? uint8_t{0} : *mData++; }
    template <typename Value, size_t N>
    Value pick(const Value (&values)[N]) {
        return at(values, next());
    }

private:
    const uint8_t* mData;
    const uint8_t* mEnd;
};

int64_t sleepOf(uint8_t argument) {
    constexpr int64_t kSleepsUs[] = {0,     50,     499,    500,     1'000,   2'000,
                                     5'000, 16'683, 41'708, 100'000, 300'000, 1'000'000};
    return at(kSleepsUs, argument);
}

/// A session that is being decoded.
class SessionDecoder {
public:
    explicit SessionDecoder(Bytes* bytes) {
        constexpr int64_t kFrames[] = {41'708, 33'366, 16'683, 40'000};
        constexpr int kRefusals[] = {0, 0, 3, 1};
        constexpr int64_t kCallbackUs[] = {0, 0, 0, 0, 200, 2'000, 20'000, 100'000};
        const Steps calls[] = {{},
                               {},
                               {{Act::Flush}},
                               {{Act::Register}},
                               {{Act::Anchor}},
                               {{Act::ReadClock}},
                               {{Act::FrameRate, 0, 2397}},
                               {{Act::SendNext}}};
        const unsigned kind = bytes->next();
        mSession.withAudio = (kind & 3) == 1;
        mSession.passthrough = (kind & 3) == 2;
        mSession.unknownSync = (kind & 3) == 3;
        mEnding = kind >> 2 & 3;
        mSession.tidy = false;
        mSession.threads.resize(kThreads);
        add(0, {(kind >> 4 & 3) != 3 ? Act::Start : Act::Begin});
        mFrameUs = kFrames[kind >> 6];
        const unsigned callbacks = bytes->next();
        mSession.return0 = (callbacks & 1) != 0;
        mSession.return2 = (callbacks & 3) != 1;
        mSession.renderTimes = (callbacks >> 2 & 1) != 0;
        const int refusals = kRefusals[callbacks >> 3 & 3];
        mSession.answers = refusals != 0 ? 1 : 0;
        mSession.answersEach = std::max(refusals, 1);
        mSession.callbackTakesUs = kCallbackUs[callbacks >> 5];
        mSession.callsBack = kMostFrames;
        mSession.onReturn = at(calls, bytes->next());
        mSession.onRenderTime = calls[bytes->next() % (std::size(calls) - 1)];
    }

    void add(size_t thread, Step step) { mSession.threads[thread].push_back(step); }

    void add(size_t thread, Act act, uint8_t argument) {
        constexpr int64_t kAwayUs[] = {0, 0, -50'000, 100'000, -1'000'000};
        constexpr int64_t kAwaitUs = 100'000;
        constexpr Act kSounds[] = {Act::Pause, Act::Resume, Act::SoundFlush, Act::SoundEnd};
        switch (act) {
            case Act::Send:
            case Act::SendPeek:
                return send(thread, act, argument);
            case Act::Sleep:
                return add(thread, {act, sleepOf(argument)});
            case Act::Anchor:
                return add(thread, {act, mMediaUs + at(kAwayUs, argument)});
            case Act::AwaitBack:
                return add(thread, {act, kAwaitUs});
            case Act::FrameRate:
                return add(thread, {act, 0, argument * 50 - 1});
            case Act::Sound:
                return add(thread, (argument & 7) < 4 ? Step{kSounds[argument & 7]}
                                                      : Step{act, mMediaUs, (argument >> 3) + 1});
            case Act::ReadClock:
            case Act::Announce:
                return add(thread, {act, mMediaUs, argument});
            case Act::HandBack:
                return add(thread, {act, 0, argument});
            default:
                return add(thread, {act});
        }
    }

    /// With its end. A return callback may run under the input lock where a peek frame is refused:
    /// then it must not send.
    Session session() {
        const Steps endings[] = {{{Act::Join}, {Act::Recall, kRecallUs}, {Act::Stop}},
                                 {{Act::Stop}, {Act::Join}},
                                 {{Act::Join}},
                                 {{Act::Join},
                                  {Act::Stop},
                                  {Act::Start},
                                  {Act::Send, mMediaUs},
                                  {Act::Stop},
                                  {Act::Stop}}};
        const Steps& ending = endings[mEnding];
        mSession.threads[0].insert(mSession.threads[0].end(), ending.begin(), ending.end());
        if (does(mSession, {Act::SendPeek, Act::PeekFirst}) &&
            does(mSession.onReturn, {Act::SendNext})) {
            mSession.onReturn.clear();
        }
        for (auto* calls : {&mSession.onReturn, &mSession.onRenderTime}) {
            if (does(*calls, {Act::Anchor, Act::ReadClock})) {
                calls->front().us = mMediaUs;
            }
        }
        return std::move(mSession);
    }

private:
    /// One to eight frames; the first one's distance from the last is not always a frame.
    void send(size_t thread, Act act, uint8_t argument) {
        constexpr int64_t kJumpsUs[] = {0, 0, 0, 0, 11'000, 500'000, -300'000, 2'500'000};
        mMediaUs += kJumpsUs[argument >> 5];
        for (int i = 0; i <= (argument & 7) && mFrames < kMostFrames; ++i, ++mFrames) {
            mMediaUs = std::clamp<int64_t>(mMediaUs, 0, kFurthestUs);
            add(thread, {act, mMediaUs});
            mMediaUs += mFrameUs;
        }
    }

    Session mSession;
    unsigned mEnding = 0;
    int64_t mFrameUs = 0;
    int64_t mMediaUs = 0;  ///< after the frame decoded last
    int mFrames = 0;
};

/// Faults of the tunnel that are on or off are toggled.
void addTvStep(player::Program* program, unsigned number, uint8_t argument) {
    constexpr int64_t kDelaysNs[] = {0, 5'000'000, 40'000'000, 999'000'000, 1'500'000'000};
    constexpr int32_t kPeriodsNs[] = {16'666'666, 0, -1, 1, 20'000'000, INT32_MAX};
    constexpr int kRatesMhz[] = {60'000, 59'940, 50'000, 24'000, 120'000};
    const bool on = (argument & 1) != 0;
    auto& steps = program->tvThread;
    if (number < kFirstToggle) {
        return steps.push_back({Act::Sleep, sleepOf(argument)});
    }
    player::TvFaults faults = program->faults.empty() ? player::TvFaults() : program->faults.back();
    if (number < kFirstToggle + std::size(player::kTunnelFaults)) {
        bool& fault = faults.tunnel.*player::kTunnelFaults[number - kFirstToggle].second;
        fault = !fault;
    }
    switch (number) {
        case 24:
            faults.tunnel.fenceDelayNs = at(kDelaysNs, argument);
            break;
        case 25:
            return steps.push_back({on ? Act::SyncFails : Act::SyncWorks, 0, argument / 2});
        case 26:
            return steps.push_back({Act::CreateFails, 0, on ? 1 : 0});
        case 27:
            faults.reportFails = on;
            break;
        case 28:
            faults.reportedPeriodNs = at(kPeriodsNs, argument);
            break;
        case 29:
            return steps.push_back({Act::Mode, 0, at(kRatesMhz, argument)});
        case 30:
            return steps.push_back({Act::EndPassthrough, 0, argument / 2});
        case 31:
            return steps.push_back({Act::PowerOff});
        default:
            break;
    }
    steps.push_back({Act::Faults, 0, static_cast<int>(program->faults.size())});
    program->faults.push_back(faults);
}

using Players = std::vector<std::vector<SessionDecoder>>;

void decodeOperations(Bytes* bytes, player::Program* program, Players* players) {
    struct Place {
        size_t player;
        size_t thread;
    };
    constexpr Place kPlaces[] = {{0, 0}, {0, 1}, {0, 2}, {1, 0}, {1, 1}, {2, 0}, {2, 1}};
    for (size_t count = 0; !bytes->empty() && count < kMostOperations; ++count) {
        const unsigned head = bytes->next();
        const uint8_t argument = bytes->next();
        if (head >> 5 == 0) {
            addTvStep(program, head, argument);
            continue;
        }
        const Place place = kPlaces[(head >> 5) - 1];
        auto& sessions = (*players)[place.player % players->size()];
        Act act = kActs[head & 31];
        if (place.thread != 0 && (act == Act::Stop || act == Act::Start || act == Act::Begin)) {
            act = Act::Sleep;
        }
        if (act == Act::Begin) {
            sessions.emplace_back(bytes);
        } else {
            sessions.back().add(place.thread, act, argument);
        }
    }
}

}  // namespace

RandomPlayer decodePlayer(const uint8_t* data, size_t size) {
    constexpr double kRates[] = {60.0, 60000.0 / 1001.0, 50.0, 24.0, 120.0};
    constexpr int kCapacities[] = {kBuffers, kBuffers, kBuffers, kBuffers, 5, 2};
    constexpr uint32_t kPreemptions[] = {0, 256, 4096, 16'384};
    constexpr int64_t kLongestNs[] = {0, 10'000, 100'000, 1'000'000};
    constexpr int kLogMasks[] = {0, 0, 1, 31};
    constexpr int64_t kJitterNs[] = {0, 0, 500'000, 5'000'000};
    Bytes bytes(data, size);
    RandomPlayer random;
    player::Program& program = random.program;
    program.buffers = kBuffers;
    program.longestUs = kLongestUs;
    program.tv.display.rateHz = bytes.pick(kRates);
    program.tv.tunnel.capacity = bytes.pick(kCapacities);
    random.seed = bytes.next() + 1U;
    program.tv.display.seed = random.seed;
    random.preemptions = bytes.pick(kPreemptions);
    random.longestPreemptionNs = bytes.pick(kLongestNs);
    const unsigned rest = bytes.next();
    random.spuriousWakeups = (rest & 1) != 0 ? 4096 : 0;
    random.logMask = kLogMasks[rest >> 1 & 3];
    random.trace = (rest >> 3 & 1) != 0;
    program.tv.display.reportJitterNs = bytes.pick(kJitterNs);
    Players players(bytes.next() % 3 + 1U);
    for (auto& player : players) {
        player.emplace_back(&bytes);
    }
    decodeOperations(&bytes, &program, &players);
    for (auto& player : players) {
        auto& sessions = program.players.emplace_back();
        for (auto& session : player) {
            sessions.push_back(session.session());
        }
    }
    return random;
}

void setLogging(const RandomPlayer& random) {
    constexpr int kLogNothing = 8;
    tv::openLog(kLogNothing);
    tv::setProperty(tv::kLogMaskProperty, std::to_string(random.logMask));
    tv::setTraceTagEnabled(random.trace);
}

void endIfAny(const std::vector<player::Fault>& faults, const RandomPlayer& random) {
    bool any = false;
    for (const auto& fault : faults) {
        if (deliberateReason(fault) == nullptr) {
            std::fprintf(stderr, "%s\n%s\n", fault.what.c_str(), fault.detail.c_str());
            any = true;
        }
    }
    if (any) {
        std::fprintf(stderr, "seed %d, preemptions %u of 65536, %d us at most\n%s",
                     static_cast<int>(random.seed), random.preemptions,
                     static_cast<int>(random.longestPreemptionNs / 1000),
                     toText(random.program).c_str());
        std::abort();
    }
}

}  // namespace korvane::test
