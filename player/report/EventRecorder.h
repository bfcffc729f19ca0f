// SPDX-License-Identifier: Apache-2.0
// Writes a playback into an event log.
#pragma once

#include "player/playback/Playback.h"
#include "player/report/EventLog.h"

namespace korvane::player {

/// Turns each finished frame into its events; adds what the player does as it comes.
class EventRecorder final : public PlaybackListener {
public:
    explicit EventRecorder(EventLog* log) : mLog(log) {}

    void onStart(const PlaybackRecord& soFar) override;
    void onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) override;
    void onAction(const Event& action) override { mLog->add(action); }
    void onFinalUpTo(int64_t timeNs) override { mLog->release(timeNs); }

private:
    void addTunnelEvents(const FrameEntry& frame, const PlaybackRecord& soFar);
    void addEnd(const FrameEntry& frame);

    EventLog* const mLog;
};

}  // namespace korvane::player
