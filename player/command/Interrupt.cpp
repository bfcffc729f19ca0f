// SPDX-License-Identifier: Apache-2.0
#include "player/command/Interrupt.h"

#include <atomic>
#include <csignal>

namespace korvane::player {
namespace {

std::atomic<bool> gInterrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set in a signal handler");

void onSignal(int) {
    gInterrupted = true;
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

}  // namespace

void catchInterrupts() {
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
}

bool interrupted() {
    return gInterrupted;
}

}  // namespace korvane::player
