// SPDX-License-Identifier: Apache-2.0
#include "player/command/Interrupt.h"

#include <atomic>
#include <csignal>

namespace korvane::player {
namespace {

std::atomic<int> gSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "set in a signal handler");

void onSignal(int number) {
    gSignal = number;
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

}  // namespace

void catchInterrupts() {
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
}

bool interrupted() {
    return gSignal != 0;
}

int interruptingSignal() {
    return gSignal;
}

}  // namespace korvane::player
