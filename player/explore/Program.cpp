// SPDX-License-Identifier: Apache-2.0
#include "player/explore/Program.h"

#include <algorithm>

namespace korvane::player {
namespace {

constexpr int64_t kFrameUs = 16'667;
/// From the last frame until it is back, a vsync or two more than it takes.
constexpr int64_t kSettleUs = 400'000;

bool sends(const Step& step) {
    return step.act == Act::Send || step.act == Act::SendPeek;
}

bool anySession(const Program& program, const std::function<bool(const Session&)>& is) {
    return std::any_of(program.players.begin(), program.players.end(), [&](const auto& player) {
        return std::any_of(player.begin(), player.end(), is);
    });
}

Steps frames(int count, int64_t fromUs = 0) {
    Steps steps;
    for (int i = 0; i < count; ++i) {
        steps.push_back({Act::Send, fromUs + i * kFrameUs});
    }
    return steps;
}

Steps join(const std::vector<Steps>& parts) {
    Steps steps;
    for (const auto& part : parts) {
        steps.insert(steps.end(), part.begin(), part.end());
    }
    return steps;
}

/// Anchors the clock so that frame 0 is due in a while, then starts.
Steps start(int64_t dueInUs = 0) {
    return {{Act::Anchor, -dueInUs}, {Act::Start}};
}

const Steps kRegister{{Act::Register}, {Act::Sleep, 9'000}};
const Steps kStop{{Act::Stop}};
const Steps kEnd{{Act::Settle, kSettleUs}, {Act::Join}, {Act::Stop}};

Program program(std::string name, std::string shows, std::vector<Steps> threads) {
    Program made;
    made.name = std::move(name);
    made.shows = std::move(shows);
    made.players.resize(1);
    made.players[0].emplace_back().threads = std::move(threads);
    return made;
}

Session& sessionOf(Program& made) {
    return made.players.front().front();
}

Program withAudio(Program made) {
    sessionOf(made).withAudio = true;
    made.audio.startDelayUs = 5'000;
    made.audio.prebufferUs = 20'000;
    return made;
}

std::vector<Program> makePrograms() {
    std::vector<Program> all;
    all.push_back(program("start-flush-stop", "two frames, flush, stop",
                          {join({start(), frames(2), {{Act::Flush}}, kStop})}));
    all.push_back(program("stop-idle", "stop while the drain thread begins to wait for a frame",
                          {join({start(), kStop})}));
    all.push_back(program("stop-early", "stop while frames wait for their time",
                          {join({start(200'000), frames(3), {{Act::Sleep, 3'000}}, kStop})}));
    all.push_back(program("stop-drain", "stop while frames go to the tunnel and come back",
                          {join({start(), frames(5), {{Act::Sleep, 45'000}}, kStop})}));
    all.push_back(program("play-through", "five frames to their end, then stop",
                          {join({start(30'000), frames(5), kEnd})}));
    all.push_back(program("flush-send", "one thread sends while another one flushes",
                          {join({start(30'000), frames(4), kEnd}),
                           {{Act::Flush}, {Act::Sleep, 4'000}, {Act::Flush}}}));
    all.push_back(program(
        "seek-storm", "flushes in a row, each with frames after it",
        {join({start(),
               frames(3),
               {{Act::Flush}, {Act::AwaitBack, 100'000}, {Act::Anchor, 900'000}},
               frames(3, 1'000'000),
               {{Act::Flush}, {Act::Flush}, {Act::AwaitBack, 100'000}, {Act::Anchor, 1'900'000}},
               frames(3, 2'000'000),
               kEnd})}));
    all.push_back(program("two-senders", "two threads send",
                          {join({start(30'000), frames(3), kEnd}), frames(3)}));
    all.push_back(
        program("send-stop", "frames are still sent while the owner stops",
                {join({start(30'000), frames(2), kStop, {{Act::Join}}}), frames(3, 2 * kFrameUs)}));
    all.push_back(
        program("flush-stop", "another thread flushes while the owner stops",
                {join({start(30'000), frames(3), kStop, {{Act::Join}}}), {{Act::Flush}}}));

    all.push_back(withAudio(
        program("audio", "frames led by audio", {join({{{Act::Start}}, frames(5), kEnd})})));
    all.push_back(withAudio(
        program("audio-peek", "a first frame shown at once, then stop before audio starts",
                {join({{{Act::Start}, {Act::SendPeek, 0}, {Act::Sleep, 3'000}}, kStop})})));
    all.push_back(withAudio(program("audio-peek-flush", "peek frames and flushes from two threads",
                                    {join({{{Act::Start}, {Act::SendPeek, 0}, {Act::PeekFirst}},
                                           frames(2, kFrameUs),
                                           kStop,
                                           {{Act::Join}}}),
                                     {{Act::Flush}, {Act::Sleep, 2'000}, {Act::Flush}}})));
    all.push_back(withAudio(program("audio-flush", "flush while the first frame waits for audio",
                                    {join({{{Act::Start}},
                                           frames(3),
                                           {{Act::Sleep, 3'000}, {Act::Flush}},
                                           {{Act::AwaitBack, 100'000}},
                                           frames(3, 100'000),
                                           kEnd})})));

    all.push_back(program("notify-twice", "the player fetches render times beside the fill thread",
                          {join({start(), frames(4), kEnd}),
                           {{Act::Sleep, 4'000},
                            {Act::NotifyTimes},
                            {Act::Sleep, 9'000},
                            {Act::NotifyTimes},
                            {Act::Sleep, 9'000},
                            {Act::NotifyTimes}}}));
    all.push_back(program("register", "callbacks are registered anew while they run",
                          {join({start(), frames(4), {{Act::Join}}, kEnd}),
                           join({kRegister, kRegister, kRegister, kRegister, kRegister})}));
    sessionOf(all.back()).return0 = true;
    all.push_back(program("call-back-flush", "the return callback flushes",
                          {join({start(30'000), frames(5), kEnd})}));
    sessionOf(all.back()).onReturn = {{Act::Flush}};
    all.push_back(program("call-back-send", "the return callback sends the buffer again",
                          {join({start(), frames(3), {{Act::Sleep, 30'000}}, kStop})}));
    sessionOf(all.back()).onReturn = {{Act::SendNext, kFrameUs}};
    all.push_back(program("slow-callback", "stop while a slow callback runs",
                          {join({start(), frames(4), {{Act::Sleep, 40'000}}, kStop})}));
    sessionOf(all.back()).callbackTakesUs = 4'000;
    all.push_back(program("two-renderers", "two renderers on one TV, one after the other's start",
                          {join({start(), frames(3), {{Act::Sleep, 20'000}}, kStop})}));
    all.back().players.push_back(all.back().players.front());
    all.push_back(program("passthrough", "the sync instance decides; stop while it holds a frame",
                          {join({{{Act::Start}},
                                 frames(3),
                                 {{Act::Sleep, 30'000}, {Act::Flush}},
                                 frames(2, 900'000),
                                 {{Act::Sleep, 12'000}},
                                 kStop})}));
    sessionOf(all.back()).passthrough = true;
    all.push_back(
        program("fence-never", "stop while the fill thread waits for a fence",
                {join({start(), {{Act::Faults, 0}}, frames(6), {{Act::Sleep, 60'000}}, kStop})}));
    all.back().faults.resize(1);
    all.back().faults[0].tunnel.fenceNeverSignals = true;

    all.push_back(program("restart", "start after stop while another thread sends and flushes",
                          {join({start(),
                                 frames(2),
                                 {{Act::Sleep, 9'000}, {Act::Stop}},
                                 start(),
                                 frames(2, 2 * kFrameUs),
                                 {{Act::Sleep, 9'000}, {Act::Flush}},
                                 kStop,
                                 {{Act::Join}}}),
                           join({frames(1), {{Act::Flush}}, frames(1, kFrameUs)})}));
    all.push_back(program("delete-running", "delete in place of stop, frames everywhere",
                          {join({start(), frames(5), {{Act::Sleep, 40'000}}})}));
    all.push_back(program("two-sessions", "a renderer, and after its end another one",
                          {join({start(), frames(3), {{Act::Sleep, 20'000}}, kStop})}));
    all.back().players[0].push_back(all.back().players[0][0]);
    return all;
}

}  // namespace

const std::vector<Program>& builtInPrograms() {
    static const std::vector<Program> programs = makePrograms();
    return programs;
}

Program withFrames(Program program, int frames) {
    for (auto& player : program.players) {
        for (auto& session : player) {
            for (auto& steps : session.threads) {
                int sent = 0;
                const auto beyond = [&](const Step& step) {
                    return sends(step) && ++sent > frames;
                };
                steps.erase(std::remove_if(steps.begin(), steps.end(), beyond), steps.end());
            }
        }
    }
    return program;
}

int framesOf(const Program& program) {
    int64_t count = 0;
    for (const auto& player : program.players) {
        for (const auto& session : player) {
            for (const auto& steps : session.threads) {
                count = std::max<int64_t>(count, std::count_if(steps.begin(), steps.end(), sends));
            }
        }
    }
    return static_cast<int>(count);
}

bool does(const Steps& steps, Acts acts) {
    return std::any_of(steps.begin(), steps.end(), [acts](const Step& step) {
        return std::find(acts.begin(), acts.end(), step.act) != acts.end();
    });
}

bool does(const Session& session, Acts acts) {
    return does(session.onReturn, acts) || does(session.onRenderTime, acts) ||
           std::any_of(session.threads.begin(), session.threads.end(),
                       [acts](const Steps& steps) { return does(steps, acts); });
}

bool does(const Program& program, Acts acts) {
    return does(program.tvThread, acts) ||
           anySession(program, [acts](const Session& session) { return does(session, acts); });
}

bool hasFault(const Program& program, const std::function<bool(const TvFaults&)>& is) {
    return std::any_of(program.faults.begin(), program.faults.end(), is);
}

bool refusesBuffers(const Program& program) {
    return program.tv.tunnel.capacity < tv::TunnelConfig().capacity ||
           does(program, {Act::PowerOff}) || hasFault(program, [](const TvFaults& faults) {
               const tv::TunnelFaults& tunnel = faults.tunnel;
               return tunnel.openFails || tunnel.allocFails || tunnel.connectFails ||
                      tunnel.queueFails;
           });
}

bool keepsBuffers(const Program& program) {
    return hasFault(program, [](const TvFaults& faults) {
        const tv::TunnelFaults& tunnel = faults.tunnel;
        return tunnel.fenceNeverSignals || tunnel.fenceWrongMode || tunnel.dequeueFails ||
               tunnel.fenceDelayNs > 0;
    });
}

bool mayLogErrors(const Program& program) {
    return !program.faults.empty() || refusesBuffers(program) ||
           program.tv.display.reportJitterNs > 0 ||
           does(program, {Act::CreateFails, Act::SyncFails, Act::EndPassthrough, Act::FrameRate,
                          Act::TakeReleased}) ||
           anySession(program, [](const Session& session) {
               const Steps& steps = session.threads.front();
               const auto stop = std::find_if(steps.begin(), steps.end(), [](const Step& step) {
                   return step.act == Act::Stop;
               });
               return session.unknownSync || does({stop, steps.end()}, {Act::Start});
           });
}

}  // namespace korvane::player
