// SPDX-License-Identifier: Apache-2.0
#include "player/playback/PlaybackRecord.h"

namespace korvane::player {

const char* toString(EndCause cause) {
    switch (cause) {
        case EndCause::Complete:
            return "complete";
        case EndCause::BrokenOff:
            return "broken_off";
        case EndCause::Interrupted:
            return "interrupted";
        case EndCause::Stopped:
            return "stopped";
        case EndCause::Stalled:
            break;
    }
    return "stalled";
}

}  // namespace korvane::player
