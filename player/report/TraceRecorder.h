// SPDX-License-Identifier: Apache-2.0
// Writes what the ledger has of each frame into the trace. All times are the ledger's, so the trace
// agrees with the event log and the CSV; a frame comes some seconds after it happened.
//
//   track or timeline        what it shows
//   player/playback          the command line, at the start; over all of it, the verdict
//   player/actions           what the player did or noticed: seek, pause, audio, ...
//   player/handed in         an instant for each frame; here its arrows begin
//   player/back              its buffer is the player's again; here they end
//   player/unexpected dwells what the summary lists, with its cause
//   buffers/buffer 3         who holds the buffer: library, tunnel, screen, panel, library
//   expected timeline        from the time that the sync clock has for a frame to that of the next
//   actual timeline          the frame's time on screen; without length for a frame that was not
#pragma once

#include <cstdint>
#include <optional>

#include "player/playback/Playback.h"
#include "player/report/Report.h"
#include "player/report/Summary.h"
#include "tv/Trace.h"

namespace korvane::player {

/// In Android's terms, how a frame came on screen, and why.
struct PresentVerdict {
    tv::PresentType present = tv::PresentType::OnTime;
    int32_t jank = tv::kJankNone;
};
/// On time: at the first vsync at which it was due, and within EBU R37's band of the sync clock.
PresentVerdict presentVerdict(const FrameEntry& frame);

class TraceRecorder final : public PlaybackListener {
public:
    explicit TraceRecorder(const Origin& origin) : mOrigin(origin) {}

    void onStart(const PlaybackRecord& soFar) override;
    void onFrame(const FrameEntry& frame, const PlaybackRecord& soFar) override;
    void onAction(const Event& action) override;
    /// Call once, after the playback.
    void finish(const PlaybackRecord& record, const Summary& summary);

private:
    struct HeldFrame {
        FrameEntry frame;
        std::optional<int64_t> dueNs;  ///< by the sync clock
    };
    std::optional<int64_t> dueNs(const FrameEntry& frame);
    void traceTimeline(const HeldFrame& held, std::optional<int64_t> nextDueNs);

    const Origin mOrigin;
    std::optional<HeldFrame> mHeld;  ///< until the next frame's time is known
    /// The sync clock's real minus media time at the last frame that has both; valid in its
    /// section.
    std::optional<int64_t> mClockOffsetUs;
    int mSection = 0;
};

}  // namespace korvane::player
