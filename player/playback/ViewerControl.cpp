// SPDX-License-Identifier: Apache-2.0
#include "player/playback/ViewerControl.h"

#include <algorithm>
#include <utility>

namespace korvane::player {

std::vector<ViewerStep> ViewerControl::press(const RemoteKey& key, const ViewerPosition& at) {
    using Kind = ViewerStep::Kind;
    switch (key.kind) {
        case RemoteKey::Kind::Pause:
            if (!mPaused) {
                return pause();
            }
            mPaused = false;
            return {{Kind::Resume}};
        case RemoteKey::Kind::Step:
            if (!mPaused) {
                return pause();
            }
            if (mWithAudio) {
                return {{Kind::Resume}, {Kind::AwaitVsync}, {Kind::Pause}};
            }
            mStepping = true;
            return {};
        case RemoteKey::Kind::Seek: {
            std::vector<ViewerStep> steps;
            if (std::exchange(mPaused, false)) {
                steps.push_back({Kind::Resume});
            }
            // From where the last seek went, until that is shown: keys add up.
            const int64_t fromUs =
                at.sectionShows ? at.positionUs : at.soughtUs.value_or(at.positionUs);
            steps.push_back({Kind::Seek, std::max<int64_t>(fromUs + key.byUs, 0)});
            return steps;
        }
        case RemoteKey::Kind::Quit:
            mQuit = true;
            break;
    }
    return {};
}

bool ViewerControl::frameGoesOut() {
    return std::exchange(mClockStands, std::exchange(mStepping, false));
}

std::vector<ViewerStep> ViewerControl::pause() {
    mPaused = true;
    mClockStands = !mWithAudio;
    return {{ViewerStep::Kind::Pause}};
}

}  // namespace korvane::player
