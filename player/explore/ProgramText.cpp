// SPDX-License-Identifier: Apache-2.0
// A program in words, so that what a run of it found can be understood and built again.
#include <fmt/format.h>

#include <iterator>

#include "player/explore/Program.h"

namespace korvane::player {
namespace {

/// By Act.
constexpr const char* kActNames[] = {
    "begin",      "start",      "stop",      "join",         "settle", "recall",
    "send",       "send-peek",  "send-next", "peek-first",   "flush",  "await-back",
    "anchor",     "read-clock", "register",  "notify-times", "take",   "hand-back",
    "announce",   "frame-rate", "sleep",     "until",        "sound",  "sound-flush",
    "sound-end",  "pause",      "resume",    "faults",       "mode",   "create-fails",
    "sync-fails", "sync-works", "end-pass",  "power-off"};
static_assert(std::size(kActNames) == static_cast<size_t>(Act::PowerOff) + 1);

void addSteps(std::string* text, const std::string& who, const Steps& steps) {
    if (steps.empty()) {
        return;
    }
    *text += "  " + who + ":";
    for (const auto& step : steps) {
        *text += fmt::format(" {}", kActNames[static_cast<size_t>(step.act)]);
        *text += step.us != 0 ? fmt::format(" {} us", step.us) : "";
        *text += step.number != 0 ? fmt::format(" {}", step.number) : "";
        *text += &step != &steps.back() ? "," : "\n";
    }
}

std::string faultText(const TvFaults& faults) {
    std::string text =
        fmt::format(" period {} ns, fence delay {} us", faults.reportedPeriodNs.value_or(-1),
                    faults.tunnel.fenceDelayNs / 1000);
    for (const auto& [name, fault] : kTunnelFaults) {
        text += faults.tunnel.*fault ? std::string(" ") + name : "";
    }
    return text + (faults.reportFails ? " report\n" : "\n");
}

std::string sessionText(const Session& session) {
    std::string text =
        fmt::format("callbacks{}{}{} take {} us, answer {} each {}", session.return0 ? " 0" : "",
                    session.return2 ? " 2" : "", session.renderTimes ? " 1" : "",
                    session.callbackTakesUs, session.answers, session.answersEach);
    text += session.withAudio ? ", audio" : "";
    text += session.passthrough ? ", pass-through" : "";
    text += session.unknownSync ? ", unknown sync id" : "";
    text += session.tidy ? "\n" : ", untidy\n";
    for (size_t thread = 0; thread < session.threads.size(); ++thread) {
        addSteps(&text, fmt::format("thread {}", thread), session.threads[thread]);
    }
    addSteps(&text, "on return", session.onReturn);
    addSteps(&text, "on render time", session.onRenderTime);
    return text;
}

}  // namespace

std::string toText(const Program& program) {
    std::string text = fmt::format("display {} Hz, jitter {} ns, tunnel of {}, {} buffers\n",
                                   program.tv.display.rateHz, program.tv.display.reportJitterNs,
                                   program.tv.tunnel.capacity, program.buffers);
    for (size_t i = 0; i < program.faults.size(); ++i) {
        text += fmt::format("faults {}:{}", i, faultText(program.faults[i]));
    }
    addSteps(&text, "tv", program.tvThread);
    for (size_t player = 0; player < program.players.size(); ++player) {
        for (const auto& session : program.players[player]) {
            text += fmt::format("player {}: {}", player, sessionText(session));
        }
    }
    return text;
}

}  // namespace korvane::player
