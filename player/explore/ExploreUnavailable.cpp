// SPDX-License-Identifier: Apache-2.0
// Builds with a sanitizer have no virtual time, and so nothing to explore with; the command says so
// before it comes here.
#include <stdexcept>

#include "player/explore/Replay.h"

namespace korvane::player {
namespace {

[[noreturn]] void refuse() {
    throw std::logic_error("no virtual time in this build");
}

}  // namespace

ExploreResult explore(const ExploreOptions& /*options*/, const ExploreHooks& /*hooks*/) {
    refuse();
}

bool ReplayResult::has(const std::string& /*what*/) const {
    refuse();
}

ReplayResult replay(const Program& /*program*/, const std::string& /*schedule*/,
                    const ReplayOptions& /*options*/) {
    refuse();
}

ShrunkFault shrink(const Program& /*program*/, const FoundFault& /*found*/, int64_t /*limitUs*/) {
    refuse();
}

}  // namespace korvane::player
