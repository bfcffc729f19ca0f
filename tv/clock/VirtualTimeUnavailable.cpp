// SPDX-License-Identifier: Apache-2.0
// VirtualTime in a build with a sanitizer: it is not available.
#include <stdexcept>

#include "tv/clock/FencePipe.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::tv {

bool VirtualTime::available() {
    return false;
}

bool VirtualTime::active() {
    return false;
}

int32_t VirtualTime::threadNumber() {
    return 0;
}

std::string VirtualTime::threadName(int32_t) {
    return {};
}

Undisturbed::Undisturbed() : mScopes(nullptr) {}
Undisturbed::~Undisturbed() {
    static_cast<void>(mScopes);
}

std::string VirtualTime::dump() {
    return {};
}

VirtualTime::VirtualTime(uint64_t, const VirtualTimeOptions&) {
    throw std::runtime_error(
        "virtual time cannot begin: not available in this build, which has a "
        "sanitizer");
}

VirtualTime::~VirtualTime() {
    // None was ever made.
}

std::string VirtualTime::run(const std::function<void()>&) {
    return {};
}

const std::string& VirtualTime::failure() const {
    static const std::string none;
    return none;
}

int64_t VirtualTime::nowNs() const {
    return 0;
}

VirtualTimeStatistics VirtualTime::statistics() const {
    return {};
}

void wakePollers() {}

}  // namespace korvane::tv
