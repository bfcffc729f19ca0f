// SPDX-License-Identifier: Apache-2.0
// A program in words: what is not as usual, and the steps of each thread.
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
        *text += step.number != 0 || step.act == Act::Faults ? fmt::format(" {}", step.number) : "";
        *text += &step != &steps.back() ? "," : "\n";
    }
}

std::string faultText(const TvFaults& faults) {
    std::string text;
    for (const auto& [name, fault] : kTunnelFaults) {
        text += faults.tunnel.*fault ? std::string(" ") + name : "";
    }
    text += faults.reportFails ? " vsync-report" : "";
    if (faults.tunnel.fenceDelayNs != 0) {
        text += fmt::format(" fences {} us late", faults.tunnel.fenceDelayNs / 1000);
    }
    if (faults.reportedPeriodNs) {
        text += fmt::format(" period reported as {} ns", *faults.reportedPeriodNs);
    }
    return text.empty() ? " none" : text;
}

/// What is not as usual, and each thread's steps.
std::string sessionText(const Session& session) {
    std::string text = session.withAudio ? ", sound" : "";
    text += session.passthrough ? ", pass-through" : "";
    text += session.unknownSync ? ", unknown sync id" : "";
    text += session.return0 ? ", callback 0" : "";
    text += session.renderTimes ? "" : ", no callback 1";
    text += session.return2 ? "" : ", no callback 2";
    if (session.callbackTakesUs != 0) {
        text += fmt::format(", callbacks take {} us", session.callbackTakesUs);
    }
    if (session.answers != 0) {
        text +=
            fmt::format(", every {}. callback returns {}", session.answersEach, session.answers);
    }
    text += "\n";
    for (size_t thread = 0; thread < session.threads.size(); ++thread) {
        addSteps(&text, thread == 0 ? "owner" : fmt::format("thread {}", thread),
                 session.threads[thread]);
    }
    addSteps(&text, "in callbacks 0 and 2", session.onReturn);
    addSteps(&text, "in callback 1", session.onRenderTime);
    return text;
}

}  // namespace

std::string toText(const Program& program) {
    std::string text = fmt::format("a {:.7g} Hz display", program.tv.display.rateHz);
    if (program.tv.display.reportJitterNs != 0) {
        text += fmt::format(", vsyncs reported up to {} ns off", program.tv.display.reportJitterNs);
    }
    if (program.tv.tunnel.capacity != tv::TunnelConfig().capacity) {
        text += fmt::format(", a tunnel for {} buffers", program.tv.tunnel.capacity);
    }
    text += "\n";
    for (size_t i = 0; i < program.faults.size(); ++i) {
        text += fmt::format("faults {}:{}\n", i, faultText(program.faults[i]));
    }
    addSteps(&text, "TV", program.tvThread);
    for (size_t player = 0; player < program.players.size(); ++player) {
        for (const auto& session : program.players[player]) {
            text += fmt::format("player {}, {} buffers{}", player, program.buffers,
                                sessionText(session));
        }
    }
    return text;
}

}  // namespace korvane::player
