// SPDX-License-Identifier: Apache-2.0
#include "player/explore/Program.h"

#include <algorithm>

namespace korvane::player {
namespace {

constexpr int64_t kFrameUs = 16'667;
/// From the last frame until it is back, a vsync or two more than it takes.
constexpr int64_t kSettleUs = 400'000;

using Steps = std::vector<Step>;

bool sends(const Step& step) {
    return step.act == Act::Send || step.act == Act::SendPeek;
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
    made.threads = std::move(threads);
    return made;
}

Program withAudio(Program made) {
    made.withAudio = true;
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
    all.back().bothReturns = true;
    all.push_back(program("call-back-flush", "the return callback flushes",
                          {join({start(30'000), frames(5), kEnd})}));
    all.back().callsBack = CallsBack::Flush;
    all.push_back(program("call-back-send", "the return callback sends the buffer again",
                          {join({start(), frames(3), {{Act::Sleep, 30'000}}, kStop})}));
    all.back().callsBack = CallsBack::Send;
    all.push_back(program("slow-callback", "stop while a slow callback runs",
                          {join({start(), frames(4), {{Act::Sleep, 40'000}}, kStop})}));
    all.back().callbackTakesUs = 4'000;
    all.push_back(program("two-renderers", "two renderers on one TV, one after the other's start",
                          {join({start(), frames(3), {{Act::Sleep, 20'000}}, kStop})}));
    all.back().renderers = 2;
    all.push_back(program("passthrough", "the sync instance decides; stop while it holds a frame",
                          {join({{{Act::Start}},
                                 frames(3),
                                 {{Act::Sleep, 30'000}, {Act::Flush}},
                                 frames(2, 900'000),
                                 {{Act::Sleep, 12'000}},
                                 kStop})}));
    all.back().passthrough = true;
    all.push_back(
        program("fence-never", "stop while the fill thread waits for a fence",
                {join({start(), {{Act::Faults, 0}}, frames(6), {{Act::Sleep, 60'000}}, kStop})}));
    all.back().faults.resize(1);
    all.back().faults[0].tunnel.fenceNeverSignals = true;
    return all;
}

}  // namespace

const std::vector<Program>& builtInPrograms() {
    static const std::vector<Program> programs = makePrograms();
    return programs;
}

Program withFrames(Program program, int frames) {
    for (auto& steps : program.threads) {
        int sent = 0;
        const auto beyond = [&](const Step& step) { return sends(step) && ++sent > frames; };
        steps.erase(std::remove_if(steps.begin(), steps.end(), beyond), steps.end());
    }
    return program;
}

bool losesBuffers(const Program& program) {
    return program.tv.tunnel.capacity < tv::TunnelConfig().capacity ||
           std::any_of(program.faults.begin(), program.faults.end(), [](const TvFaults& faults) {
               return faults.tunnel.queueFails || faults.tunnel.fenceNeverSignals ||
                      faults.tunnel.fenceWrongMode || faults.tunnel.dequeueFails ||
                      faults.tunnel.connectFails || faults.tunnel.fenceDelayNs > 0;
           });
}

int framesOf(const Program& program) {
    int64_t count = 0;
    for (const auto& steps : program.threads) {
        count = std::max<int64_t>(count, std::count_if(steps.begin(), steps.end(), sends));
    }
    return static_cast<int>(count);
}

}  // namespace korvane::player
