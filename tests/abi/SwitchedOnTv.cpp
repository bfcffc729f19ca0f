// SPDX-License-Identifier: Apache-2.0
// A TV for a player that knows of none: on before its main, off after it. Where the build has
// virtual time it runs in that, so that the machine's load drops no frame.
#include <memory>
#include <optional>

#include "tv/Tv.h"
#include "tv/clock/VirtualTime.h"

namespace {

using namespace korvane;

struct SwitchedOnTv {
    SwitchedOnTv() {
        if (tv::VirtualTime::available()) {
            mTime.emplace(1);
        }
        mTv = tv::Tv::powerOn();
    }

    std::optional<tv::VirtualTime> mTime;
    std::shared_ptr<tv::Tv> mTv;  // goes first
} gTv;

}  // namespace
